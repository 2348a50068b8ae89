#include "ServerFileCreationWorker.h"

#include <QSet>
#include <algorithm>
#include <exception>

#include "ConfigurationFactory.h"
#include "FolderUtilities.h"
#include "HttpException.h"
#include "SyncCodes.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;

namespace {

// Records written per transaction.
constexpr int BATCH_SIZE = 200;

const QString VERSION = QStringLiteral("version");
const QString VERSION_ID = QStringLiteral("versionId");

QSet<QString> FailedPaths(const SyncResults& results) {
    QSet<QString> paths;
    for (const QString& path : results.FileServerCreationErrorPaths) paths.insert(path.toLower());
    return paths;
}

}  // namespace

ServerFileCreationWorker::ServerFileCreationWorker(
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileUploadClient> uploadClient,
    std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit)
    : BaseFileWorker(std::move(fileConfigManager), std::move(checkForExit)),
      _folderConfigManager(std::move(folderConfigManager)),
      _uploadClient(std::move(uploadClient)),
      _urlBuilder(std::move(urlBuilder)) {}

bool ServerFileCreationWorker::_FileConfigurationLessThan(const FileConfiguration* a,
                                                          const FileConfiguration* b) {
    return a->name < b->name;
}

SyncResults ServerFileCreationWorker::InnerWork(
    const FolderConfiguration& rootFolder,
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) {
    SYNC_LOG_INFO("ServerFileCreationWorker: performing %0 tasks", tasks->size());
    try {
        _serverConfiguration = sync::factory::ConfigurationFactory::CreateServerConfigManager()
                                   ->GetServerConfigurationByFolderId(rootFolder.id);
    } catch (const std::exception& e) {
        // Without the account nothing can be uploaded; every file is tried again next cycle.
        SYNC_LOG_ERROR("%1", e.what());
        SyncResults results;
        for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
            results.CountFailure(SyncResults::FileServerCreation, task->GetFileConfig().localPath);
            emit Done(task->GetFileConfig().localPath, FileSynchronizationStatus::OutOfSync);
        }
        return results;
    }
    auto files = std::make_shared<QList<FileConfiguration*>>();
    _CreateUploadFileConfig(tasks, files);
    return _UploadFile(rootFolder, files);
}

void ServerFileCreationWorker::_CreateUploadFileConfig(
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
    std::shared_ptr<QList<FileConfiguration*>>& files) {
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        FileConfiguration& file = task->GetFileConfig();
        file.transferDirection = sync::config::TransferUpload;
        file.syncStatus = FileSynchronizationStatus::Synchronizing;
        file.transferPending = true;
        files->append(&file);
    }
    std::stable_sort(files->begin(), files->end(), _FileConfigurationLessThan);
}

SyncResults ServerFileCreationWorker::_UploadFile(
    const FolderConfiguration& rootFolder, std::shared_ptr<QList<FileConfiguration*>> files) {
    SyncResults results;
    QList<FileConfiguration> upload;
    // Nothing in this step creates or moves a folder.
    QHash<QString, FolderConfiguration> folders;

    bool stopped = false;
    for (int start = 0; start < files->size() && !stopped; start += BATCH_SIZE) {
        int end = std::min<int>(start + BATCH_SIZE, files->size());
        QList<FileConfiguration> batch;
        // Preparation gives new files their ids; a rolled-back batch takes them back.
        QList<int> ids;
        for (int i = start; i < end; ++i) ids.append(files->at(i)->id);
        try {
            sync::database::TransactionalScope scope;
            for (int i = start; i < end; ++i) {
                if (_checkForExit->ShouldExit()) {
                    stopped = true;
                    end = i;
                    break;
                }
                batch.append(_PrepareRecord(rootFolder, *files->at(i), folders));
            }
            scope.commit();
        } catch (const std::exception& e) {
            // The batch was rolled back: none of its files is uploaded, and the next cycle
            // finds them as they were.
            SYNC_LOG_ERROR("%1", e.what());
            for (int i = start; i < end; ++i) {
                FileConfiguration& file = *files->at(i);
                file.id = ids.at(i - start);
                results.CountFailure(SyncResults::FileServerCreation, file.localPath);
                emit Done(file.localPath, FileSynchronizationStatus::OutOfSync);
            }
            continue;
        }
        upload += batch;
    }

    QList<FileConfiguration> heldBack;
    QList<FileConfiguration> unreadable;
    if (!_checkForExit->ShouldExit()) heldBack = _HoldBackGeneratedFiles(upload, unreadable);
    for (const FileConfiguration& file : unreadable)
        results.CountFailure(SyncResults::FileServerCreation, file.localPath);
    if (!_checkForExit->ShouldExit()) _Upload(rootFolder, upload, results);
    if (!_checkForExit->ShouldExit() && !heldBack.isEmpty()) {
        // Generated files go up after their sources, and not at all when a source failed:
        // such a file stays in the list so that it ends out of sync.
        QList<FileConfiguration> dropped;
        if (results.anyErrors()) dropped = _DropOrphanedGeneratedFiles(heldBack, results);
        if (!heldBack.isEmpty()) _Upload(rootFolder, heldBack, results);
        heldBack += dropped;
    }
    // Every prepared file is settled and reported, whatever stopped the run.
    upload += heldBack;
    upload += unreadable;
    _UpdateStatus(rootFolder, upload, results);
    return results;
}

