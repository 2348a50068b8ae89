#include "BaseFileWorker.h"

#include <exception>

#include "SyncLog.h"
#include "SyncStatusMonitor.h"

namespace sync {
namespace syncService {

BaseFileWorker::BaseFileWorker(std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                               std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : _fileConfigManager(std::move(fileConfigManager)), _checkForExit(std::move(checkForExit)) {}

sync::core::SyncResults BaseFileWorker::Work(
    const sync::config::FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
    SyncStatusMonitor& monitor) {
    if (!tasks || tasks->isEmpty()) return sync::core::SyncResults();
    // Unique: a worker that is handed a second list must not report every entry twice.
    connect(this, &sync::interf::IFileTaskWorker::Done, &monitor, &SyncStatusMonitor::UpdateFile,
            Qt::ConnectionType(Qt::AutoConnection | Qt::UniqueConnection));
    try {
        return InnerWork(rootFolder, tasks);
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("%1", e.what());
    }
    return sync::core::SyncResults();
}

}  // namespace syncService
}  // namespace sync
