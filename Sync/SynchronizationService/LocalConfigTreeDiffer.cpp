#include "LocalConfigTreeDiffer.h"

#include "CoreFactory.h"
#include "FolderUtilities.h"
#include "SyncCodes.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;

LocalConfigTreeDiffer::LocalConfigTreeDiffer()
    : _hash(sync::factory::CoreFactory().CreateCryptographicHash()) {}

bool LocalConfigTreeDiffer::IsFileContentModified(FileConfiguration& configFile,
                                                  FileConfiguration& localFile) {
    if (configFile.size != localFile.size) return true;

    // Whole seconds only: the recorded time may have lost its milliseconds on the way (servers
    // and some file systems keep none), which is no change.
    QDateTime localTime = localFile.lastModified.toUTC();
    localTime = localTime.addMSecs(-localTime.time().msec());
    if (configFile.lastModified == localTime) return false;

    // Same size, new time: only the content can tell a touch from a rewrite. A file that
    // cannot be read is never reported on the strength of its time stamp alone.
    const QString hash = _hash->GetFileHash(localFile.localPath);
    if (hash.isEmpty()) return false;
    return configFile.checksum != hash;
}

bool LocalConfigTreeDiffer::DetectFileContentModified(FileConfiguration& configFile,
                                                      FileConfiguration& localFile) {
    if (!IsFileContentModified(configFile, localFile)) return false;
    if (localFile.privileges & sync::config::PrivilegeUpload) return true;
    SYNC_LOG_WARN("Skipping upload of modified file %1 since there is no upload privilege",
                  configFile.localPath);
    return false;
}

bool LocalConfigTreeDiffer::IsFileSurelyUnchanged(const FileConfiguration& configFile,
                                                  const FileConfiguration& localFile) const {
    // Same size and time, and no references left to upload: the rules below say unchanged.
    if (configFile.size != localFile.size) return false;
    if (!configFile.serverFileId.isEmpty() &&
        configFile.syncStatus == FileSynchronizationStatus::OutOfSync &&
        configFile.transferDirection == sync::config::TransferUpload)
        return false;
    QDateTime localTime = localFile.lastModified.toUTC();
    localTime = localTime.addMSecs(-localTime.time().msec());
    return configFile.lastModified == localTime;
}

bool LocalConfigTreeDiffer::DetectFileModified(FileConfiguration& configFile,
                                               FileConfiguration& localFile) {
    bool modified = DetectFileContentModified(configFile, localFile);
    int referencesOnly = 0;
    // The content is in step but the last upload ended out of sync: the references still
    // have to go up.
    if (!modified && !configFile.serverFileId.isEmpty() &&
        configFile.syncStatus == FileSynchronizationStatus::OutOfSync &&
        configFile.transferDirection == sync::config::TransferUpload) {
        referencesOnly = 1;
        modified = true;
    }
    configFile.referencesOnly = referencesOnly;
    localFile.referencesOnly = referencesOnly;
    return modified;
}

bool LocalConfigTreeDiffer::_AncestorAllowsUpload(const QString& serverPath,
                                                  EntryInfoTree& configTree,
                                                  QString& refusingAncestor) const {
    QString path = serverPath;
    for (;;) {
        const QString parent = sync::core::FolderUtilities::GetParentFolderPath(path);
        // "/" is its own parent: the walk ends there as it ends at an empty path.
        if (parent.isEmpty() || parent == path) return true;
        path = parent;
        // value(), not []: a lookup must never add a folder to the tree.
        const FolderConfiguration folder = configTree.folderMap.value(EntryInfoTree::KeyOf(path));
        if (folder.serverFolderId.isEmpty()) continue;
        if (folder.privileges & sync::config::PrivilegeUpload) return true;
        refusingAncestor = path;
        return false;
    }
}

bool LocalConfigTreeDiffer::DetectFileAdded(FileConfiguration& localFile, EntryInfoTree& configTree,
                                            EntryInfoTree&) {
    QString ancestor;
    if (_AncestorAllowsUpload(localFile.serverPath, configTree, ancestor)) return true;
    SYNC_LOG_WARN(
        "Skipping upload of new file %1 since there is no upload privilege in parent or ancestor "
        "folder %2",
        localFile.localPath, ancestor);
    return false;
}

bool LocalConfigTreeDiffer::DetectFolderAdded(FolderConfiguration& folder,
                                              EntryInfoTree& configTree, EntryInfoTree&) {
    QString ancestor;
    if (_AncestorAllowsUpload(folder.serverPath, configTree, ancestor)) return true;
    SYNC_LOG_WARN(
        "Skipping creation of new folder %1 since there is no upload privilege in parent or "
        "ancestor folder %2",
        folder.localPath, ancestor);
    return false;
}

bool LocalConfigTreeDiffer::DetectFileDeleted(FileConfiguration& configFile) {
    if (configFile.privileges & sync::config::PrivilegeDelete) return true;
    SYNC_LOG_WARN("Skipping deletion of file %1 in server since there is no delete privilege",
                  configFile.localPath);
    return false;
}

bool LocalConfigTreeDiffer::DetectFolderDeleted(FolderConfiguration& configFolder) {
    if (configFolder.privileges & sync::config::PrivilegeDelete) return true;
    SYNC_LOG_WARN("Skipping deletion of folder %1 in server since there is no delete privilege",
                  configFolder.localPath);
    return false;
}

}  // namespace syncService
}  // namespace sync
