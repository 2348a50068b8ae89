#include "ServerFileDeletionWorker.h"

#include <QSet>
#include <algorithm>
#include <exception>

#include "HttpException.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::core::SyncResults;

namespace {

// Records removed per transaction.
constexpr int BATCH_SIZE = 200;

}  // namespace

ServerFileDeletionWorker::ServerFileDeletionWorker(
    std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory,
    std::shared_ptr<sync::interf::IFileDeleteClient> deleteClient,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : BaseFileWorker(std::move(fileConfigManager), std::move(checkForExit)),
      _remoteFileManagerFactory(std::move(remoteFileManagerFactory)),
      _deleteClient(std::move(deleteClient)),
      _folderConfigManager(std::move(folderConfigManager)) {}

SyncResults ServerFileDeletionWorker::InnerWork(
    const sync::config::FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    SYNC_LOG_INFO("ServerFileDeletionWorker: performing %0 tasks", tasks->size());
    return _DeleteRemoteFiles(rootFolder, tasks);
}

SyncResults ServerFileDeletionWorker::_DeleteRemoteFiles(
    const sync::config::FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    QList<FileConfiguration> files;
    files.reserve(tasks->size());
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks)
        files.append(task->GetFileConfig());
    SyncResults results;
    try {
        results = _deleteClient->DeleteFiles(rootFolder, files);
    } catch (const sync::http::HttpException& e) {
        // No file could be tried: all of them failed with the request's status.
        SYNC_LOG_ERROR("%1", e.what());
        for (const FileConfiguration& file : files)
            results.CountFailure(SyncResults::FileServerDeletion, file.localPath, e.code);
    }
    _UpdateStatus(rootFolder, files, results);
    return results;
}

void ServerFileDeletionWorker::_UpdateStatus(const sync::config::FolderConfiguration& rootFolder,
                                             QList<FileConfiguration>& files,
                                             SyncResults& results) {
    QSet<QString> failed;
    for (const QString& path : results.FileServerDeletionErrorPaths) failed.insert(path.toLower());

    for (int start = 0; start < files.size(); start += BATCH_SIZE) {
        const int end = std::min<int>(start + BATCH_SIZE, files.size());
        // The server no longer has these files: their records go, so that a file the user
        // puts back later is seen as new instead of as deleted on the server.
        QList<int> deleted;
        for (int i = start; i < end; ++i)
            if (!failed.contains(files[i].localPath.toLower())) deleted.append(i);
        try {
            sync::database::TransactionalScope scope;
            for (int i : deleted) {
                const FileConfiguration& file = files[i];
                const int id =
                    file.id > 0 ? file.id
                                : _fileConfigManager
                                      ->GetFileByPath(file.localPath, rootFolder.authenticationId)
                                      .id;
                if (id > 0) _fileConfigManager->RemoveFile(id);
            }
            scope.commit();
        } catch (const std::exception& e) {
            SYNC_LOG_ERROR("%1", e.what());
            for (int i : deleted) {
                results.CountFailure(SyncResults::FileServerDeletion, files[i].localPath);
                failed.insert(files[i].localPath.toLower());
            }
        }
        for (int i = start; i < end; ++i) {
            const bool ok = !failed.contains(files[i].localPath.toLower());
            emit Done(files[i].localPath, ok ? FileSynchronizationStatus::Synchronized
                                             : FileSynchronizationStatus::OutOfSync);
        }
    }
}

}  // namespace syncService
}  // namespace sync
