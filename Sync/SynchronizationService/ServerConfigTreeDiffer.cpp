#include "ServerConfigTreeDiffer.h"

#include "PathHelpers.h"
#include "SyncCodes.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;

namespace {

const QString kVersion = QStringLiteral("version");
const QString kVersionId = QStringLiteral("versionId");

// A missing version is -1 (unknown); text that is no decimal number is 0.
int VersionOf(const FileConfiguration& file) {
    const auto it = file.properties.constFind(kVersion);
    if (it == file.properties.constEnd()) return -1;
    bool ok = false;
    const int version = it.value().toInt(&ok, 10);
    return ok ? version : 0;
}

QString HashOrVersionIdOf(const FileConfiguration& file) {
    if (!file.serverChecksum.isEmpty()) return file.serverChecksum;
    return file.properties.value(kVersionId);
}

bool ContentDiffers(const FileConfiguration& configFile, const FileConfiguration& serverFile) {
    if (configFile.size != serverFile.size) return true;
    if (!configFile.serverChecksum.isEmpty() && !serverFile.serverChecksum.isEmpty())
        return configFile.serverChecksum != serverFile.serverChecksum;

    const int configVersion = VersionOf(configFile);
    const int serverVersion = VersionOf(serverFile);
    if (configVersion >= 0 && serverVersion >= 0) return configVersion != serverVersion;

    // Without usable versions the server hash, or else the version id, decides; servers do
    // not agree on the letter case of such identifiers.
    return HashOrVersionIdOf(configFile)
               .compare(HashOrVersionIdOf(serverFile), Qt::CaseInsensitive) != 0;
}

}  // namespace

bool ServerConfigTreeDiffer::IsFileContentModified(FileConfiguration& configFile,
                                                   FileConfiguration& serverFile) {
    return ContentDiffers(configFile, serverFile);
}

bool ServerConfigTreeDiffer::IsFileSurelyUnchanged(const FileConfiguration& configFile,
                                                   const FileConfiguration& serverFile) const {
    // The content rule finds no change, and no references are left to download.
    if (!configFile.serverFileId.isEmpty() &&
        configFile.syncStatus == FileSynchronizationStatus::OutOfSync &&
        configFile.transferDirection == sync::config::TransferDownload)
        return false;
    return !ContentDiffers(configFile, serverFile);
}

bool ServerConfigTreeDiffer::DetectFileContentModified(FileConfiguration& configFile,
                                                       FileConfiguration& serverFile) {
    if (!IsFileContentModified(configFile, serverFile)) return false;
    // Replacing a file another program is writing would lose its work; try next cycle.
    if (sync::core::IsFileLockedForWrite(serverFile.localPath)) {
        SYNC_LOG_WARN(
            "Skipping download of modified file %1 since local file %2 is currently locked for "
            "write",
            serverFile.serverPath, serverFile.localPath);
        return false;
    }
    if (serverFile.privileges & sync::config::PrivilegeDownload) return true;
    SYNC_LOG_WARN("Skipping download of modified file %1 since there is no download privilege",
                  serverFile.serverPath);
    return false;
}

bool ServerConfigTreeDiffer::DetectFileModified(FileConfiguration& configFile,
                                                FileConfiguration& serverFile) {
    bool modified = DetectFileContentModified(configFile, serverFile);
    int referencesOnly = 0;
    // The content is in step but the last download ended out of sync: the references still
    // have to come down.
    if (!modified && !configFile.serverFileId.isEmpty() &&
        configFile.syncStatus == FileSynchronizationStatus::OutOfSync &&
        configFile.transferDirection == sync::config::TransferDownload) {
        referencesOnly = 1;
        modified = true;
    }
    configFile.referencesOnly = referencesOnly;
    serverFile.referencesOnly = referencesOnly;
    return modified;
}

bool ServerConfigTreeDiffer::DetectFileAdded(FileConfiguration& serverFile, EntryInfoTree&,
                                             EntryInfoTree&) {
    return (serverFile.privileges & sync::config::PrivilegeDownload) != 0;
}

bool ServerConfigTreeDiffer::DetectFileDeleted(FileConfiguration&) {
    return true;
}

bool ServerConfigTreeDiffer::DetectFolderAdded(FolderConfiguration&, EntryInfoTree&,
                                               EntryInfoTree&) {
    return true;
}

bool ServerConfigTreeDiffer::DetectFolderDeleted(FolderConfiguration&) {
    return true;
}

}  // namespace syncService
}  // namespace sync
