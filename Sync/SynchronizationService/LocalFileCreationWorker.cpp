#include "LocalFileCreationWorker.h"

#include <QDir>
#include <QHash>
#include <algorithm>
#include <exception>

#include "ConfigurationFactory.h"
#include "DatabaseException.h"
#include "EntryInfoTree.h"
#include "FolderUtilities.h"
#include "SyncCodes.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::core::FolderUtilities;

namespace {

// How folder records are matched to the parent paths of files: the database compares paths
// without regard to case.
QString FolderKey(const QString& path) {
    return QDir::cleanPath(path).toLower();
}

}  // namespace

bool FileConfigurationLessThan(const std::shared_ptr<sync::interf::ISyncTask>& a,
                               const std::shared_ptr<sync::interf::ISyncTask>& b) {
    return QString::compare(a->GetFileConfig().localPath, b->GetFileConfig().localPath,
                            Qt::CaseInsensitive) < 0;
}

LocalFileCreationWorker::LocalFileCreationWorker(
    std::shared_ptr<sync::interf::ICustomFileConfigUpdater> customFileConfigUpdater,
    std::shared_ptr<sync::interf::IFileDownloadClient> downloadClient,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : BaseFileWorker(std::move(fileConfigManager), std::move(checkForExit)),
      _downloadClient(std::move(downloadClient)),
      _folderConfigManager(std::move(folderConfigManager)),
      _customFileConfigUpdater(std::move(customFileConfigUpdater)),
      _urlBuilder(std::move(urlBuilder)) {}

sync::core::SyncResults LocalFileCreationWorker::InnerWork(const FolderConfiguration& rootFolder,
                                                           TaskList tasks) {
    sync::core::SyncResults results;
    SYNC_LOG_INFO("LocalFileCreationWorker: performing %0 tasks", tasks->size());

    Batch batch;
    try {
        _serverConfiguration = sync::factory::ConfigurationFactory::CreateServerConfigManager()
                                   ->GetServerConfigurationByFolderId(rootFolder.id);
        batch = _PrepareBatch(rootFolder, tasks);
    } catch (const std::exception& e) {
        // The marks were rolled back with the scope: the records are as they were, and the
        // next cycle plans the same downloads again.
        SYNC_LOG_ERROR("LocalFileCreationWorker: %0 downloads were not started: %1", tasks->size(),
                       e.what());
        return _FailAll(tasks);
    }

    // Stopped here, the marked records stay Synchronizing; the next cycle repairs them.
    if (batch.isEmpty() || _checkForExit->ShouldExit()) return results;
    try {
        results += _downloadClient->DownloadFiles(_serverConfiguration, rootFolder, batch);
    } catch (const sync::database::DatabaseException& e) {
        // Which records the client stored before the database failed is unknown; every file
        // is planned again by the next cycle.
        SYNC_LOG_ERROR("LocalFileCreationWorker: the downloads could not be recorded: %0",
                       e.what());
        return _FailAll(tasks);
    }
    _UpdateStatus(batch);
    return results;
}

LocalFileCreationWorker::Batch LocalFileCreationWorker::_PrepareBatch(
    const FolderConfiguration& rootFolder, TaskList tasks) {
    QMap<int, FolderConfiguration> foldersById;
    QMap<int, TaskList> tasksByFolderId;
    _GetFolderConfigurationForFiles(rootFolder, tasks, foldersById, tasksByFolderId);
    // The folders just looked up, by path, so that new files do not ask the database again.
    QHash<QString, FolderConfiguration> foldersByPath;
    for (const FolderConfiguration& folder : foldersById)
        if (folder.id != -1) foldersByPath.insert(FolderKey(folder.localPath), folder);

    Batch batch;
    if (tasks->isEmpty()) return batch;
    const std::shared_ptr<EntryInfoTree> configTree = tasks->first()->GetConfigTree();
    const std::shared_ptr<EntryInfoTree> serverTree = tasks->first()->GetServerTree();
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        const FileConfiguration& record = task->GetFileConfig();
        const QString key = EntryInfoTree::KeyOf(record.serverPath);
        const FileConfiguration serverRecord =
            serverTree ? serverTree->fileMap.value(key) : FileConfiguration();
        FileConfiguration databaseRecord =
            configTree ? configTree->fileMap.value(key) : FileConfiguration();
        FolderConfiguration folder = rootFolder;
        if (databaseRecord.id == -1) {
            const QString parentPath = FolderUtilities::GetParentFolderPath(record.localPath);
            const auto known = foldersByPath.constFind(FolderKey(parentPath));
            folder = known != foldersByPath.constEnd()
                         ? *known
                         : _folderConfigManager->GetFolderByPath(parentPath,
                                                                 rootFolder.authenticationId);
        }
        databaseRecord = _CreateConfigFile(serverRecord, databaseRecord, folder);
        databaseRecord.referencesOnly = record.referencesOnly;
        batch.append(sync::thread::SynchronizedFileConfiguration(serverRecord, databaseRecord));
    }

    sync::database::TransactionalScope scope;
    for (const sync::thread::SynchronizedFileConfiguration& entry : batch)
        if (entry.databaseRecord.id > 0) _fileConfigManager->UpdateFile(entry.databaseRecord);
    scope.commit();
    return batch;
}

