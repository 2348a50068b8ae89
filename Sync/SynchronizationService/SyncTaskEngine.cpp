#include "SyncTaskEngine.h"

#include "Finally.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FolderConfiguration;
using sync::core::SyncResults;

namespace {

// The order of execution. Folder creations are forwarded as they are reported, before the
// monitor hears of them.
const struct Step {
    SyncTaskType type;
    bool folder;
    bool forwardsCreations;
} kSteps[] = {
    {FileConflictMarking, false, false}, {LocalFolderCreation, true, true},
    {ServerFolderCreation, true, true},  {ServerFileCreation, false, false},
    {LocalFileCreation, false, false},   {ServerFileDeletion, false, false},
    {LocalFileDeletion, false, false},   {ServerFolderDeletion, true, false},
    {LocalFolderDeletion, true, false},
};

}  // namespace

SyncTaskEngine::SyncTaskEngine(
    std::shared_ptr<sync::interf::ITaskWorkerManager> taskWorkerManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : _taskWorkerManager(std::move(taskWorkerManager)),
      _folderConfigManager(std::move(folderConfigManager)),
      _fileConfigManager(std::move(fileConfigManager)),
      _checkForExit(std::move(checkForExit)),
      _statusMonitor(_folderConfigManager, _fileConfigManager) {}

SyncTaskEngine::~SyncTaskEngine() = default;

void SyncTaskEngine::InitFilteredCount() {
    _filteredLocalFolders = 0;
    _filteredLocalFiles = 0;
    _filteredServerFolders = 0;
    _filteredServerFiles = 0;
}

void SyncTaskEngine::TransferLocalOrServerFolderCreated(
    const QString& path, sync::config::FolderSynchronizationStatus /*status*/) {
    Q_EMIT LocalOrServerFolderCreated(path);
}

void SyncTaskEngine::HandleSubFolderFilteredOut(QString path) {
    _statusMonitor.HandleSubFolderFilteredOut(path);
}

void SyncTaskEngine::HandleFileFilteredOut(QString path) {
    _statusMonitor.HandleFileFilteredOut(path);
}

SyncResults SyncTaskEngine::Process(const FolderConfiguration& rootFolder,
                                    std::shared_ptr<sync::interf::ISyncTaskDepot> depot) {
    if (depot) depot->RemoveConflictAndDuplicateTask();
    return _ProcessWorks(rootFolder, std::move(depot));
}

SyncResults SyncTaskEngine::_ProcessWorks(const FolderConfiguration& rootFolder,
                                          std::shared_ptr<sync::interf::ISyncTaskDepot> depot) {
    SyncResults results;
    const sync::core::Finally end([this] { _statusMonitor.End(); });
    if (!depot) return results;
    _statusMonitor.Start(rootFolder, *depot);
    // A root being executed has no last synchronisation time until it ends without a fault.
    _UpdateLastSyncTime(rootFolder.getId(), QDateTime());

    bool allStepsRan = true;
    for (const Step& step : kSteps) {
        if (_checkForExit->ShouldExit()) {
            allStepsRan = false;
            break;
        }
        const auto tasks = depot->GetSyncTaskList(step.type);
        if (step.folder) {
            const auto worker = _taskWorkerManager->GetFolderTaskWorker(step.type);
            if (!worker) continue;
            if (step.forwardsCreations)
                connect(worker.get(),
                        SIGNAL(Done(const QString&, sync::config::FolderSynchronizationStatus)),
                        this,
                        SLOT(TransferLocalOrServerFolderCreated(
                            const QString&, sync::config::FolderSynchronizationStatus)));
            results += worker->Work(rootFolder, tasks, _statusMonitor);
        } else {
            const auto worker = _taskWorkerManager->GetFileTaskWorker(step.type);
            if (!worker) continue;
            results += worker->Work(rootFolder, tasks, _statusMonitor);
        }
    }
    if (allStepsRan && !results.anyErrors())
        _UpdateLastSyncTime(rootFolder.getId(), rootFolder.getLastServerSyncRequestTime());
    return results;
}

void SyncTaskEngine::_UpdateLastSyncTime(int folderId, const QDateTime& time) {
    FolderConfiguration folder = _folderConfigManager->GetFolderById(folderId);
    if (folder.getId() == -1) return;
    folder.setLastSyncTime(time);
    _folderConfigManager->UpdateFolder(folder);
}

}  // namespace syncService
}  // namespace sync
