#include "SynchronizationServiceFactory.h"

#include <QDir>

#include "ConfigEntryInfoTreeRetriever.h"
#include "ConflictResolverFactory.h"
#include "LocalConfigTreeDiffer.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "ServerConfigTreeDiffer.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "SyncTaskEngine.h"
#include "SynchronizationPreProcessor.h"
#include "SynchronizeRunner.h"
#include "Synchronizer.h"
#include "TaskWorkerManager.h"

namespace sync {
namespace syncService {

SynchronizationServiceFactory::SynchronizationServiceFactory(Companions companions)
    : _companions(std::move(companions)) {}

SynchronizationServiceFactory::~SynchronizationServiceFactory() = default;

std::shared_ptr<sync::interf::ISyncTaskEngine> SynchronizationServiceFactory::_CreateTaskEngine(
    std::shared_ptr<sync::interf::ITaskWorkerManager> workers) {
    return std::make_shared<SyncTaskEngine>(std::move(workers), _companions.folderConfigManager,
                                            _companions.fileConfigManager,
                                            _companions.coreFactory->CreateCheckForExit());
}

std::shared_ptr<sync::interf::ISynchronizer> SynchronizationServiceFactory::CreateSynchronizer(
    QWeakPointer<sync::interf::ISyncSignalsAndSlots> signalsAndSlots,
    std::shared_ptr<sync::interf::ISyncConfiguration> configuration) {
    const Companions& c = _companions;
    auto localRetriever = std::make_shared<LocalEntryInfoTreeRetriever>(
        c.folderConfigManager, c.fileConfigManager, c.coreFactory, c.fileFilter, c.folderFilter);
    auto configRetriever =
        std::make_shared<ConfigEntryInfoTreeRetriever>(c.fileConfigManager, c.folderConfigManager);
    auto serverRetriever = std::make_shared<ServerEntryInfoTreeRetriever>(
        c.folderConfigManager, c.fileConfigManager, c.coreFactory, c.remoteFolderManagerFactory,
        c.remoteFileManagerFactory, c.fileFilter, c.folderFilter);
    auto runner = std::make_shared<SynchronizeRunner>(
        std::make_shared<ConflictResolverFactory>(), localRetriever, configRetriever,
        serverRetriever, std::make_shared<LocalConfigTreeDiffer>(),
        std::make_shared<ServerConfigTreeDiffer>(), c.coreFactory,
        std::make_shared<SynchronizationPreProcessor>(c.coreFactory, c.fileConfigManager,
                                                      c.folderConfigManager),
        c.fileConfigManager, c.folderConfigManager, configuration);
    auto workers = std::make_shared<TaskWorkerManager>(
        c.coreFactory, c.fileConfigManager, c.folderConfigManager, c.remoteFileManagerFactory,
        c.remoteFolderManagerFactory, c.uploadClient, c.downloadClient, c.deleteClient,
        c.customFileConfigUpdater, c.urlBuilder);
    auto engine = _CreateTaskEngine(workers);
    return std::make_shared<Synchronizer>(
        c.authenticationConfigManager, c.serverConfigManager, c.hostApplication,
        c.fileConfigManager, c.folderConfigManager, c.remoteFolderManagerFactory,
        c.coreFactory->CreateQDirWrapper(std::make_shared<QDir>()), engine, c.coreFactory,
        c.validateLoginCredentials, signalsAndSlots, localRetriever, configRetriever,
        serverRetriever, runner, c.rootFolderFilter);
}

}  // namespace syncService
}  // namespace sync