FileConfiguration ServerFileCreationWorker::_PrepareRecord(
    const FolderConfiguration& rootFolder, FileConfiguration& file,
    QHash<QString, FolderConfiguration>& folders) {
    const bool generated = file.isGenerated != 0;
    FileConfiguration record;
    if (generated) {
        record = file.id < 1 ? file : _fileConfigManager->GetGeneratedFileById(file.id);
    } else {
        record = file.id < 1 ? _fileConfigManager->GetFileByPath(file.localPath,
                                                                 rootFolder.authenticationId)
                             : _fileConfigManager->GetFileById(file.id);
        if (record.serverFileId.isEmpty()) record.serverFileId = file.serverFileId;
        record.referencesOnly = file.referencesOnly;
    }

    if (record.id < 1) {
        const QString folderPath =
            sync::core::FolderUtilities::GetParentFolderPath(file.localPath).toLower();
        auto known = folders.constFind(folderPath);
        if (known == folders.constEnd())
            known = folders.insert(folderPath, _folderConfigManager->GetFolderByPath(
                                                   folderPath, rootFolder.authenticationId));
        const FolderConfiguration& folder = *known;
        file.folderId = folder.id;
        file.inheritedId = folder.inheritedId;
        file.rootId = folder.rootId;
        if (generated)
            file.id = -1;  // a vanished record's id must not be written to later
        else
            _fileConfigManager->AddFile(file);
        return file;
    }

    record.transferDirection = file.transferDirection;
    record.syncStatus = file.syncStatus;
    record.transferPending = true;
    if (!generated) _fileConfigManager->UpdateFile(record);
    // A file changed on both sides carries the server version it replaces; the upload must
    // name that one, not the older one the database knew. The database keeps the version last
    // synchronised until the upload settles the record, so that the upload client can tell a
    // server version it never synchronised (and keep it) from its own.
    for (const QString& key : {VERSION, VERSION_ID})
        if (file.properties.contains(key))
            record.properties.insert(key, file.properties.value(key));
    return record;
}

void ServerFileCreationWorker::_Upload(const FolderConfiguration& rootFolder,
                                       QList<FileConfiguration>& files, SyncResults& results) {
    if (files.isEmpty()) return;
    try {
        results += _uploadClient->UploadFiles(_serverConfiguration, rootFolder, files);
    } catch (const sync::http::HttpException& e) {
        // The files stay Synchronizing and end out of sync; the status reaches the cycle's
        // report (401, 429 and 507 change what it does next).
        SYNC_LOG_ERROR("%1", e.what());
        for (const FileConfiguration& file : files)
            results.CountFailure(SyncResults::FileServerCreation, file.localPath, e.code);
    }
}

QList<FileConfiguration> ServerFileCreationWorker::_HoldBackGeneratedFiles(
    QList<FileConfiguration>& files, QList<FileConfiguration>& failed) {
    QList<FileConfiguration> heldBack;
    for (int i = files.size() - 1; i >= 0; --i) {
        if (files[i].isGenerated == 0) continue;
        try {
            const FileConfiguration source = _fileConfigManager->GetFileById(files[i].parentFileId);
            if (source.id != -1 &&
                (source.syncStatus == FileSynchronizationStatus::Synchronizing ||
                 source.syncStatus == FileSynchronizationStatus::NotSynchronized))
                heldBack.append(files.takeAt(i));
        } catch (const std::exception& e) {
            SYNC_LOG_ERROR("%1", e.what());
            FileConfiguration file = files.takeAt(i);
            file.syncStatus = FileSynchronizationStatus::OutOfSync;
            failed.append(file);
        }
    }
    return heldBack;
}

QList<FileConfiguration> ServerFileCreationWorker::_DropOrphanedGeneratedFiles(
    QList<FileConfiguration>& heldBack, const SyncResults& results) {
    const QSet<QString> failedPaths = FailedPaths(results);
    QList<FileConfiguration> dropped;
    for (int i = heldBack.size() - 1; i >= 0; --i) {
        bool drop = true;
        try {
            const FileConfiguration source =
                _fileConfigManager->GetFileById(heldBack[i].parentFileId);
            drop = source.id == -1 || failedPaths.contains(source.localPath.toLower());
        } catch (const std::exception& e) {
            // A source that cannot be read may have failed: its generated file waits.
            SYNC_LOG_ERROR("%1", e.what());
        }
        if (drop) dropped.append(heldBack.takeAt(i));
    }
    return dropped;
}

void ServerFileCreationWorker::_UpdateStatus(const FolderConfiguration& rootFolder,
                                             QList<FileConfiguration>& files,
                                             SyncResults& results) {
    (void)rootFolder;
    for (int start = 0; start < files.size(); start += BATCH_SIZE) {
        const int end = std::min<int>(start + BATCH_SIZE, files.size());
        try {
            sync::database::TransactionalScope scope;
            for (int i = start; i < end; ++i) {
                FileConfiguration& file = files[i];
                if (file.syncStatus == FileSynchronizationStatus::Synchronizing) {
                    // The upload did not settle it.
                    file.transferPending = true;
                    file.syncStatus = FileSynchronizationStatus::OutOfSync;
                }
                // The upload client stored the record of every file it sent, with the content
                // and version that went up; what failed is written here, as it stands.
                if (file.syncStatus != FileSynchronizationStatus::Synchronized && file.id > 0)
                    _fileConfigManager->UpdateFile(file);
            }
            scope.commit();
        } catch (const std::exception& e) {
            // The records keep what preparation wrote; the next cycle uploads these again.
            SYNC_LOG_ERROR("%1", e.what());
            const QSet<QString> failedPaths = FailedPaths(results);
            for (int i = start; i < end; ++i) {
                if (!failedPaths.contains(files[i].localPath.toLower()))
                    results.CountFailure(SyncResults::FileServerCreation, files[i].localPath);
                files[i].syncStatus = FileSynchronizationStatus::OutOfSync;
            }
        }
        for (int i = start; i < end; ++i) emit Done(files[i].localPath, files[i].syncStatus);
    }
}

}  // namespace syncService
}  // namespace sync
