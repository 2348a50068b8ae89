#pragma once

#include <memory>

#include "BaseFileWorker.h"

namespace sync {
namespace syncService {

// Marks the database records of files in conflict as out of sync. It runs before every other
// task type and touches neither the disk nor the server.
class FileConflictMarkingWorker : public BaseFileWorker {
    Q_OBJECT
public:
    FileConflictMarkingWorker(std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                              std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~FileConflictMarkingWorker() override = default;

    // Counts nothing; a file without a database record is skipped silently.
    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;
};

}  // namespace syncService
}  // namespace sync
