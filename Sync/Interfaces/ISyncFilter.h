#pragma once

#include <QString>

namespace sync {
namespace interf {

// The host's exclusion rules. Non-zero excludes the entry.
class ISyncFilter {
public:
    virtual ~ISyncFilter() = default;
    // path: below the root for the local side, serverPath for the server side.
    virtual int FilterFile(const QString& path, qint64 size, bool serverSide) = 0;
    virtual int FilterFolder(const QString& path, bool serverSide) = 0;
};

}  // namespace interf
}  // namespace sync
