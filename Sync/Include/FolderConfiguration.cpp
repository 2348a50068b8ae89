#include "FolderConfiguration.h"

#include "SharedText.h"

namespace sync {
namespace config {

FolderConfiguration::FolderConfiguration() : QObject(nullptr) {}

FolderConfiguration::FolderConfiguration(const FolderConfiguration& other) : QObject(nullptr) {
    _CopyMembers(other);
}

FolderConfiguration& FolderConfiguration::operator=(const FolderConfiguration& other) {
    if (this != &other) _CopyMembers(other);
    return *this;
}

FolderConfiguration::~FolderConfiguration() = default;

void FolderConfiguration::_CopyMembers(const FolderConfiguration& o) {
    id = o.id;
    authenticationId = o.authenticationId;
    rootId = o.rootId;
    inheritedId = o.inheritedId;
    name = o.name;
    serverAttribute = o.serverAttribute;
    path = o.path;
    localPath = o.localPath;
    serverPath = o.serverPath;
    parentId = o.parentId;
    lastModified = o.lastModified;
    syncScope = o.syncScope;
    serverCreationFailed = o.serverCreationFailed;
    inheritedValue = o.inheritedValue;
    syncOption = o.syncOption;
    privilegeInfo = o.privilegeInfo;
    privileges = o.privileges;
    serverRootPath = o.serverRootPath;
    serverFolderId = o.serverFolderId;
    properties = o.properties;
    lastSyncTime = o.lastSyncTime;
    lastServerSyncRequestTime = o.lastServerSyncRequestTime;
    syncStatus = o.syncStatus;
    userFlag = o.userFlag;
}

void FolderConfiguration::ShareTextsWith(const FolderConfiguration& o) {
    ShareText(name, o.name);
    ShareText(serverAttribute, o.serverAttribute);
    ShareText(path, o.path);
    ShareText(localPath, o.localPath);
    ShareText(serverPath, o.serverPath);
    ShareText(privilegeInfo, o.privilegeInfo);
    ShareText(serverRootPath, o.serverRootPath);
    ShareText(serverFolderId, o.serverFolderId);
    ShareText(properties, o.properties);
}

bool FolderConfiguration::operator==(const FolderConfiguration& o) const {
    return id == o.id && authenticationId == o.authenticationId && rootId == o.rootId &&
           inheritedId == o.inheritedId && name == o.name && serverAttribute == o.serverAttribute &&
           path == o.path && localPath == o.localPath && serverPath == o.serverPath &&
           parentId == o.parentId && lastModified == o.lastModified && syncScope == o.syncScope &&
           serverCreationFailed == o.serverCreationFailed && inheritedValue == o.inheritedValue &&
           syncOption == o.syncOption && privilegeInfo == o.privilegeInfo &&
           privileges == o.privileges && serverRootPath == o.serverRootPath &&
           serverFolderId == o.serverFolderId && properties == o.properties &&
           lastSyncTime == o.lastSyncTime &&
           lastServerSyncRequestTime == o.lastServerSyncRequestTime && syncStatus == o.syncStatus &&
           userFlag == o.userFlag;
}

}  // namespace config
}  // namespace sync
