#pragma once

#include "ICryptographicHash.h"

namespace sync {
namespace core {

// SHA-256 of a file's content (OpenSSL), as lower-case hex.
//
// A regular file is read through a read-only memory mapping; anything that cannot be mapped
// (an empty file, a pipe, a file system without mmap) is read in blocks of 1 MiB. A file that
// shrinks while it is mapped raises SIGBUS, as with any mapping: the engine hashes files that
// it has just found unchanged on disk, not files being written.
class CryptographicHash : public sync::interf::ICryptographicHash {
public:
    CryptographicHash() = default;
    ~CryptographicHash() override = default;

    QString GetFileHash(const QString& filePath) override;
};

}  // namespace core
}  // namespace sync
