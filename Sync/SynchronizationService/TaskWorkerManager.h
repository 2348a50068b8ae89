#pragma once

#include <memory>

#include "ICheckForExit.h"
#include "ICoreFactory.h"
#include "ICustomFileConfigUpdater.h"
#include "IFileConfigManager.h"
#include "IFileDeleteClient.h"
#include "IFileDownloadClient.h"
#include "IFileUploadClient.h"
#include "IFolderConfigManager.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "ITaskWorkerManager.h"
#include "IUrlBuilder.h"

namespace sync {
namespace syncService {

// Builds a fresh worker for every step of a run, each with the services its type needs; every
// worker that checks for exit shares the one exit check.
class TaskWorkerManager : public sync::interf::ITaskWorkerManager {
    Q_OBJECT
public:
    TaskWorkerManager(
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory,
        std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory>
            remoteFolderManagerFactory,
        std::shared_ptr<sync::interf::IFileUploadClient> uploadClient,
        std::shared_ptr<sync::interf::IFileDownloadClient> downloadClient,
        std::shared_ptr<sync::interf::IFileDeleteClient> deleteClient,
        std::shared_ptr<sync::interf::ICustomFileConfigUpdater> customFileConfigUpdater,
        std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder);
    ~TaskWorkerManager() override;

    std::shared_ptr<sync::interf::IFileTaskWorker> GetFileTaskWorker(SyncTaskType type) override;
    std::shared_ptr<sync::interf::IFolderTaskWorker> GetFolderTaskWorker(
        SyncTaskType type) override;

private:
    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> _remoteFileManagerFactory;
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> _remoteFolderManagerFactory;
    std::shared_ptr<sync::interf::IFileUploadClient> _uploadClient;
    std::shared_ptr<sync::interf::IFileDownloadClient> _downloadClient;
    std::shared_ptr<sync::interf::IFileDeleteClient> _deleteClient;
    std::shared_ptr<sync::interf::ICustomFileConfigUpdater> _customFileConfigUpdater;
    std::shared_ptr<sync::interf::IUrlBuilder> _urlBuilder;
    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
};

}  // namespace syncService
}  // namespace sync
