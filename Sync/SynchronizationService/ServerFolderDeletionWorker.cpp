#include "ServerFolderDeletionWorker.h"

#include <algorithm>
#include <exception>

#include "HttpException.h"
#include "SyncCodes.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::core::SyncResults;

namespace {

constexpr int NO_STATUS = -1;

}  // namespace

ServerFolderDeletionWorker::ServerFolderDeletionWorker(
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> remoteFolderManagerFactory,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : BaseFolderWorker(std::move(fileConfigManager), std::move(folderConfigManager),
                       std::move(checkForExit)),
      _remoteFolderManagerFactory(std::move(remoteFolderManagerFactory)) {}

SyncResults ServerFolderDeletionWorker::InnerWork(
    const FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    SYNC_LOG_INFO("ServerFolderDeletionWorker: performing %0 tasks", tasks->size());
    SyncResults results(SyncResults::Tasks, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    // Children first, so that a parent's record outlives the records below it.
    std::stable_sort(tasks->begin(), tasks->end(), BaseFolderWorker::GreatThan);
    const std::shared_ptr<sync::interf::IRemoteFolderManager> manager =
        _remoteFolderManagerFactory->CreateRemoteFolderManager(rootFolder.authenticationId);

    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        if (_checkForExit->ShouldExit()) break;
        FolderConfiguration& folder = task->GetFolderConfig();
        int status = NO_STATUS;
        try {
            status = _DeleteRemoteFolder(manager, folder);
        } catch (const std::exception& e) {
            // The record could not be removed: it stays, and the next cycle settles the folder.
            SYNC_LOG_ERROR("%1", e.what());
        }
        if (status == sync::http::Success) {
            ++results.FolderServerDeletions;
            emit Done(folder.localPath, FolderSynchronizationStatus::Synchronized);
            continue;
        }
        ++results.FolderServerDeletionErrors;
        if (status != NO_STATUS) results.errorCodes[status] += 1;
        results.FolderServerDeletionErrorPaths.append(folder.localPath);
        emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
    }
    return results;
}

int ServerFolderDeletionWorker::_DeleteRemoteFolder(
    std::shared_ptr<sync::interf::IRemoteFolderManager> manager, FolderConfiguration& folder) {
    int result = sync::http::Success;
    try {
        manager->DeleteFolder(folder);
    } catch (const sync::http::HttpException& e) {
        // 404: the folder is already gone, which is what was asked for.
        if (e.code != sync::http::NotFound) SYNC_LOG_ERROR("%1", e.what());
        if (e.code == sync::http::Forbidden)
            result = sync::http::Forbidden;
        else if (e.code != sync::http::NotFound)
            return e.code;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("%1", e.what());
        return NO_STATUS;
    } catch (...) {
        SYNC_LOG_ERROR("Caught unknown, unexpected exception.  Swallowing exception.");
        return NO_STATUS;
    }

    sync::database::TransactionalScope scope;
    if (!_folderConfigManager->DeleteFolderById(folder.id))
        SYNC_LOG_ERROR("Unable to delete local folder: %1 from local database.", folder.localPath);
    scope.commit();
    return result;
}

}  // namespace syncService
}  // namespace sync
