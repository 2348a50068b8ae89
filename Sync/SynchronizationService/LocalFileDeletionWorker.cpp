#include "LocalFileDeletionWorker.h"

#include <QDateTime>
#include <QDir>
#include <exception>

#include "CoreFactory.h"
#include "SyncCodes.h"
#include "SyncLog.h"
#include "TaskBatchLoop.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
namespace actionlog = sync::core::actionlog;

namespace {
constexpr int kBatchSize = 20;
}  // namespace

LocalFileDeletionWorker::LocalFileDeletionWorker(
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory)
    : BaseFileWorker(std::move(fileConfigManager), coreFactory->CreateCheckForExit()),
      _coreFactory(std::move(coreFactory)) {}

sync::core::SyncResults LocalFileDeletionWorker::InnerWork(
    const sync::config::FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    (void)rootFolder;
    SYNC_LOG_INFO("LocalFileDeletionWorker: performing %0 tasks", tasks->size());
    return _RemoveLocalFiles(tasks);
}

sync::core::SyncResults LocalFileDeletionWorker::_RemoveLocalFiles(
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    const auto step = [&](int i, sync::core::SyncResults& batch) {
        FileConfiguration& file = (*tasks)[i]->GetFileConfig();
        if (_RemoveLocalFile(file)) {
            ++batch.FileLocalDeletions;
            emit Done(file.localPath, FileSynchronizationStatus::Synchronized);
        } else {
            ++batch.FileLocalDeletionErrors;
            batch.FileLocalDeletionErrorPaths.append(file.localPath);
            SYNC_LOG_WARN("Error deleting local file %0", file.localPath);
            emit Done(file.localPath, FileSynchronizationStatus::OutOfSync);
        }
    };
    const auto lost = [&](int i, sync::core::SyncResults& results) {
        const FileConfiguration& file = (*tasks)[i]->GetFileConfig();
        ++results.FileLocalDeletionErrors;
        results.FileLocalDeletionErrorPaths.append(file.localPath);
        emit Done(file.localPath, FileSynchronizationStatus::OutOfSync);
    };
    return TaskBatchLoop::Run(tasks->size(), kBatchSize, *_checkForExit,
                              QStringLiteral("LocalFileDeletionWorker"), step, lost);
}

bool LocalFileDeletionWorker::_RemoveLocalFile(FileConfiguration& file) {
    try {
        file.transferPending = true;
        file.syncStatus = FileSynchronizationStatus::Synchronizing;
        file.transferDirection = sync::config::TransferLocalDeletion;
        file.lastTransferAttempt = QDateTime::currentDateTimeUtc();
        {
            // The mark reaches the database before the disk is touched, so that a crash in
            // between leaves a record that says a deletion was under way.
            sync::database::TransactionalScope scope;
            _fileConfigManager->UpdateFile(file);
            scope.commit();
        }
        const bool removed = _RemoveFile(file);
        if (removed) {
            _fileConfigManager->RemoveFile(file.id);
        } else {
            file.transferDirection = sync::config::TransferLocalDeletion;
            file.lastTransferAttempt = QDateTime::currentDateTimeUtc();
            file.transferPending = true;
            file.syncStatus = FileSynchronizationStatus::OutOfSync;
            _fileConfigManager->UpdateFile(file);
        }
        return removed;
    } catch (const std::exception&) {
        SYNC_LOG_ERROR("Due to unknown error, failed to remove file config for: %1",
                       file.localPath);
        // The batch rolls back and counts every file of it as failed.
        throw;
    }
}

bool LocalFileDeletionWorker::_RemoveFile(FileConfiguration& file) {
    const std::shared_ptr<sync::interf::IQFileWrapper> wrapper = _coreFactory->CreateFileWrapper();
    wrapper->SetFileName(file.localPath);
    QString path = QDir::toNativeSeparators(wrapper->FileName());
    SYNC_LOG_INFO("Removing local file: %1", path);
    auto actionLog = sync::factory::CoreFactory::ActionLog();
    if (!_RecycleFile(path)) {
        actionLog->AddFolderEntry(actionlog::LocalFileMovedToTrash, file.localPath, file.name);
        return true;
    }
    // Gone anyway (removed by someone else meanwhile): nothing is left to remove.
    if (!wrapper->Exists()) return true;
    SYNC_LOG_WARN("Unable to remove local file: %1", QDir::toNativeSeparators(path));
    actionLog->AddFolderEntryWithDetails(actionlog::LocalFileNotRemoved, file.localPath, file.name,
                                         actionLog->CreateDetails(actionlog::ItemInUse));
    return false;
}

bool LocalFileDeletionWorker::_RecycleFile(QString& path) {
    const std::shared_ptr<sync::interf::IQFileWrapper> recycler = _coreFactory->CreateRecycler();
    return !recycler->MoveToTrash(path);
}

}  // namespace syncService
}  // namespace sync
