#include "LocalFolderCreationWorker.h"

#include <QDir>
#include <algorithm>

#include "CoreFactory.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SyncLog.h"
#include "TaskBatchLoop.h"

namespace sync {
namespace syncService {

using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
namespace actionlog = sync::core::actionlog;

namespace {
constexpr int kBatchSize = 20;
}  // namespace

LocalFolderCreationWorker::LocalFolderCreationWorker(
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager)
    : BaseFolderWorker(std::move(fileConfigManager), std::move(folderConfigManager),
                       coreFactory->CreateCheckForExit()),
      _coreFactory(std::move(coreFactory)) {}

sync::core::SyncResults LocalFolderCreationWorker::InnerWork(
    const FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    SYNC_LOG_INFO("LocalFolderCreationWorker: performing %0 tasks", tasks->size());
    // Parents first: a child's record needs its parent's record.
    std::stable_sort(tasks->begin(), tasks->end(), &BaseFolderWorker::LessThan);

    const auto step = [&](int i, sync::core::SyncResults& batch) {
        FolderConfiguration& folder = (*tasks)[i]->GetFolderConfig();
        folder.authenticationId = rootFolder.authenticationId;
        folder.serverRootPath = rootFolder.serverRootPath;
        switch (_CreateLocalFolder(folder)) {
            case FolderExists:
                emit Done(folder.localPath, FolderSynchronizationStatus::Synchronized);
                break;
            case FolderCreated:
                ++batch.FolderLocalCreations;
                emit Done(folder.localPath, FolderSynchronizationStatus::Synchronized);
                break;
            case FolderCreationFailed:
                ++batch.FolderLocalCreationErrors;
                batch.FolderLocalCreationErrorPaths.append(folder.localPath);
                emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
                break;
        }
    };
    const auto lost = [&](int i, sync::core::SyncResults& results) {
        const FolderConfiguration& folder = (*tasks)[i]->GetFolderConfig();
        ++results.FolderLocalCreationErrors;
        results.FolderLocalCreationErrorPaths.append(folder.localPath);
        emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
    };
    return TaskBatchLoop::Run(tasks->size(), kBatchSize, *_checkForExit,
                              QStringLiteral("LocalFolderCreationWorker"), step, lost);
}

LocalFolderCreationWorker::FolderCreationStatus LocalFolderCreationWorker::_CreateLocalFolder(
    FolderConfiguration& folder) {
    const std::shared_ptr<sync::interf::IQDirWrapper> dir =
        _coreFactory->CreateQDirWrapper(std::make_shared<QDir>(folder.localPath));
    const QString path = dir->Path();
    if (path.length() >= sync::core::consts::LOCAL_FOLDER_MAX_PATH) {
        // Nothing is made and nothing recorded: a folder that deep could hold no file.
        SYNC_LOG_INFO("Local Path is too long: %1 %2", folder.name, path);
        auto actionLog = sync::factory::CoreFactory::ActionLog();
        actionLog->AddFolderEntryWithDetails(actionlog::LocalFolderNotCreated, folder.localPath,
                                             folder.name,
                                             actionLog->CreateDetails(actionlog::PathTooLong));
        return FolderCreationFailed;
    }
    if (dir->DirectoryExists()) {
        SYNC_LOG_INFO("Skipped creating local folder %1. Folder already exists.", path);
        _CreateLocalFolderConfig(folder);
        return FolderExists;
    }
    if (!dir->MakePath(path)) {
        SYNC_LOG_WARN("Failed to create local folder %1", path);
        sync::factory::CoreFactory::ActionLog()->AddFolderEntry(actionlog::LocalFolderNotCreated,
                                                                folder.localPath, folder.name);
        return FolderCreationFailed;
    }
    SYNC_LOG_INFO("Created local folder %1", path);
    _CreateLocalFolderConfig(folder);
    sync::factory::CoreFactory::ActionLog()->AddFolderEntry(actionlog::LocalFolderCreated,
                                                            folder.localPath, folder.name);
    return FolderCreated;
}

void LocalFolderCreationWorker::_CreateLocalFolderConfig(FolderConfiguration& folder) {
    const FolderConfiguration stored =
        _folderConfigManager->GetFolderByPath(folder.localPath, folder.authenticationId);
    if (stored.id != -1) {
        folder.id = stored.id;
        folder.inheritedId = stored.inheritedId;
    }
    const QString nativePath = QDir::toNativeSeparators(folder.localPath);
    if (folder.id == -1) {
        if (!_PopulateParentData(folder)) return;
        folder.setSyncStatus(FolderSynchronizationStatus::Synchronizing);
        if (!_folderConfigManager->AddFolder(folder))
            SYNC_LOG_ERROR("Add local folder into config db errored, the path is: %1", nativePath);
        return;
    }
    SYNC_LOG_INFO("Folder: %1 exists in local config db", nativePath);
    folder.setSyncStatus(FolderSynchronizationStatus::Synchronizing);
    if (!_folderConfigManager->UpdateFolder(folder))
        SYNC_LOG_ERROR("Update local folder into config db errored, the path is: %1", nativePath);
}

}  // namespace syncService
}  // namespace sync
