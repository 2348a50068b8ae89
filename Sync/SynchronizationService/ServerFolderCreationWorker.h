#pragma once

#include <memory>

#include "BaseFolderWorker.h"
#include "IRemoteFolderManagerFactory.h"

namespace sync {
namespace syncService {

// Creates folders on the server, parents first, and records each folder in the database with
// the outcome: a folder whose creation failed is still recorded, marked so that the next cycle
// plans it again.
class ServerFolderCreationWorker : public BaseFolderWorker {
    Q_OBJECT
public:
    ServerFolderCreationWorker(
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory>
            remoteFolderManagerFactory,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~ServerFolderCreationWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    // True when the server created the folder (and set its serverFolderId); the status of a
    // failure goes into results' errorCodes. Remote failures never leave this call.
    bool _CreateRemoteFolder(std::shared_ptr<sync::interf::IRemoteFolderManager> manager,
                             sync::config::FolderConfiguration& folder,
                             sync::core::SyncResults& results);
    // Writes the folder's record: updates the record of the same path or adds a new one.
    void _CreateLocalConfig(sync::config::FolderConfiguration& folder);

    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> _remoteFolderManagerFactory;
};

}  // namespace syncService
}  // namespace sync
