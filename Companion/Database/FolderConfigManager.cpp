#include "FolderConfigManager.h"

#include "ConfigDatabaseImpl.h"
#include "SyncLog.h"

using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace sync {
namespace database {

namespace {

// Column order of every folder query; ReadFolder and BindFolder follow it.
#define FOLDER_VALUE_COLUMNS                                                                      \
    "authentication_id, root_id, inherited_id, name, server_attribute, path, local_path, "        \
    "local_path_key, server_path, parent_id, last_modified_ms, last_modified_zone, "              \
    "sync_scope, server_creation_failed, inherited_value, sync_option, privilege_info, "          \
    "privileges, server_root_path, server_folder_id, properties, last_sync_time_ms, "             \
    "last_sync_time_zone, last_server_sync_request_time_ms, last_server_sync_request_time_zone, " \
    "sync_status, user_flag"
#define FOLDER_SELECT "SELECT id, " FOLDER_VALUE_COLUMNS " FROM folders "
constexpr int kFolderValueCount = 27;

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
const char* const kInsert = "INSERT INTO folders (" FOLDER_VALUE_COLUMNS
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

FolderConfiguration ReadFolder(const Query& q) {
    FolderConfiguration f;
    f.id = q.Int(0);
    f.authenticationId = q.Int(1);
    f.rootId = q.Int(2);
    f.inheritedId = q.Int(3);
    f.name = q.Text(4);
    f.serverAttribute = q.Text(5);
    f.path = q.Text(6);
    f.localPath = q.Text(7);
    // 8 is the lookup key
    f.serverPath = q.Text(9);
    f.parentId = q.Int(10);
    f.lastModified = q.Time(11);
    f.syncScope = q.Int(13);
    f.serverCreationFailed = q.Int(14);
    f.inheritedValue = q.Int(15);
    f.syncOption = q.Int(16);
    f.privilegeInfo = q.Text(17);
    f.privileges = q.Int(18);
    f.serverRootPath = q.Text(19);
    f.serverFolderId = q.Text(20);
    f.properties = codec::DecodeProperties(q.Blob(21));
    f.lastSyncTime = q.Time(22);
    f.lastServerSyncRequestTime = q.Time(24);
    f.syncStatus = static_cast<FolderSynchronizationStatus>(q.Int(26));
    f.userFlag = q.Int(27) != 0;
    return f;
}

void BindFolder(Query& q, const FolderConfiguration& f) {
    q.Bind(1, f.authenticationId);
    q.Bind(2, f.rootId);
    q.Bind(3, f.inheritedId);
    q.Bind(4, f.name);
    q.Bind(5, f.serverAttribute);
    q.Bind(6, f.path);
    q.Bind(7, f.localPath);
    q.Bind(8, codec::PathKey(f.localPath));
    q.Bind(9, f.serverPath);
    q.Bind(10, f.parentId);
    q.BindTime(11, f.lastModified);
    q.Bind(13, f.syncScope);
    q.Bind(14, f.serverCreationFailed);
    q.Bind(15, f.inheritedValue);
    q.Bind(16, f.syncOption);
    q.Bind(17, f.privilegeInfo);
    q.Bind(18, f.privileges);
    q.Bind(19, f.serverRootPath);
    q.Bind(20, f.serverFolderId);
    q.BindBlob(21, codec::EncodeProperties(f.properties));
    q.BindTime(22, f.lastSyncTime);
    q.BindTime(24, f.lastServerSyncRequestTime);
    q.Bind(26, static_cast<int>(f.syncStatus));
    q.Bind(27, f.userFlag);
}

QVector<FolderConfiguration> ReadAll(Query& q) {
    QVector<FolderConfiguration> folders;
    while (q.Step()) folders.append(ReadFolder(q));
    return folders;
}

}  // namespace

FolderConfigManager::FolderConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

FolderConfigManager::~FolderConfigManager() = default;

FolderConfiguration FolderConfigManager::GetFolderById(int folderId) {
    Query q(_database->impl(), kById);
    q.Bind(1, folderId);
    return q.Step() ? ReadFolder(q) : FolderConfiguration();
}

FolderConfiguration FolderConfigManager::GetFolderByPath(const QString& localPath,
                                                         int authenticationId) {
    Query q(_database->impl(), kByPath);
    q.Bind(1, codec::PathKey(localPath));
    q.Bind(2, authenticationId);
    return q.Step() ? ReadFolder(q) : FolderConfiguration();
}

QVector<FolderConfiguration> FolderConfigManager::GetFoldersByRootId(int rootId) {
    Query q(_database->impl(), kByRoot);
    q.Bind(1, rootId);
    return ReadAll(q);
}

QVector<FolderConfiguration> FolderConfigManager::GetFoldersOfMissingRootFolders() {
    Query q(_database->impl(), kOrphans);
    return ReadAll(q);
}

bool FolderConfigManager::UpdateFolder(const FolderConfiguration& folder) {
    if (folder.id < 0) return false;
    try {
        Query q(_database->impl(), kUpdate);
        BindFolder(q, folder);
        q.Bind(kFolderValueCount + 1, folder.id);
        q.Run();
        return q.Changes() > 0;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to update folder record %1: %2", folder.localPath, e.what());
        return false;
    }
}

bool FolderConfigManager::AddFolder(FolderConfiguration& folder) {
    auto& impl = _database->impl();
    try {
        const bool newRoot = folder.isRoot() || (folder.rootId == -1 && folder.parentId == -1);
        FolderConfiguration stored = folder;
        if (!newRoot && stored.rootId == -1) {
            Query parent(impl, kRootIdOf);
            parent.Bind(1, stored.parentId);
            if (parent.Step()) stored.rootId = parent.Int(0);
        }
        OperationSavepoint savepoint(impl);
        int id = -1;
        {
            Query q(impl, kInsert);
            BindFolder(q, stored);
            q.Run();
            id = static_cast<int>(q.LastInsertId());
        }
        if (newRoot) {
            Query q(impl, kMakeRoot);
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
    Query q(_database->impl(), kDelete);
    q.Bind(1, folderId);
    q.Run();
}

bool FolderConfigManager::DeleteFolderById(int folderId) {
    try {
        Query q(_database->impl(), kDelete);
        q.Bind(1, folderId);
        q.Run();
        return q.Changes() > 0;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to delete folder record %1: %2", folderId, e.what());
        return false;
    }
}

QVector<FolderConfiguration> FolderConfigManager::GetRootFolders() {
    Query q(_database->impl(), kRoots);
    return ReadAll(q);
}

bool FolderConfigManager::IsAuthenticationInUse(int authenticationId) {
    Query q(_database->impl(), kAccountInUse);
    q.Bind(1, authenticationId);
    return q.Step() && q.Int(0) != 0;
}

void FolderConfigManager::ReleaseMemory() {
    sqlite3_db_release_memory(_database->impl().Handle());
}

bool FolderConfigManager::RemoveRootFolder(int folderId) {
    auto& impl = _database->impl();
    try {
        {
            Query exists(impl, kExists);
            exists.Bind(1, folderId);
            if (!exists.Step()) return false;
        }
        OperationSavepoint savepoint(impl);
        for (const char* sql : {kDeleteRootFiles, kDeleteRootFolders}) {
            Query q(impl, sql);
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
