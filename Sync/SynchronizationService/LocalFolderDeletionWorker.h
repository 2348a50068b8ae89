#pragma once

#include <memory>

#include "BaseFolderWorker.h"
#include "ICoreFactory.h"

namespace sync {
namespace syncService {

// Removes local folders that were deleted on the server, children before parents, and only
// when they are empty: a folder that still holds something the server never saw stays on the
// disk with its record, reported OutOfSync. Database writes go in batches of 20 folders.
class LocalFolderDeletionWorker : public BaseFolderWorker {
    Q_OBJECT
public:
    // The exit check comes from the core factory, which also wraps the directories.
    LocalFolderDeletionWorker(
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager);
    ~LocalFolderDeletionWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    sync::core::SyncResults _RemoveLocalFolder(const sync::config::FolderConfiguration& folder);

    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
};

}  // namespace syncService
}  // namespace sync
