#pragma once

#include <memory>

#include "BaseFolderWorker.h"
#include "IRemoteFolderManagerFactory.h"

namespace sync {
namespace syncService {

// Deletes folders on the server, children first, and removes the record of every folder the
// server no longer has (or refused with 403: such a folder no longer takes part).
class ServerFolderDeletionWorker : public BaseFolderWorker {
    Q_OBJECT
public:
    ServerFolderDeletionWorker(
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory>
            remoteFolderManagerFactory,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~ServerFolderDeletionWorker() override = default;

    // Results of type Tasks.
    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    // 0 when the folder is gone from the server, 403 when the server refused but the record
    // was removed, -1 for a failure without an HTTP status, otherwise the failure's status.
    // Database exceptions pass through.
    int _DeleteRemoteFolder(std::shared_ptr<sync::interf::IRemoteFolderManager> manager,
                            sync::config::FolderConfiguration& folder);

    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> _remoteFolderManagerFactory;
};

}  // namespace syncService
}  // namespace sync
