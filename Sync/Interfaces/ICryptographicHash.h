#pragma once

#include <QString>

namespace sync {
namespace interf {

class ICryptographicHash {
public:
    virtual ~ICryptographicHash() = default;
    // Content hash of a local file as lower-case hex text; empty when the file cannot be
    // read. Never throws.
    virtual QString GetFileHash(const QString& filePath) = 0;
};

}  // namespace interf
}  // namespace sync
