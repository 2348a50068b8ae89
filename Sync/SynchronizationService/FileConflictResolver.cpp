#include "FileConflictResolver.h"

#include "SyncServiceException.h"

namespace sync {
namespace syncService {

namespace {

// The upload names the server version it replaces, so a file changed on both sides ends with
// the local content as the newest server version.
void HandOverVersion(sync::config::FileConfiguration& serverRecord,
                     sync::config::FileConfiguration& localRecord) {
    const QString versionKey = QStringLiteral("version");
    const QString versionIdKey = QStringLiteral("versionId");
    bool ok = false;
    int version = serverRecord.properties.value(versionKey).toInt(&ok, 10);
    if (!ok) version = 0;
    localRecord.properties.insert(versionKey, QString::number(version, 10));
    // operator[] on purpose: an absent server entry is created, empty, on both records.
    localRecord.properties[versionIdKey] = serverRecord.properties[versionIdKey];
}

}  // namespace

void ResolveFileCell(const matrix::Cell& cell, sync::config::FileConfiguration& serverRecord,
                     sync::config::FileConfiguration& localRecord,
                     std::shared_ptr<EntryInfoTree> localTree,
                     std::shared_ptr<EntryInfoTree> configTree,
                     std::shared_ptr<EntryInfoTree> serverTree,
                     std::shared_ptr<EntryInfoTreeChange> serverChange,
                     std::shared_ptr<EntryInfoTreeChange> localChange, SyncTaskDepot& depot) {
    switch (cell.how) {
        case matrix::Refuse:
            throw SyncServiceException(QStringLiteral("Invalid action pair resolving"));
        case matrix::Ignore:
            return;
        case matrix::VersionHandOver:
            HandOverVersion(serverRecord, localRecord);
            break;
        case matrix::Build:
            break;
        default:
            // Folder-only steps never appear in the file matrix.
            throw SyncServiceException(QStringLiteral("Invalid action pair resolving"));
    }
    const sync::config::FileConfiguration& record =
        cell.record == matrix::ServerRecord ? serverRecord : localRecord;
    FileSyncTask task(cell.task, record, cell.server, cell.local, std::move(serverTree),
                      std::move(configTree), std::move(localTree), std::move(serverChange),
                      std::move(localChange));
    depot.AddSyncTask(task);
}

}  // namespace syncService
}  // namespace sync
