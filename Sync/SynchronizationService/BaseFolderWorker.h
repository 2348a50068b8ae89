#pragma once

#include <memory>

#include "ICheckForExit.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IFolderTaskWorker.h"

namespace sync {
namespace syncService {

// The frame every folder worker runs in (see BaseFileWorker), with the orderings folder workers
// sort their tasks by and the lookup that attaches a new folder record to its parent.
class BaseFolderWorker : public sync::interf::IFolderTaskWorker {
    Q_OBJECT
public:
    BaseFolderWorker(std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                     std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
                     std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~BaseFolderWorker() override = default;

    // Empty results, without connecting or working, for a null or empty list; empty results
    // as well when InnerWork throws a std::exception (logged at ERROR).
    sync::core::SyncResults Work(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
        SyncStatusMonitor& monitor) override;

    // Folder tasks by serverPath without regard to case: parents before their children.
    static bool LessThan(const std::shared_ptr<sync::interf::ISyncTask>& a,
                         const std::shared_ptr<sync::interf::ISyncTask>& b);
    // The reverse: children before their parents.
    static bool GreatThan(const std::shared_ptr<sync::interf::ISyncTask>& a,
                          const std::shared_ptr<sync::interf::ISyncTask>& b);

protected:
    // Sets parentId, inheritedId and inheritedValue of a folder record that has no parent yet
    // from the record of the folder above it; false (logged) when that record does not exist.
    bool _PopulateParentData(sync::config::FolderConfiguration& folder);

    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
};

}  // namespace syncService
}  // namespace sync
