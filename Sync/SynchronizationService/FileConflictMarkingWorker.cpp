#include "FileConflictMarkingWorker.h"

#include <exception>

#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;

FileConflictMarkingWorker::FileConflictMarkingWorker(
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : BaseFileWorker(std::move(fileConfigManager), std::move(checkForExit)) {}

sync::core::SyncResults FileConflictMarkingWorker::InnerWork(
    const sync::config::FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    sync::core::SyncResults results;
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        const FileConfiguration& conflict = task->GetFileConfig();
        try {
            FileConfiguration record =
                _fileConfigManager->GetFileByPath(conflict.localPath, rootFolder.authenticationId);
            if (record.id <= 0) continue;
            record.transferDirection = conflict.transferDirection;
            record.lastTransferAttempt = conflict.lastTransferAttempt;
            record.syncStatus = FileSynchronizationStatus::OutOfSync;
            _fileConfigManager->UpdateFile(record);
            emit Done(record.localPath, FileSynchronizationStatus::OutOfSync);
        } catch (const std::exception& e) {
            // The record stays as it was; the next cycle finds the conflict again.
            SYNC_LOG_ERROR("%1", e.what());
        }
    }
    return results;
}

}  // namespace syncService
}  // namespace sync
