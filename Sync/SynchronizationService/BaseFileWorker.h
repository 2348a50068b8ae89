#pragma once

#include <memory>

#include "ICheckForExit.h"
#include "IFileConfigManager.h"
#include "IFileTaskWorker.h"

namespace sync {
namespace syncService {

// The frame every file worker runs in: an empty list is skipped, Done reaches the status
// monitor, and a standard exception from the worker's own work is logged instead of ending the
// root folder's run.
class BaseFileWorker : public sync::interf::IFileTaskWorker {
    Q_OBJECT
public:
    BaseFileWorker(std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                   std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~BaseFileWorker() override = default;

    // Empty results, without connecting or working, for a null or empty list; empty results
    // as well when InnerWork throws a std::exception (logged at ERROR).
    sync::core::SyncResults Work(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
        SyncStatusMonitor& monitor) override;

protected:
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
};

}  // namespace syncService
}  // namespace sync
