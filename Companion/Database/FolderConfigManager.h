#pragma once

#include <memory>

#include "ConfigDatabase.h"
#include "IFolderConfigManager.h"

namespace sync {
namespace database {

// Folder records in the configuration database.
//
// AddFolder assigns a new id and ignores the id the record came with. A record that is a root
// folder (rootId -1 and no parent, or a root record being added again, isRoot()) gets its new
// id as rootId and inheritedId; a record with rootId -1 and a parent takes its parent's rootId.
// Everything else is stored as given.
//
// Writes that fail answer false (and log why); reads that fail throw DatabaseException naming
// the file. Every operation but ReleaseMemory first reports, by that exception and once, a
// batch that a TransactionalScope lost when its commit failed at the scope's end. AddFolder and
// RemoveRootFolder write several statements; one that fails undoes the others.
class FolderConfigManager : public sync::interf::IFolderConfigManager {
public:
    explicit FolderConfigManager(std::shared_ptr<ConfigDatabase> database);
    ~FolderConfigManager() override;

    sync::config::FolderConfiguration GetFolderById(int folderId) override;
    sync::config::FolderConfiguration GetFolderByPath(const QString& localPath,
                                                      int authenticationId) override;
    QVector<sync::config::FolderConfiguration> GetFoldersByRootId(int rootId) override;
    QVector<sync::config::FolderConfiguration> GetFoldersOfMissingRootFolders() override;
    bool UpdateFolder(const sync::config::FolderConfiguration& folder) override;
    bool AddFolder(sync::config::FolderConfiguration& folder) override;
    void RemoveFolder(int folderId) override;
    bool DeleteFolderById(int folderId) override;
    QVector<sync::config::FolderConfiguration> GetRootFolders() override;
    bool IsAuthenticationInUse(int authenticationId) override;
    // Returns the connection's cache memory; no records are cached.
    void ReleaseMemory() override;
    bool RemoveRootFolder(int folderId) override;

private:
    std::shared_ptr<ConfigDatabase> _database;
};

}  // namespace database
}  // namespace sync
