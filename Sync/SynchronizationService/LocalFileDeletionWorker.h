#pragma once

#include <QString>
#include <memory>

#include "BaseFileWorker.h"
#include "ICoreFactory.h"

namespace sync {
namespace syncService {

// Removes local files that were deleted on the server: each file is moved to the user's trash,
// never deleted outright, and its record is removed, or kept and marked OutOfSync when the file
// stays. Database writes go in batches of 20 files.
class LocalFileDeletionWorker : public BaseFileWorker {
    Q_OBJECT
public:
    // The exit check comes from the core factory, which also supplies the file wrappers and the
    // recycler.
    LocalFileDeletionWorker(std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                            std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory);
    ~LocalFileDeletionWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    sync::core::SyncResults _RemoveLocalFiles(
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks);
    // Marks the record, removes the file, then drops the record or marks it OutOfSync. True
    // when the file is gone. A database failure is logged and thrown on to the batch.
    bool _RemoveLocalFile(sync::config::FileConfiguration& file);
    // The disk side: true when the file is gone.
    bool _RemoveFile(sync::config::FileConfiguration& file);
    // False when the recycler disposed of the file, true when it is still there.
    bool _RecycleFile(QString& path);

    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
};

}  // namespace syncService
}  // namespace sync
