#include "ServerFolderCreationWorker.h"

#include <algorithm>
#include <exception>

#include "HttpException.h"
#include "PathHelpers.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

// Parent ids the server is sent when the parent has no id of its own.
const QString SERVER_ROOT_ID = QStringLiteral("@root");
const QString INVALID_FOLDER_ID = QStringLiteral("<InvalidFolderId>");

}  // namespace

ServerFolderCreationWorker::ServerFolderCreationWorker(
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> remoteFolderManagerFactory,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : BaseFolderWorker(std::move(fileConfigManager), std::move(folderConfigManager),
                       std::move(checkForExit)),
      _remoteFolderManagerFactory(std::move(remoteFolderManagerFactory)) {}

sync::core::SyncResults ServerFolderCreationWorker::InnerWork(
    const FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    SYNC_LOG_INFO("ServerFolderCreationWorker: performing %0 tasks", tasks->size());
    sync::core::SyncResults results;
    // Parents first: a folder is created below a parent that the server already has.
    std::stable_sort(tasks->begin(), tasks->end(), BaseFolderWorker::LessThan);
    const std::shared_ptr<sync::interf::IRemoteFolderManager> manager =
        _remoteFolderManagerFactory->CreateRemoteFolderManager(rootFolder.authenticationId);

    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        if (_checkForExit->ShouldExit()) break;
        FolderConfiguration& folder = task->GetFolderConfig();
        folder.authenticationId = rootFolder.authenticationId;
        folder.inheritedId = rootFolder.id;
        folder.serverRootPath = rootFolder.serverRootPath;
        bool created = false;
        try {
            // Without a parent record the folder is still tried; the server decides.
            _PopulateParentData(folder);
            created = _CreateRemoteFolder(manager, folder, results);
            folder.serverCreationFailed = created ? 0 : 1;
            folder.setSyncStatus(created ? FolderSynchronizationStatus::Synchronized
                                         : FolderSynchronizationStatus::OutOfSync);
            _CreateLocalConfig(folder);
        } catch (const std::exception& e) {
            // A database failure: whatever the server did, the record stays as it was and the
            // next cycle plans the folder again.
            SYNC_LOG_ERROR("%1", e.what());
            created = false;
        }
        if (created) {
            ++results.FolderServerCreations;
            emit Done(folder.localPath, FolderSynchronizationStatus::Synchronized);
        } else {
            ++results.FolderServerCreationErrors;
            results.FolderServerCreationErrorPaths.append(folder.localPath);
            emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
        }
    }
    return results;
}

bool ServerFolderCreationWorker::_CreateRemoteFolder(
    std::shared_ptr<sync::interf::IRemoteFolderManager> manager, FolderConfiguration& folder,
    sync::core::SyncResults& results) {
    const FolderConfiguration parent = _folderConfigManager->GetFolderById(folder.parentId);
    QString parentServerId = INVALID_FOLDER_ID;
    if (parent.id != -1) {
        parentServerId = parent.getServerFolderId();
        if (parentServerId.isEmpty()) parentServerId = SERVER_ROOT_ID;
    }
    try {
        const sync::core::SyncResults created =
            manager->CreateFolder(folder, parentServerId, false);
        if (created.FolderServerCreationErrors == 0) return true;
        // The manager counts a refusal instead of throwing; its status decides what the cycle
        // reports (401, 429, 507).
        for (auto it = created.errorCodes.constBegin(); it != created.errorCodes.constEnd(); ++it)
            results.errorCodes[it.key()] += it.value();
        SYNC_LOG_ERROR("Failed to create server folder %1", folder.localPath);
        return false;
    } catch (const sync::http::HttpException& e) {
        SYNC_LOG_ERROR("%1", e.what());
        results.errorCodes[e.code] += 1;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("%1", e.what());
    } catch (...) {
        SYNC_LOG_ERROR("Caught unknown, unexpected exception.  Swallowing exception.");
    }
    return false;
}

void ServerFolderCreationWorker::_CreateLocalConfig(FolderConfiguration& folder) {
    const FolderConfiguration existing =
        _folderConfigManager->GetFolderByPath(folder.localPath, folder.authenticationId);
    if (existing.id > 0) {
        folder.id = existing.id;
        if (folder.parentId == -1) folder.parentId = existing.parentId;
        if (existing.inheritedId != folder.inheritedId) {
            // The folder's own inheritance wins when it really lies above the folder; failing
            // that, the record's does.
            const auto covers = [&](int id) {
                const FolderConfiguration above = _folderConfigManager->GetFolderById(id);
                return above.id != -1 &&
                       sync::core::IsParentOrSamePath(above.localPath, folder.localPath);
            };
            if (!covers(folder.inheritedId) && covers(existing.inheritedId))
                folder.inheritedId = existing.inheritedId;
        }
        SYNC_LOG_INFO("Folder: %1 exists in local config db", folder.localPath);
        folder.setSyncStatus(FolderSynchronizationStatus::Synchronizing);
        if (!_folderConfigManager->UpdateFolder(folder))
            SYNC_LOG_ERROR("Error updating local folder into config db.  Path is: %1",
                           folder.localPath);
        return;
    }

    if (!_PopulateParentData(folder)) {
        SYNC_LOG_ERROR(
            "Parent folder info cannot be found in the FolderConfiguration table: missing parent "
            "is immediate parent of %1",
            folder.localPath);
        return;
    }
    if (folder.rootId == -1 && !folder.isRoot())
        folder.rootId = _folderConfigManager->GetFolderById(folder.inheritedId).rootId;
    if (!_folderConfigManager->AddFolder(folder))
        SYNC_LOG_ERROR("Error adding local folder into config db.  Path is: %1", folder.localPath);
}

}  // namespace syncService
}  // namespace sync
