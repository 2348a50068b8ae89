#pragma once

#include <QByteArray>

namespace sync {
namespace core {

// Opens a folder whose whole path is longer than the system takes (PATH_MAX bytes, which a
// path of multi-byte names reaches long before the engine's limits in characters), one name at
// a time from a folder above it; links below that folder are never followed. -1 with errno set.
int OpenNameByName(const QByteArray& top, const QByteArray& native);

}  // namespace core
}  // namespace sync
