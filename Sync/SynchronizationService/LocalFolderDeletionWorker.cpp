#include "LocalFolderDeletionWorker.h"

#include <QDir>
#include <QFileInfo>
#include <algorithm>

#include "CoreFactory.h"
#include "SyncCodes.h"
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

LocalFolderDeletionWorker::LocalFolderDeletionWorker(
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager)
    : BaseFolderWorker(std::move(fileConfigManager), std::move(folderConfigManager),
                       coreFactory->CreateCheckForExit()),
      _coreFactory(std::move(coreFactory)) {}

sync::core::SyncResults LocalFolderDeletionWorker::InnerWork(
    const FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    (void)rootFolder;
    SYNC_LOG_INFO("LocalFolderDeletionWorker: performing %0 tasks", tasks->size());
    // Children first, so that a folder emptied by this run is empty when its turn comes.
    std::stable_sort(tasks->begin(), tasks->end(), &BaseFolderWorker::GreatThan);

    const auto step = [&](int i, sync::core::SyncResults& batch) {
        batch += _RemoveLocalFolder((*tasks)[i]->GetFolderConfig());
    };
    const auto lost = [&](int i, sync::core::SyncResults& results) {
        const FolderConfiguration& folder = (*tasks)[i]->GetFolderConfig();
        ++results.FolderLocalDeletionErrors;
        results.FolderLocalDeletionErrorPaths.append(folder.localPath);
        emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
    };
    return TaskBatchLoop::Run(tasks->size(), kBatchSize, *_checkForExit,
                              QStringLiteral("LocalFolderDeletionWorker"), step, lost);
}

sync::core::SyncResults LocalFolderDeletionWorker::_RemoveLocalFolder(
    const FolderConfiguration& folder) {
    sync::core::SyncResults results;
    const auto qdir = std::make_shared<QDir>(folder.localPath);
    const std::shared_ptr<sync::interf::IQDirWrapper> dir = _coreFactory->CreateQDirWrapper(qdir);
    const QString nativePath = QDir::toNativeSeparators(folder.localPath);

    if (!dir->DirectoryExists()) {
        if (!_folderConfigManager->DeleteFolderById(folder.id))
            SYNC_LOG_ERROR("Failed to remove local folder %1 from database.", nativePath);
        SYNC_LOG_INFO("Skipped deleting local folder %1 because it does not exist", nativePath);
        emit Done(folder.localPath, FolderSynchronizationStatus::Synchronized);
        return results;
    }

    const QString path = dir->Path();
    // Removes an empty directory only: whatever still lies in the folder is never touched.
    if (dir->RemoveDirectory(path)) {
        if (!_folderConfigManager->DeleteFolderById(folder.id))
            SYNC_LOG_ERROR("Falied to remove local folder %1 from database.", path);
        SYNC_LOG_INFO("Deleted local folder %1", path);
        sync::factory::CoreFactory::ActionLog()->AddFolderEntry(actionlog::LocalFolderDeleted,
                                                                folder.localPath, folder.name);
        ++results.FolderLocalDeletions;
        emit Done(folder.localPath, FolderSynchronizationStatus::Synchronized);
        return results;
    }

    const QStringList entries =
        qdir->entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot);
    if (entries.isEmpty()) {
        SYNC_LOG_WARN("Failed to delete local folder %1", path);
        auto actionLog = sync::factory::CoreFactory::ActionLog();
        actionLog->AddFolderEntryWithDetails(actionlog::LocalFolderNotDeleted, folder.localPath,
                                             folder.name,
                                             actionLog->CreateDetails(actionlog::ItemInUse));
        ++results.FolderLocalDeletionErrors;
        results.FolderLocalDeletionErrorPaths.append(folder.localPath);
        emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
        return results;
    }

    // Something the server never saw lies in it. Not an error: the folder and its record stay,
    // and the status says it is not in step with the server.
    SYNC_LOG_INFO("Skipped deleting local folder %1 because it is not empty.",
                  QFileInfo(path).absoluteFilePath());
    emit Done(folder.localPath, FolderSynchronizationStatus::OutOfSync);
    return results;
}

}  // namespace syncService
}  // namespace sync
