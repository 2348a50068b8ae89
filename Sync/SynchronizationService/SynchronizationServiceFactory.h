#pragma once

#include <memory>

#include "IAuthenticationConfigManager.h"
#include "ICoreFactory.h"
#include "ICustomFileConfigUpdater.h"
#include "IFileConfigManager.h"
#include "IFileDeleteClient.h"
#include "IFileDownloadClient.h"
#include "IFileUploadClient.h"
#include "IFolderConfigManager.h"
#include "IFolderFilter.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "IServerConfigManager.h"
#include "ISyncFilter.h"
#include "ISyncHostApplication.h"
#include "ISyncTaskEngine.h"
#include "ISynchronizationServiceFactory.h"
#include "ITaskWorkerManager.h"
#include "IUrlBuilder.h"
#include "IValidateLoginCredentials.h"

namespace sync {
namespace syncService {

// The one place where the engine's object graph is wired: every cycle gets a fresh
// synchronizer with its own retrievers, differs, runner, engine and workers, built over the
// companion services the host hands in once.
class SynchronizationServiceFactory : public sync::interf::factory::ISynchronizationServiceFactory {
public:
    // What the host provides. Those marked optional may stay null.
    struct Companions {
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory;
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager;
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager;
        std::shared_ptr<sync::interf::IAuthenticationConfigManager> authenticationConfigManager;
        std::shared_ptr<sync::interf::IServerConfigManager> serverConfigManager;
        std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory>
            remoteFolderManagerFactory;
        std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory;
        std::shared_ptr<sync::interf::IFileUploadClient> uploadClient;
        std::shared_ptr<sync::interf::IFileDownloadClient> downloadClient;
        std::shared_ptr<sync::interf::IFileDeleteClient> deleteClient;
        std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder;
        std::shared_ptr<sync::interf::ICustomFileConfigUpdater> customFileConfigUpdater;
        std::shared_ptr<sync::interf::ISyncFilter> fileFilter;
        std::shared_ptr<sync::interf::ISyncFilter> folderFilter;
        std::shared_ptr<sync::interf::ISyncHostApplication> hostApplication;  // optional
        std::shared_ptr<sync::interf::IValidateLoginCredentials> validateLoginCredentials;  // opt.
        std::shared_ptr<sync::interf::IFolderFilter> rootFolderFilter;  // optional
    };

    explicit SynchronizationServiceFactory(Companions companions);
    ~SynchronizationServiceFactory() override;

    std::shared_ptr<sync::interf::ISynchronizer> CreateSynchronizer(
        QWeakPointer<sync::interf::ISyncSignalsAndSlots> signalsAndSlots,
        std::shared_ptr<sync::interf::ISyncConfiguration> configuration) override;

protected:
    // The engine that executes each root folder's depot; a host or a test may wrap it.
    virtual std::shared_ptr<sync::interf::ISyncTaskEngine> _CreateTaskEngine(
        std::shared_ptr<sync::interf::ITaskWorkerManager> workers);

    Companions _companions;
};

}  // namespace syncService
}  // namespace sync
