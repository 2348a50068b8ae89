#pragma once

#include <QDateTime>
#include <QMap>
#include <QObject>
#include <QString>

#include "SyncEnums.h"

namespace sync {
namespace config {

// One folder as the database, the disk or the server describes it. A value record:
// it derives from QObject only so that it can travel like the other records.
class FolderConfiguration : public QObject {
public:
    FolderConfiguration();
    FolderConfiguration(const FolderConfiguration& other);
    FolderConfiguration& operator=(const FolderConfiguration& other);
    ~FolderConfiguration() override;

    int getId() const { return id; }
    int getAuthenticationId() const { return authenticationId; }
    QString getServerFolderId() const { return serverFolderId; }
    void setServerFolderId(const QString& value) { serverFolderId = value; }
    int getSyncOption() const { return syncOption; }
    void setSyncOption(int value) { syncOption = value; }
    bool hasSyncOption(FolderSyncOption option) const { return (syncOption & option) != 0; }
    FolderSynchronizationStatus getSyncStatus() const { return syncStatus; }
    void setSyncStatus(FolderSynchronizationStatus value) { syncStatus = value; }
    QDateTime getLastServerSyncRequestTime() const { return lastServerSyncRequestTime; }
    void setLastServerSyncRequestTime(const QDateTime& value) { lastServerSyncRequestTime = value; }
    QDateTime getLastSyncTime() const { return lastSyncTime; }
    void setLastSyncTime(const QDateTime& value) { lastSyncTime = value; }
    // A configured root folder is its own root.
    bool isRoot() const { return id >= 0 && rootId == id; }

    bool operator==(const FolderConfiguration& o) const;
    bool operator!=(const FolderConfiguration& o) const { return !(*this == o); }

    // Takes other's string for each text that is equal here, so that both records share one
    // copy; every field reads exactly as before.
    void ShareTextsWith(const FolderConfiguration& other);

    int id = -1;
    int authenticationId = -1;
    int rootId = -1;
    int inheritedId = -1;
    QString name;
    QString serverAttribute;  // attribute text the server reports for the folder
    QString path;
    QString localPath;
    QString serverPath;
    int parentId = -1;
    QDateTime lastModified;
    int syncScope = 1;
    int serverCreationFailed = 0;  // 1 while creating the folder on the server has failed
    int inheritedValue = 0;        // kind of location of the folder on this machine
    int syncOption = 0;
    QString privilegeInfo;
    int privileges = PrivilegeAll;
    QString serverRootPath;  // the server's own root in the server's name space
    QString serverFolderId;
    QMap<QString, QString> properties;
    QDateTime lastSyncTime;
    QDateTime lastServerSyncRequestTime;
    FolderSynchronizationStatus syncStatus = FolderSynchronizationStatus::Synchronizing;
    bool userFlag = false;  // kept for the host; the engine does not read it

private:
    void _CopyMembers(const FolderConfiguration& o);
};

}  // namespace config
}  // namespace sync
