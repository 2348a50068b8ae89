#include "FolderConfigManager.h"

#include "ConfigDatabaseImpl.h"
#include "SyncLog.h"

using sync::config::FolderConfiguration;

namespace sync {
namespace database {

namespace {

#define FOLDER_SELECT "SELECT id, " SYNC_DB_FOLDER_COLUMNS " FROM folders "

const char* const kById = FOLDER_SELECT "WHERE id = ?1";
const char* const kByPath =
    FOLDER_SELECT "WHERE local_path_key = ?1 AND authentication_id = ?2 ORDER BY id LIMIT 1";
const char* const kByRoot = FOLDER_SELECT "WHERE root_id = ?1 ORDER BY id";
// A record belongs to a root folder when its rootId or its inheritedId names a root record;
// only records with neither are orphans, so a record with one damaged link is never deleted.
const char* const kOrphans = FOLDER_SELECT
    "WHERE NOT EXISTS (SELECT 1 FROM folders r WHERE r.id = folders.root_id AND r.root_id = r.id) "
    "AND NOT EXISTS (SELECT 1 FROM folders r WHERE r.id = folders.inherited_id "
    "AND r.root_id = r.id) ORDER BY id";
const char* const kRoots = FOLDER_SELECT "WHERE root_id = id ORDER BY id";
const char* const kInsert = "INSERT INTO folders (" SYNC_DB_FOLDER_COLUMNS
                            ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, "
                            "?14, ?15, ?16, ?17, ?18, ?19, ?20, ?21, ?22, ?23, ?24, ?25, ?26, ?27)";
const char* const kUpdate =
    "UPDATE folders SET authentication_id = ?1, root_id = ?2, inherited_id = ?3, name = ?4, "
    "server_attribute = ?5, path = ?6, local_path = ?7, local_path_key = ?8, server_path = ?9, "
    "parent_id = ?10, last_modified_ms = ?11, last_modified_zone = ?12, sync_scope = ?13, "
    "server_creation_failed = ?14, inherited_value = ?15, sync_option = ?16, "
    "privilege_info = ?17, privileges = ?18, server_root_path = ?19, server_folder_id = ?20, "
    "properties = ?21, last_sync_time_ms = ?22, last_sync_time_zone = ?23, "
    "last_server_sync_request_time_ms = ?24, last_server_sync_request_time_zone = ?25, "
    "sync_status = ?26, user_flag = ?27 WHERE id = ?28";
const char* const kMakeRoot = "UPDATE folders SET root_id = ?1, inherited_id = ?1 WHERE id = ?1";
const char* const kRootIdOf = "SELECT root_id FROM folders WHERE id = ?1";
const char* const kDelete = "DELETE FROM folders WHERE id = ?1";
const char* const kExists = "SELECT 1 FROM folders WHERE id = ?1";
const char* const kDeleteRootFolders = "DELETE FROM folders WHERE root_id = ?1 OR id = ?1";
const char* const kDeleteRootFiles = "DELETE FROM files WHERE root_id = ?1";
const char* const kAccountInUse =
    "SELECT EXISTS (SELECT 1 FROM folders WHERE authentication_id = ?1 AND root_id = id)";

QVector<FolderConfiguration> ReadAll(Query& q) {
    QVector<FolderConfiguration> folders;
    while (q.Step()) folders.append(RecordCodec::ReadFolder(q));
    return folders;
}

}  // namespace

FolderConfigManager::FolderConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

FolderConfigManager::~FolderConfigManager() = default;

FolderConfiguration FolderConfigManager::GetFolderById(int folderId) {
    Query q(_database->impl().Checked(), kById);
    q.Bind(1, folderId);
    return q.Step() ? RecordCodec::ReadFolder(q) : FolderConfiguration();
}

FolderConfiguration FolderConfigManager::GetFolderByPath(const QString& localPath,
                                                         int authenticationId) {
    Query q(_database->impl().Checked(), kByPath);
    q.Bind(1, RecordCodec::PathKey(localPath));
    q.Bind(2, authenticationId);
    return q.Step() ? RecordCodec::ReadFolder(q) : FolderConfiguration();
}

QVector<FolderConfiguration> FolderConfigManager::GetFoldersByRootId(int rootId) {
    Query q(_database->impl().Checked(), kByRoot);
    q.Bind(1, rootId);
    return ReadAll(q);
}

QVector<FolderConfiguration> FolderConfigManager::GetFoldersOfMissingRootFolders() {
    Query q(_database->impl().Checked(), kOrphans);
    return ReadAll(q);
}

bool FolderConfigManager::UpdateFolder(const FolderConfiguration& folder) {
    auto& db = _database->impl().Checked();
    if (folder.id < 0) return false;
    try {
        Query q(db, kUpdate);
        RecordCodec::BindFolder(q, folder);
        q.Bind(RecordCodec::FolderValueCount + 1, folder.id);
        q.Run();
        return q.Changes() > 0;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to update folder record %1: %2", folder.localPath, e.what());
        return false;
    }
}

bool FolderConfigManager::AddFolder(FolderConfiguration& folder) {
    auto& db = _database->impl().Checked();
    try {
        const bool newRoot = folder.isRoot() || (folder.rootId == -1 && folder.parentId == -1);
        FolderConfiguration stored = folder;
        if (!newRoot && stored.rootId == -1) {
            Query parent(db, kRootIdOf);
            parent.Bind(1, stored.parentId);
            if (parent.Step()) stored.rootId = parent.Int(0);
        }
        OperationSavepoint savepoint(db);
        int id = -1;
        {
            Query q(db, kInsert);
            RecordCodec::BindFolder(q, stored);
            q.Run();
            id = static_cast<int>(q.LastInsertId());
        }
        if (newRoot) {
            Query q(db, kMakeRoot);
            q.Bind(1, id);
            q.Run();
            stored.rootId = id;
            stored.inheritedId = id;
        }
        savepoint.Release();
        stored.id = id;
        folder = stored;
        return true;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to add folder record %1: %2", folder.localPath, e.what());
        return false;
    }
}

void FolderConfigManager::RemoveFolder(int folderId) {
    Query q(_database->impl().Checked(), kDelete);
    q.Bind(1, folderId);
    q.Run();
}

bool FolderConfigManager::DeleteFolderById(int folderId) {
    auto& db = _database->impl().Checked();
    try {
        Query q(db, kDelete);
        q.Bind(1, folderId);
        q.Run();
        return q.Changes() > 0;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to delete folder record %1: %2", folderId, e.what());
        return false;
    }
}

QVector<FolderConfiguration> FolderConfigManager::GetRootFolders() {
    Query q(_database->impl().Checked(), kRoots);
    return ReadAll(q);
}

bool FolderConfigManager::IsAuthenticationInUse(int authenticationId) {
    Query q(_database->impl().Checked(), kAccountInUse);
    q.Bind(1, authenticationId);
    return q.Step() && q.Int(0) != 0;
}

void FolderConfigManager::ReleaseMemory() {
    // Called on every way out of a cycle, also while an exception unwinds: must not throw, and
    // leaves a lost batch for the next cycle to report.
    try {
        _database->impl().Exec("PRAGMA shrink_memory");
    } catch (const std::exception& e) {
        SYNC_LOG_WARN("Failed to release database memory: %1", e.what());
    }
}

bool FolderConfigManager::RemoveRootFolder(int folderId) {
    auto& db = _database->impl().Checked();
    try {
        {
            Query exists(db, kExists);
            exists.Bind(1, folderId);
            if (!exists.Step()) return false;
        }
        OperationSavepoint savepoint(db);
        for (const char* sql : {kDeleteRootFiles, kDeleteRootFolders}) {
            Query q(db, sql);
            q.Bind(1, folderId);
            q.Run();
        }
        savepoint.Release();
        return true;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to remove root folder record %1: %2", folderId, e.what());
        return false;
    }
}

}  // namespace database
}  // namespace sync
