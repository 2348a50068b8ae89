#pragma once

#include <QDateTime>
#include <memory>

#include "ICheckForExit.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "ISyncTaskEngine.h"
#include "ITaskWorkerManager.h"
#include "SyncStatusMonitor.h"

namespace sync {
namespace syncService {

// Executes one root folder's depot: conflicts first, folders before the files that go into
// them, uploads before downloads, deletions last (files before folders), each type through a
// fresh worker, with the status monitor keeping every entry's status current meanwhile.
class SyncTaskEngine : public sync::interf::ISyncTaskEngine {
    Q_OBJECT
public:
    SyncTaskEngine(std::shared_ptr<sync::interf::ITaskWorkerManager> taskWorkerManager,
                   std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
                   std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                   std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~SyncTaskEngine() override;

    sync::core::SyncResults Process(const sync::config::FolderConfiguration& rootFolder,
                                    std::shared_ptr<sync::interf::ISyncTaskDepot> depot) override;
    void SetFilteredLocalFolderCount(int n) override { _filteredLocalFolders += n; }
    void SetFilteredLocalFileCount(int n) override { _filteredLocalFiles += n; }
    void SetFilteredServerFolderCount(int n) override { _filteredServerFolders += n; }
    void SetFilteredServerFileCount(int n) override { _filteredServerFiles += n; }
    void InitFilteredCount() override;

public Q_SLOTS:
    void TransferLocalOrServerFolderCreated(
        const QString& path, sync::config::FolderSynchronizationStatus status) override;
    void HandleSubFolderFilteredOut(QString path) override;
    void HandleFileFilteredOut(QString path) override;

private:
    sync::core::SyncResults _ProcessWorks(const sync::config::FolderConfiguration& rootFolder,
                                          std::shared_ptr<sync::interf::ISyncTaskDepot> depot);
    void _UpdateLastSyncTime(int folderId, const QDateTime& time);

    std::shared_ptr<sync::interf::ITaskWorkerManager> _taskWorkerManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
    SyncStatusMonitor _statusMonitor;
    int _filteredLocalFolders = 0;
    int _filteredLocalFiles = 0;
    int _filteredServerFolders = 0;
    int _filteredServerFiles = 0;
};

}  // namespace syncService
}  // namespace sync
