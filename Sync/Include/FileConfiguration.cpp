#include "FileConfiguration.h"

#include "SharedText.h"

namespace sync {
namespace config {

void FileConfiguration::_CopyMembers(const FileConfiguration& o) {
    id = o.id;
    folderId = o.folderId;
    rootId = o.rootId;
    name = o.name;
    localPath = o.localPath;
    serverPath = o.serverPath;
    checksum = o.checksum;
    contentType = o.contentType;
    created = o.created;
    lastModified = o.lastModified;
    size = o.size;
    transferDirection = o.transferDirection;
    properties = o.properties;
    lastTransferAttempt = o.lastTransferAttempt;
    inheritedId = o.inheritedId;
    generatedKind = o.generatedKind;
    parentFileId = o.parentFileId;
    privilegeInfo = o.privilegeInfo;
    privileges = o.privileges;
    isGenerated = o.isGenerated;
    serverFileId = o.serverFileId;
    serverChecksum = o.serverChecksum;
    fileLinks = o.fileLinks;
    serverModified = o.serverModified;
    syncStatus = o.syncStatus;
    referencesOnly = o.referencesOnly;
    transferPending = o.transferPending;
    syncStatusSet = o.syncStatusSet;
}

void FileConfiguration::ShareTextsWith(const FileConfiguration& o) {
    ShareText(name, o.name);
    ShareText(localPath, o.localPath);
    ShareText(serverPath, o.serverPath);
    ShareText(checksum, o.checksum);
    ShareText(contentType, o.contentType);
    ShareText(privilegeInfo, o.privilegeInfo);
    ShareText(serverFileId, o.serverFileId);
    ShareText(serverChecksum, o.serverChecksum);
    ShareText(properties, o.properties);
}

bool FileConfiguration::operator==(const FileConfiguration& o) const {
    return id == o.id && folderId == o.folderId && rootId == o.rootId && name == o.name &&
           localPath == o.localPath && serverPath == o.serverPath && checksum == o.checksum &&
           contentType == o.contentType && created == o.created && lastModified == o.lastModified &&
           size == o.size && transferDirection == o.transferDirection &&
           properties == o.properties && lastTransferAttempt == o.lastTransferAttempt &&
           inheritedId == o.inheritedId && generatedKind == o.generatedKind &&
           parentFileId == o.parentFileId && privilegeInfo == o.privilegeInfo &&
           privileges == o.privileges && isGenerated == o.isGenerated &&
           serverFileId == o.serverFileId && serverChecksum == o.serverChecksum &&
           fileLinks == o.fileLinks && serverModified == o.serverModified &&
           syncStatus == o.syncStatus && referencesOnly == o.referencesOnly &&
           transferPending == o.transferPending && syncStatusSet == o.syncStatusSet;
}

}  // namespace config
}  // namespace sync
