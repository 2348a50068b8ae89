#include "EntryInfoTreeDiffer.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

// A record the database holds but that never reached the server counts as absent.
bool IsSynchronised(const FileConfiguration& file) {
    return file.syncStatus != FileSynchronizationStatus::NotSynchronized &&
           !file.serverFileId.isEmpty();
}

}  // namespace

EntryInfoTreeChange EntryInfoTreeDiffer::Diff(EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                              bool checkDownloadPrivilege) {
    // Taken once: the rules get the trees by reference and must not disturb the walk.
    const QList<QString> configFileKeys = configTree.fileMap.keys();
    const QList<QString> otherFileKeys = otherTree.fileMap.keys();
    const QList<QString> configFolderKeys = configTree.folderMap.keys();
    const QList<QString> otherFolderKeys = otherTree.folderMap.keys();

    EntryInfoTreeChange change;
    _DiffConfigFiles(configFileKeys, configTree, otherTree, checkDownloadPrivilege, change);
    _DiffNewFiles(otherFileKeys, configTree, otherTree, change);
    _DiffConfigFolders(configFolderKeys, configTree, otherTree, change);
    _DiffNewFolders(otherFolderKeys, configTree, otherTree, change);
    return change;
}

void EntryInfoTreeDiffer::_DiffConfigFiles(const QList<QString>& configKeys,
                                           EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                           bool checkDownloadPrivilege,
                                           EntryInfoTreeChange& change) {
    for (const QString& key : configKeys) {
        const auto configIt = configTree.fileMap.constFind(key);
        if (configIt == configTree.fileMap.constEnd()) continue;
        FileConfiguration configFile = configIt.value();
        const bool synchronised = IsSynchronised(configFile);

        const auto otherIt = otherTree.fileMap.constFind(key);
        if (otherIt == otherTree.fileMap.constEnd()) {
            if (synchronised && DetectFileDeleted(configFile))
                change.AddFileAction(EntryAction::Deleted, configFile);
            continue;
        }

        FileConfiguration otherFile = otherIt.value();
        if (!synchronised) {
            if (DetectFileAdded(otherFile, configTree, otherTree)) {
                change.AddFileAction(EntryAction::Added, otherFile);
                continue;
            }
            // A record that never reached the server has nothing to delete: reporting Deleted
            // here while the other side reports Added would be a pair no resolver accepts.
            continue;
        }
        if (DetectFileModified(configFile, otherFile)) {
            change.AddFileAction(EntryAction::Modified, otherFile);
            continue;
        }
        // A file the account may no longer download is gone as far as this machine goes.
        if (checkDownloadPrivilege && (otherFile.privileges & sync::config::PrivilegeDownload) == 0)
            change.AddFileAction(EntryAction::Deleted, configFile);
    }
}

void EntryInfoTreeDiffer::_DiffNewFiles(const QList<QString>& otherKeys, EntryInfoTree& configTree,
                                        EntryInfoTree& otherTree, EntryInfoTreeChange& change) {
    for (const QString& key : otherKeys) {
        if (configTree.fileMap.contains(key)) continue;
        const auto otherIt = otherTree.fileMap.constFind(key);
        if (otherIt == otherTree.fileMap.constEnd()) continue;
        FileConfiguration otherFile = otherIt.value();
        if (DetectFileAdded(otherFile, configTree, otherTree))
            change.AddFileAction(EntryAction::Added, otherFile);
    }
}

void EntryInfoTreeDiffer::_DiffConfigFolders(const QList<QString>& configKeys,
                                             EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                             EntryInfoTreeChange& change) {
    for (const QString& key : configKeys) {
        const auto configIt = configTree.folderMap.constFind(key);
        if (configIt == configTree.folderMap.constEnd()) continue;
        FolderConfiguration configFolder = configIt.value();
        const bool notSynchronised =
            configFolder.getSyncStatus() == FolderSynchronizationStatus::NotSynchronized;

        if (!otherTree.folderMap.contains(key)) {
            if (!notSynchronised && DetectFolderDeleted(configFolder))
                change.AddFolderAction(EntryAction::Deleted, configFolder);
        } else if (notSynchronised) {
            // The database record carries the ids the workers need, so it goes with the action.
            if (DetectFolderAdded(configFolder, configTree, otherTree))
                change.AddFolderAction(EntryAction::Added, configFolder);
        }
        // Folders present on both sides are never modified.
    }
}

void EntryInfoTreeDiffer::_DiffNewFolders(const QList<QString>& otherKeys,
                                          EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                          EntryInfoTreeChange& change) {
    for (const QString& key : otherKeys) {
        if (configTree.folderMap.contains(key)) continue;
        const auto otherIt = otherTree.folderMap.constFind(key);
        if (otherIt == otherTree.folderMap.constEnd()) continue;
        FolderConfiguration otherFolder = otherIt.value();
        if (DetectFolderAdded(otherFolder, configTree, otherTree))
            change.AddFolderAction(EntryAction::Added, otherFolder);
    }
}

}  // namespace syncService
}  // namespace sync
