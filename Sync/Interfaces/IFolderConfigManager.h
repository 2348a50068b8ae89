#pragma once

#include <QString>
#include <QVector>

#include "FolderConfiguration.h"

namespace sync {
namespace interf {

// Folder records of the configuration database. Lookups that find nothing answer a record
// with id -1. Operations throw sync::database::DatabaseException (a std::runtime_error naming
// the database file) when the database cannot be read; writes answer false when they fail. A
// batch of writes that could not be committed when its TransactionalScope ended is reported
// once, by that exception from the next operation. A root folder record's rootId equals its
// id; reads see the writes of the open transaction.
class IFolderConfigManager {
public:
    virtual ~IFolderConfigManager() = default;
    virtual sync::config::FolderConfiguration GetFolderById(int folderId) = 0;
    // By local path (compared without regard to case) for one account.
    virtual sync::config::FolderConfiguration GetFolderByPath(const QString& localPath,
                                                              int authenticationId) = 0;
    // Every folder record of a root folder, the root's own record included.
    virtual QVector<sync::config::FolderConfiguration> GetFoldersByRootId(int rootId) = 0;
    // Records whose root folder record no longer exists.
    virtual QVector<sync::config::FolderConfiguration> GetFoldersOfMissingRootFolders() = 0;
    // Writes back an existing record; a record with id -1 writes nothing and answers false.
    virtual bool UpdateFolder(const sync::config::FolderConfiguration& folder) = 0;
    // Inserts a record and sets its new id (1 or more) in the argument. A record without a
    // root (rootId -1 and no parent) becomes a root folder: its rootId and inheritedId are
    // set to its new id. So does a root record that is added again (isRoot() with its old
    // id), which keeps it a root under its new id.
    virtual bool AddFolder(sync::config::FolderConfiguration& folder) = 0;
    virtual void RemoveFolder(int folderId) = 0;
    virtual bool DeleteFolderById(int folderId) = 0;
    // All root folder records, in id order.
    virtual QVector<sync::config::FolderConfiguration> GetRootFolders() = 0;
    virtual bool IsAuthenticationInUse(int authenticationId) = 0;
    // Drops cached records.
    virtual void ReleaseMemory() = 0;
    // Deletes a root folder record and every folder and file record that belongs to it.
    virtual bool RemoveRootFolder(int folderId) = 0;
};

}  // namespace interf
}  // namespace sync
