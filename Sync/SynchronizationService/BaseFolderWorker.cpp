#include "BaseFolderWorker.h"

#include <exception>

#include "FolderUtilities.h"
#include "SyncLog.h"
#include "SyncStatusMonitor.h"

namespace sync {
namespace syncService {

BaseFolderWorker::BaseFolderWorker(
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : _fileConfigManager(std::move(fileConfigManager)),
      _folderConfigManager(std::move(folderConfigManager)),
      _checkForExit(std::move(checkForExit)) {}

sync::core::SyncResults BaseFolderWorker::Work(
    const sync::config::FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
    SyncStatusMonitor& monitor) {
    if (!tasks || tasks->isEmpty()) return sync::core::SyncResults();
    // Unique: a worker that is handed a second list must not report every entry twice.
    connect(this, &sync::interf::IFolderTaskWorker::Done, &monitor,
            &SyncStatusMonitor::UpdateFolder,
            Qt::ConnectionType(Qt::AutoConnection | Qt::UniqueConnection));
    try {
        return InnerWork(rootFolder, tasks);
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("%1", e.what());
    }
    return sync::core::SyncResults();
}

bool BaseFolderWorker::LessThan(const std::shared_ptr<sync::interf::ISyncTask>& a,
                                const std::shared_ptr<sync::interf::ISyncTask>& b) {
    return QString::compare(a->GetFolderConfig().serverPath, b->GetFolderConfig().serverPath,
                            Qt::CaseInsensitive) < 0;
}

bool BaseFolderWorker::GreatThan(const std::shared_ptr<sync::interf::ISyncTask>& a,
                                 const std::shared_ptr<sync::interf::ISyncTask>& b) {
    // Strict (equal paths are not greater), as std::sort requires; same order otherwise.
    return QString::compare(a->GetFolderConfig().serverPath, b->GetFolderConfig().serverPath,
                            Qt::CaseInsensitive) > 0;
}

bool BaseFolderWorker::_PopulateParentData(sync::config::FolderConfiguration& folder) {
    if (folder.parentId != -1) return true;
    const QString parentPath = sync::core::FolderUtilities::GetParentFolderPath(folder.localPath);
    const sync::config::FolderConfiguration parent =
        _folderConfigManager->GetFolderByPath(parentPath, folder.authenticationId);
    if (parent.id == -1) {
        SYNC_LOG_ERROR("Parent folder info cannot be found in the config db: %1", parentPath);
        return false;
    }
    folder.parentId = parent.id;
    folder.inheritedId = parent.inheritedId;
    folder.inheritedValue = parent.inheritedValue;
    return true;
}

}  // namespace syncService
}  // namespace sync
