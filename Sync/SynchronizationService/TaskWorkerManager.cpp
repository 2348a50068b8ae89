#include "TaskWorkerManager.h"

#include "FileConflictMarkingWorker.h"
#include "LocalFileCreationWorker.h"
#include "LocalFileDeletionWorker.h"
#include "LocalFolderCreationWorker.h"
#include "LocalFolderDeletionWorker.h"
#include "ServerFileCreationWorker.h"
#include "ServerFileDeletionWorker.h"
#include "ServerFolderCreationWorker.h"
#include "ServerFolderDeletionWorker.h"
#include "SyncServiceException.h"

namespace sync {
namespace syncService {

TaskWorkerManager::TaskWorkerManager(
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory,
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> remoteFolderManagerFactory,
    std::shared_ptr<sync::interf::IFileUploadClient> uploadClient,
    std::shared_ptr<sync::interf::IFileDownloadClient> downloadClient,
    std::shared_ptr<sync::interf::IFileDeleteClient> deleteClient,
    std::shared_ptr<sync::interf::ICustomFileConfigUpdater> customFileConfigUpdater,
    std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder)
    : _coreFactory(std::move(coreFactory)),
      _fileConfigManager(std::move(fileConfigManager)),
      _folderConfigManager(std::move(folderConfigManager)),
      _remoteFileManagerFactory(std::move(remoteFileManagerFactory)),
      _remoteFolderManagerFactory(std::move(remoteFolderManagerFactory)),
      _uploadClient(std::move(uploadClient)),
      _downloadClient(std::move(downloadClient)),
      _deleteClient(std::move(deleteClient)),
      _customFileConfigUpdater(std::move(customFileConfigUpdater)),
      _urlBuilder(std::move(urlBuilder)),
      _checkForExit(_coreFactory->CreateCheckForExit()) {}

TaskWorkerManager::~TaskWorkerManager() = default;

std::shared_ptr<sync::interf::IFileTaskWorker> TaskWorkerManager::GetFileTaskWorker(
    SyncTaskType type) {
    switch (type) {
        case ServerFileCreation:
            return std::make_shared<ServerFileCreationWorker>(_fileConfigManager,
                                                              _folderConfigManager, _uploadClient,
                                                              _urlBuilder, _checkForExit);
        case ServerFileDeletion:
            return std::make_shared<ServerFileDeletionWorker>(_remoteFileManagerFactory,
                                                              _deleteClient, _folderConfigManager,
                                                              _fileConfigManager, _checkForExit);
        case LocalFileCreation:
            return std::make_shared<LocalFileCreationWorker>(
                _customFileConfigUpdater, _downloadClient, _folderConfigManager, _fileConfigManager,
                _urlBuilder, _checkForExit);
        case LocalFileDeletion:
            return std::make_shared<LocalFileDeletionWorker>(_fileConfigManager, _coreFactory);
        case FileConflictMarking:
            return std::make_shared<FileConflictMarkingWorker>(_fileConfigManager, _checkForExit);
        default:
            throw SyncServiceException(QStringLiteral("No FileTaskWorker matched"));
    }
}

std::shared_ptr<sync::interf::IFolderTaskWorker> TaskWorkerManager::GetFolderTaskWorker(
    SyncTaskType type) {
    switch (type) {
        case ServerFolderCreation:
            return std::make_shared<ServerFolderCreationWorker>(_folderConfigManager,
                                                                _remoteFolderManagerFactory,
                                                                _fileConfigManager, _checkForExit);
        case ServerFolderDeletion:
            return std::make_shared<ServerFolderDeletionWorker>(_folderConfigManager,
                                                                _remoteFolderManagerFactory,
                                                                _fileConfigManager, _checkForExit);
        case LocalFolderCreation:
            return std::make_shared<LocalFolderCreationWorker>(_coreFactory, _folderConfigManager,
                                                               _fileConfigManager);
        case LocalFolderDeletion:
            return std::make_shared<LocalFolderDeletionWorker>(_coreFactory, _folderConfigManager,
                                                               _fileConfigManager);
        case FileConflictMarking:
            return nullptr;
        default:
            throw SyncServiceException(QStringLiteral("No FolderTaskWorker matched"));
    }
}

}  // namespace syncService
}  // namespace sync
