#pragma once

#include <QList>
#include <memory>

#include "BaseFileWorker.h"
#include "IFileDeleteClient.h"
#include "IFolderConfigManager.h"
#include "IRemoteFileManagerFactory.h"

namespace sync {
namespace syncService {

// Deletes files on the server in one batch, then drops the database record of every file the
// server no longer has and reports each file's outcome.
class ServerFileDeletionWorker : public BaseFileWorker {
    Q_OBJECT
public:
    ServerFileDeletionWorker(
        std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory,
        std::shared_ptr<sync::interf::IFileDeleteClient> deleteClient,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~ServerFileDeletionWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    sync::core::SyncResults _DeleteRemoteFiles(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks);
    // Settles the records of the batch and reports every file: OutOfSync when its deletion
    // failed (as listed in results), Synchronized otherwise.
    void _UpdateStatus(const sync::config::FolderConfiguration& rootFolder,
                       QList<sync::config::FileConfiguration>& files,
                       sync::core::SyncResults& results);

    // Held for the workers built alike; deletions go through the delete client.
    std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> _remoteFileManagerFactory;
    std::shared_ptr<sync::interf::IFileDeleteClient> _deleteClient;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
};

}  // namespace syncService
}  // namespace sync
