#pragma once

#include <QDateTime>
#include <QString>

#include "SyncCodes.h"
#include "SyncDetails.h"

namespace sync {
namespace database {

// One stored action-log entry, as the host reads it back.
struct ActionLogEntry {
    qint64 id = -1;
    QDateTime time;  // UTC
    int type = 0;
    QString localPath;  // empty for an entry that belongs to no folder
    QString name;
    int httpCode = 0;  // 0 unless the entry reports an HTTP failure
    QString url;
    bool hasDetails = false;
    sync::core::SyncDetails details;

    bool operator==(const ActionLogEntry& o) const {
        return id == o.id && time == o.time && type == o.type && localPath == o.localPath &&
               name == o.name && httpCode == o.httpCode && url == o.url &&
               hasDetails == o.hasDetails && details == o.details;
    }
};

// The entry types and details kinds live with the engine's other wire codes.
namespace actionlog = sync::core::actionlog;

}  // namespace database
}  // namespace sync
