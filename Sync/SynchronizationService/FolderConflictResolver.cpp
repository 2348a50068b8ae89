#include "FolderConflictResolver.h"

#include "FolderUtilities.h"
#include "SyncLog.h"
#include "SyncServiceException.h"

namespace sync {
namespace syncService {

namespace {

// The folder exists on both sides but not in the database: the local record takes what only
// the server can know, so that the database ends up describing the server's folder.
void HandOverServerAttributes(const sync::config::FolderConfiguration& serverRecord,
                              sync::config::FolderConfiguration& localRecord) {
    localRecord.serverAttribute = serverRecord.serverAttribute;
    localRecord.lastModified = serverRecord.lastModified;
    localRecord.privilegeInfo = serverRecord.privilegeInfo;
    localRecord.privileges = serverRecord.privileges;
    localRecord.serverFolderId = serverRecord.serverFolderId;
}

bool IsBelow(const QString& candidate, const QString& folder) {
    return sync::core::FolderUtilities::IsParent(candidate, folder, Qt::CaseInsensitive);
}

}  // namespace

bool HasNewContentBelow(const EntryInfoTreeChange& change, const QString& folder) {
    for (auto it = change._folderActionMap.constBegin(); it != change._folderActionMap.constEnd();
         ++it) {
        if (it.value() == Added && IsBelow(change._folderMap.value(it.key()).serverPath, folder))
            return true;
    }
    for (auto it = change._fileActionMap.constBegin(); it != change._fileActionMap.constEnd();
         ++it) {
        if ((it.value() == Added || it.value() == Modified) &&
            IsBelow(change._fileMap.value(it.key()).serverPath, folder))
            return true;
    }
    return false;
}

void ResolveFolderCell(const matrix::Cell& cell, sync::config::FolderConfiguration& serverRecord,
                       sync::config::FolderConfiguration& localRecord,
                       std::shared_ptr<EntryInfoTree> localTree,
                       std::shared_ptr<EntryInfoTree> configTree,
                       std::shared_ptr<EntryInfoTree> serverTree,
                       std::shared_ptr<EntryInfoTreeChange> serverChange,
                       std::shared_ptr<EntryInfoTreeChange> localChange, SyncTaskDepot& depot) {
    SyncTaskType type = cell.task;
    switch (cell.how) {
        case matrix::Refuse:
            throw SyncServiceException(QStringLiteral("Invalid action pair resolving"));
        case matrix::Ignore:
            return;
        case matrix::AttributeHandOver:
            HandOverServerAttributes(serverRecord, localRecord);
            break;
        case matrix::LocalContentCheck:
            // A folder the server lost but that holds new local content is created on the
            // server again instead of deleting that content on the disk.
            if (!localChange || !HasNewContentBelow(*localChange, serverRecord.serverPath))
                type = cell.otherwise;
            break;
        case matrix::ServerContentCheck:
            // The mirror image: new server content below a folder deleted locally brings the
            // folder back, and the content is downloaded into it.
            if (serverChange && HasNewContentBelow(*serverChange, localRecord.serverPath))
                SYNC_LOG_DEBUG("Creating %1 locally again: the server holds new content below it",
                               serverRecord.serverPath);
            else
                type = cell.otherwise;
            break;
        case matrix::Build:
            break;
        default:
            // The version hand-over belongs to files only.
            throw SyncServiceException(QStringLiteral("Invalid action pair resolving"));
    }
    const sync::config::FolderConfiguration& record =
        cell.record == matrix::ServerRecord ? serverRecord : localRecord;
    FolderSyncTask task(type, record, cell.server, cell.local, std::move(serverTree),
                        std::move(configTree), std::move(localTree), std::move(serverChange),
                        std::move(localChange));
    depot.AddSyncTask(task);
}

}  // namespace syncService
}  // namespace sync
