#include "SynchronizationPreProcessor.h"

#include <QDir>
#include <QFileDevice>
#include <QFileInfo>
#include <QStringList>
#include <optional>

#include "FolderUtilities.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::core::FolderUtilities;

namespace {

// Name patterns of what transfers leave in a temporary folder.
const QString TEMPORARY_FILE_PATTERNS = QStringLiteral("*.TMP;*.DWN");

// Owner read and write: enough for the removal that follows.
const QFileDevice::Permissions REMOVABLE = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

QString CleanAbsolute(const QString& path) {
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

// Only the root's temporary folder is ever cleared: a partner that the core placed anywhere
// else might sit among the user's files.
bool IsTemporaryFolder(const QString& folder) {
    return !folder.isEmpty() &&
           QFileInfo(folder).fileName() == sync::core::consts::TEMP_FOLDER_NAME;
}

QString RootPathOf(const EntryInfoTree& localTree) {
    for (const FolderConfiguration& folder : localTree.folderMap)
        if (folder.isRoot()) return folder.localPath;
    return QString();
}

}  // namespace

SynchronizationPreProcessor::SynchronizationPreProcessor(
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager)
    : _cryptographicHash(coreFactory->CreateCryptographicHash()),
      _coreFactory(std::move(coreFactory)),
      _fileConfigManager(std::move(fileConfigManager)),
      _folderConfigManager(std::move(folderConfigManager)) {}

void SynchronizationPreProcessor::PreProcess(std::shared_ptr<EntryInfoTree> localTree,
                                             std::shared_ptr<EntryInfoTree> configTree,
                                             std::shared_ptr<EntryInfoTree> serverTree) {
    (void)serverTree;
    _ResetFolders(*configTree);
    _ResetFiles(*localTree, *configTree, RootPathOf(*localTree));
}

void SynchronizationPreProcessor::_ResetFolders(EntryInfoTree& configTree) {
    QList<QString> removedKeys;
    // Opened before the first write only: most passes write nothing. It runs out without
    // commit(), which keeps the writes unless an exception unwinds.
    std::optional<sync::database::TransactionalScope> scope;
    for (auto it = configTree.folderMap.begin(); it != configTree.folderMap.end(); ++it) {
        FolderConfiguration& folder = it.value();
        const FolderSynchronizationStatus status = folder.getSyncStatus();
        // A root's record is the user's setting of that root: deleting it would silently end
        // the synchronisation of the whole root, so a root only has its status repaired.
        if (status == FolderSynchronizationStatus::OutOfSync && folder.serverCreationFailed == 1 &&
            !folder.isRoot()) {
            if (!scope) scope.emplace();
            SYNC_LOG_DEBUG("Removing folder record of %1: its creation on the server failed",
                           folder.localPath);
            _folderConfigManager->DeleteFolderById(folder.id);
            removedKeys.append(it.key());
        } else if (status != FolderSynchronizationStatus::Synchronized &&
                   status != FolderSynchronizationStatus::NotSynchronized) {
            if (!scope) scope.emplace();
            folder.setSyncStatus(FolderSynchronizationStatus::Synchronized);
            _folderConfigManager->UpdateFolder(folder);
        }
    }
    for (const QString& key : removedKeys) configTree.folderMap.remove(key);
}

void SynchronizationPreProcessor::_ResetFiles(const EntryInfoTree& localTree,
                                              EntryInfoTree& configTree, const QString& rootPath) {
    const std::shared_ptr<sync::interf::IQFileWrapper> file = _coreFactory->CreateRecycler();
    const std::shared_ptr<sync::interf::IQFileWrapper> temporary =
        _coreFactory->CreateFileWrapper();
    QList<QString> removeKeys;
    QList<QString> updateKeys;
    QSet<QString> folders;

    for (auto it = configTree.fileMap.begin(); it != configTree.fileMap.end(); ++it) {
        const QString& key = it.key();
        FileConfiguration& config = it.value();
        if (config.syncStatus == FileSynchronizationStatus::Synchronizing) {
            // Looked up only here: nearly every record is in another state, and a lookup in
            // a tree of 100,000 files costs a cache miss or two.
            const auto local = localTree.fileMap.constFind(key);
            const bool localExists = local != localTree.fileMap.constEnd();
            if (config.transferDirection == sync::config::TransferLocalDeletion) {
                if (!localExists) removeKeys.append(key);
                continue;
            }
            if (config.transferDirection != sync::config::TransferDownload) continue;
            // The file is gone: planned anew from the server.
            if (!localExists) {
                removeKeys.append(key);
                continue;
            }
            file->SetFileName(config.localPath);
            const QString temporaryPath = _TemporaryFileOf(*file, rootPath);
            if (temporaryPath.isEmpty()) continue;
            temporary->SetFileName(temporaryPath);
            if (!temporary->Exists()) continue;

            // The download may have reached its file before the record was written: a
            // partner equal to the file means the record only lacks the file's state.
            const QString path = temporary->FileName();
            QString checksum;
            if (_TwoFilesAreTheSame(file, temporary, checksum)) {
                // A stored checksum is kept when size and time alone showed the files equal.
                if (checksum.isEmpty() && _ConfigHasNoChecksum(config))
                    checksum = _cryptographicHash->GetFileHash(path);
                config.lastModified = local->lastModified;
                config.size = local->size;
                if (!checksum.isEmpty()) config.checksum = checksum;
                updateKeys.append(key);
            }
            temporary->Remove();
            // Real case kept: on this system the lower-case form would point nowhere.
            folders.insert(FolderUtilities::GetParentFolderPath(path));
        } else if (config.syncStatus == FileSynchronizationStatus::OutOfSync &&
                   config.transferDirection == sync::config::TransferDownload &&
                   _ConfigHasNoChecksum(config)) {
            removeKeys.append(key);
        }
    }

    _UpdateDbAndClearupFolder(configTree.fileMap, removeKeys, updateKeys, folders, rootPath);
}

bool SynchronizationPreProcessor::_TwoFilesAreTheSame(
    std::shared_ptr<sync::interf::IQFileWrapper> a, std::shared_ptr<sync::interf::IQFileWrapper> b,
    QString& checksum) {
    const std::shared_ptr<sync::interf::IQFileInfoWrapper> infoA = a->GetFileInfo();
    const std::shared_ptr<sync::interf::IQFileInfoWrapper> infoB = b->GetFileInfo();
    if (infoA->Size() != infoB->Size()) return false;

    const QDateTime timeA = infoA->LastModified();
    const QDateTime timeB = infoB->LastModified();
    if (timeA.isValid() && timeB.isValid() && qAbs(timeA.msecsTo(timeB)) <= 1000) return true;

    const QString hashA = _cryptographicHash->GetFileHash(a->FileName());
    const QString hashB = _cryptographicHash->GetFileHash(b->FileName());
    // Two files that could not be read are not known to be equal.
    if (hashA.isEmpty() || hashA != hashB) return false;
    checksum = hashA;
    return true;
}

bool SynchronizationPreProcessor::_ConfigHasNoChecksum(const FileConfiguration& file) {
    return file.checksum.isEmpty();
}

void SynchronizationPreProcessor::_UpdateDbAndClearupFolder(
    decltype(EntryInfoTree::fileMap)& configFiles, QList<QString>& removeKeys,
    QList<QString>& updateKeys, QSet<QString>& folders, const QString& rootPath) {
    if (!removeKeys.isEmpty() || !updateKeys.isEmpty()) {
        sync::database::TransactionalScope scope;
        for (const QString& key : removeKeys) {
            const FileConfiguration config = configFiles.value(key);
            SYNC_LOG_DEBUG("Removing file record of an interrupted transfer: %1", config.localPath);
            _fileConfigManager->RemoveFile(config.id);
        }
        for (const QString& key : updateKeys) {
            const FileConfiguration config = configFiles.value(key);
            _fileConfigManager->UpdateFile(config);
        }
        scope.commit();
    }

    if (!folders.isEmpty() || !removeKeys.isEmpty()) {
        const std::shared_ptr<sync::interf::IQFileWrapper> file = _coreFactory->CreateRecycler();
        const std::shared_ptr<sync::interf::IQFileWrapper> temporary =
            _coreFactory->CreateFileWrapper();
        for (const QString& key : removeKeys) {
            file->SetFileName(configFiles.value(key).localPath);
            const QString temporaryPath = _TemporaryFileOf(*file, rootPath);
            if (temporaryPath.isEmpty()) continue;
            temporary->SetFileName(temporaryPath);
            if (temporary->Exists()) {
                // Permissions set through a link would change whatever it points to.
                if (!temporary->GetFileInfo()->IsSymLink()) temporary->SetPermissions(REMOVABLE);
                temporary->Remove();
            }
            folders.insert(FolderUtilities::GetParentFolderPath(temporary->FileName()));
        }
        for (const QString& folder : folders) _ClearTemporaryFolder(folder);
    }

    for (const QString& key : removeKeys) configFiles.remove(key);
}

QString SynchronizationPreProcessor::_TemporaryFileOf(sync::interf::IQFileWrapper& file,
                                                      const QString& rootPath) {
    const QString localPath = file.FileName();
    if (rootPath.isEmpty() || localPath.isEmpty()) return QString();
    const QString temporaryPath = file.GetTemporaryFile(rootPath);
    // Whatever the core answers, the user's file itself is never taken for its partner.
    if (!IsTemporaryFolder(FolderUtilities::GetParentFolderPath(temporaryPath)) ||
        CleanAbsolute(temporaryPath) == CleanAbsolute(localPath))
        return QString();
    return temporaryPath;
}

void SynchronizationPreProcessor::_ClearTemporaryFolder(const QString& folder) {
    if (!IsTemporaryFolder(folder)) return;
    const std::shared_ptr<sync::interf::IQDirWrapper> dir =
        _coreFactory->CreateQDirWrapper(std::make_shared<QDir>(folder));
    dir->SetPath(folder);
    const QStringList names =
        dir->FileNames(TEMPORARY_FILE_PATTERNS.split(QLatin1Char(';'), Qt::SkipEmptyParts));
    const std::shared_ptr<sync::interf::IQFileWrapper> file = _coreFactory->CreateFileWrapper();
    for (const QString& name : names) {
        file->SetFileName(folder + QLatin1Char('/') + name);
        file->SetPermissions(REMOVABLE);
        file->Remove();
    }
    // Kept while anything else is left in it.
    if (dir->RemoveDirectory(folder)) SYNC_LOG_DEBUG("Removed temporary folder %1", folder);
}

}  // namespace syncService
}  // namespace sync
