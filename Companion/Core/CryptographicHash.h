#pragma once

#include "ICryptographicHash.h"

namespace sync {
namespace core {

// SHA-256 of a file's content (OpenSSL), as lower-case hex.
//
// A regular file is read through a read-only memory mapping; anything that cannot be mapped
// (an empty file, a pipe, a file system without mmap) is read in blocks of 1 MiB. A file that
// another process truncates while it is being hashed has no hash this time: the bus error the
// mapping raises is caught (a SIGBUS handler is installed on first use and chains to the
// handler it replaces).
class CryptographicHash : public sync::interf::ICryptographicHash {
public:
    CryptographicHash() = default;
    ~CryptographicHash() override = default;

    QString GetFileHash(const QString& filePath) override;
};

}  // namespace core
}  // namespace sync
