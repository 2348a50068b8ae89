#pragma once

#include <QDateTime>
#include <QString>

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

// Entry types and details kinds that the engine writes.
namespace actionlog {
enum EntryType {
    RootFolderSynchronized = 2,
    RootFolderFailed = 3,
    ConnectionProblem = 4,
    LocalFileMovedToTrash = 9,
    LocalFileNotRemoved = 15,
    LocalFolderCreated = 17,
    LocalFolderNotCreated = 18,
    LocalFolderDeleted = 19,
    LocalFolderNotDeleted = 20,
    RootFolderRemoved = 27,
};
enum DetailsKind {
    UnexpectedError = 0,
    NoNetwork = 1,
    NetworkDriveUnreachable = 3,
    ErrorCounts = 12,
    ItemInUse = 14,
    TransferCounts = 16,
    RootFolderRemovedPath = 19,
    PathTooLong = 20,
};
}  // namespace actionlog

}  // namespace database
}  // namespace sync
