#pragma once

#include <memory>

#include "BaseFolderWorker.h"
#include "ICoreFactory.h"

namespace sync {
namespace syncService {

// Creates local folders that are new on the server (or present on both sides without a
// record), parents before children, and records them in the database in batches of 20.
class LocalFolderCreationWorker : public BaseFolderWorker {
    Q_OBJECT
public:
    enum FolderCreationStatus { FolderExists = 0, FolderCreated = 1, FolderCreationFailed = 2 };

    // The exit check comes from the core factory, which also wraps the directories.
    LocalFolderCreationWorker(
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager);
    ~LocalFolderCreationWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    FolderCreationStatus _CreateLocalFolder(sync::config::FolderConfiguration& folder);
    // Adds the folder's record, or updates the one that is there; stored as Synchronizing
    // until the status monitor settles it.
    void _CreateLocalFolderConfig(sync::config::FolderConfiguration& folder);

    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
};

}  // namespace syncService
}  // namespace sync