void LocalFileCreationWorker::_GetFolderConfigurationForFiles(
    const FolderConfiguration& rootFolder, TaskList tasks,
    QMap<int, FolderConfiguration>& foldersById, QMap<int, TaskList>& tasksByFolderId) {
    std::stable_sort(tasks->begin(), tasks->end(), &FileConfigurationLessThan);
    QString lastParentPath;
    FolderConfiguration folder;
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        const QString parentPath =
            FolderUtilities::GetParentFolderPath(task->GetFileConfig().localPath);
        if (QString::compare(parentPath, lastParentPath, Qt::CaseInsensitive) != 0) {
            folder = _folderConfigManager->GetFolderByPath(parentPath, rootFolder.authenticationId);
            if (!foldersById.contains(folder.id)) {
                foldersById.insert(folder.id, folder);
                tasksByFolderId.insert(
                    folder.id, std::make_shared<QList<std::shared_ptr<sync::interf::ISyncTask>>>());
            }
            lastParentPath = parentPath;
        }
        const auto list = tasksByFolderId.constFind(folder.id);
        if (list != tasksByFolderId.constEnd()) (*list)->append(task);
    }
}

FileConfiguration LocalFileCreationWorker::_CreateConfigFile(
    const FileConfiguration& serverRecord, const FileConfiguration& databaseRecord,
    const FolderConfiguration& folder) {
    FileConfiguration file = databaseRecord;
    file.transferDirection = sync::config::TransferDownload;
    file.syncStatus = FileSynchronizationStatus::Synchronizing;
    file.transferPending = true;
    if (file.id != -1) return file;
    file.name = serverRecord.name;
    file.localPath = serverRecord.localPath;
    file.serverPath = serverRecord.serverPath;
    file.referencesOnly = serverRecord.referencesOnly;
    file.folderId = folder.id;
    file.inheritedId = folder.inheritedId;
    file.rootId = folder.rootId;
    return file;
}

void LocalFileCreationWorker::_UpdateStatus(Batch& batch) {
    for (const sync::thread::SynchronizedFileConfiguration& entry : batch)
        emit Done(entry.databaseRecord.localPath, entry.databaseRecord.syncStatus);
}

sync::core::SyncResults LocalFileCreationWorker::_FailAll(TaskList tasks) {
    sync::core::SyncResults results;
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        const QString& path = task->GetFileConfig().localPath;
        ++results.FileLocalCreationErrors;
        results.FileLocalCreationErrorPaths.append(path);
        try {
            emit Done(path, FileSynchronizationStatus::OutOfSync);
        } catch (const std::exception& e) {
            // Reporting writes statuses to the same database; the count stands.
            SYNC_LOG_ERROR("LocalFileCreationWorker: could not report %0: %1", path, e.what());
        }
    }
    return results;
}

}  // namespace syncService
}  // namespace sync
