#include "FileConfigManager.h"

#include "ConfigDatabaseImpl.h"

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;

namespace sync {
namespace database {

namespace {

// Column order of every file query; ReadFile and BindFile follow it. The f. prefix lets the
// same list serve the query that joins the root folder.
#define FILE_VALUE_COLUMNS(p)                                                                 \
    p "folder_id, " p "root_id, " p "name, " p "local_path, " p "local_path_key, " p          \
      "server_path, " p "checksum, " p "content_type, " p "created_ms, " p "created_zone, " p \
      "last_modified_ms, " p "last_modified_zone, " p "size, " p "transfer_direction, " p     \
      "properties, " p "last_transfer_attempt_ms, " p "last_transfer_attempt_zone, " p        \
      "inherited_id, " p "generated_kind, " p "parent_file_id, " p "privilege_info, " p       \
      "privileges, " p "is_generated, " p "server_file_id, " p "server_checksum, " p          \
      "file_links, " p "server_modified_ms, " p "server_modified_zone, " p "sync_status, " p  \
      "references_only, " p "transfer_pending, " p "sync_status_set"
#define FILE_SELECT "SELECT f.id, " FILE_VALUE_COLUMNS("f.") " FROM files f "
constexpr int kFileValueCount = 32;

const char* const kById = FILE_SELECT "WHERE f.id = ?1";
const char* const kGeneratedById = FILE_SELECT "WHERE f.id = ?1 AND f.is_generated <> 0";
// As for folders: orphans are the records whose rootId and inheritedId both name no root record.
const char* const kOrphans = FILE_SELECT
    "WHERE NOT EXISTS (SELECT 1 FROM folders r WHERE r.id = f.root_id AND r.root_id = r.id) "
    "AND NOT EXISTS (SELECT 1 FROM folders r WHERE r.id = f.inherited_id AND r.root_id = r.id) "
    "ORDER BY f.id";
const char* const kByPath = FILE_SELECT
    "JOIN folders r ON r.id = f.root_id "
    "WHERE f.local_path_key = ?1 AND r.authentication_id = ?2 ORDER BY f.id LIMIT 1";
const char* const kByRoot = FILE_SELECT "WHERE f.root_id = ?1 AND f.is_generated = 0 ORDER BY f.id";
const char* const kAllByRoot = FILE_SELECT "WHERE f.root_id = ?1 ORDER BY f.id";
const char* const kGeneratedByRoot =
    FILE_SELECT "WHERE f.root_id = ?1 AND f.is_generated <> 0 ORDER BY f.id";
const char* const kGeneratedByKind =
    FILE_SELECT "WHERE f.generated_kind = ?1 AND f.is_generated <> 0 ORDER BY f.id";
const char* const kInsert =
    "INSERT INTO files (" FILE_VALUE_COLUMNS("") ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, "
    "?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17, ?18, ?19, ?20, ?21, ?22, ?23, ?24, ?25, ?26, ?27, "
    "?28, ?29, ?30, ?31, ?32)";
const char* const kUpdate =
    "UPDATE files SET folder_id = ?1, root_id = ?2, name = ?3, local_path = ?4, "
    "local_path_key = ?5, server_path = ?6, checksum = ?7, content_type = ?8, created_ms = ?9, "
    "created_zone = ?10, last_modified_ms = ?11, last_modified_zone = ?12, size = ?13, "
    "transfer_direction = ?14, properties = ?15, last_transfer_attempt_ms = ?16, "
    "last_transfer_attempt_zone = ?17, inherited_id = ?18, generated_kind = ?19, "
    "parent_file_id = ?20, privilege_info = ?21, privileges = ?22, is_generated = ?23, "
    "server_file_id = ?24, server_checksum = ?25, file_links = ?26, server_modified_ms = ?27, "
    "server_modified_zone = ?28, sync_status = ?29, references_only = ?30, "
    "transfer_pending = ?31, sync_status_set = ?32 WHERE id = ?33";
const char* const kDelete = "DELETE FROM files WHERE id = ?1";
const char* const kCountByRoot =
    "SELECT count(*) FROM files WHERE root_id = ?1 AND (?2 OR is_generated = 0)";
const char* const kDeleteGenerated = "DELETE FROM files WHERE id = ?1 AND is_generated <> 0";

void ReadFile(const Query& q, FileConfiguration& f) {
    f.id = q.Int(0);
    f.folderId = q.Int(1);
    f.rootId = q.Int(2);
    f.name = q.Text(3);
    f.localPath = q.Text(4);
    // 5 is the lookup key
    f.serverPath = q.Text(6);
    f.checksum = q.Text(7);
    f.contentType = q.Text(8);
    f.created = q.Time(9);
    f.lastModified = q.Time(11);
    f.size = q.Int64(13);
    f.transferDirection = q.Int(14);
    f.properties = codec::DecodeProperties(q.Blob(15));
    f.lastTransferAttempt = q.Time(16);
    f.inheritedId = q.Int(18);
    f.generatedKind = q.Int(19);
    f.parentFileId = q.Int(20);
    f.privilegeInfo = q.Text(21);
    f.privileges = q.Int(22);
    f.isGenerated = q.Int(23);
    f.serverFileId = q.Text(24);
    f.serverChecksum = q.Text(25);
    f.fileLinks = codec::DecodeFileLinks(q.Blob(26));
    f.serverModified = q.Time(27);
    f.syncStatus = static_cast<FileSynchronizationStatus>(q.Int(29));
    f.referencesOnly = q.Int(30);
    f.transferPending = q.Int(31) != 0;
    f.syncStatusSet = q.Int(32) != 0;
}

FileConfiguration ReadFile(const Query& q) {
    FileConfiguration f;
    ReadFile(q, f);
    return f;
}

void BindFile(Query& q, const FileConfiguration& f) {
    q.Bind(1, f.folderId);
    q.Bind(2, f.rootId);
    q.Bind(3, f.name);
    q.Bind(4, f.localPath);
    q.Bind(5, codec::PathKey(f.localPath));
    q.Bind(6, f.serverPath);
    q.Bind(7, f.checksum);
    q.Bind(8, f.contentType);
    q.BindTime(9, f.created);
    q.BindTime(11, f.lastModified);
    q.Bind(13, static_cast<qint64>(f.size));
    q.Bind(14, f.transferDirection);
    q.BindBlob(15, codec::EncodeProperties(f.properties));
    q.BindTime(16, f.lastTransferAttempt);
    q.Bind(18, f.inheritedId);
    q.Bind(19, f.generatedKind);
    q.Bind(20, f.parentFileId);
    q.Bind(21, f.privilegeInfo);
    q.Bind(22, f.privileges);
    q.Bind(23, f.isGenerated);
    q.Bind(24, f.serverFileId);
    q.Bind(25, f.serverChecksum);
    q.BindBlob(26, codec::EncodeFileLinks(f.fileLinks));
    q.BindTime(27, f.serverModified);
    q.Bind(29, static_cast<int>(f.syncStatus));
    q.Bind(30, f.referencesOnly);
    q.Bind(31, f.transferPending);
    q.Bind(32, f.syncStatusSet);
}

// Records are filled in place: a populated record is expensive to copy.
QVector<FileConfiguration> ReadAll(Query& q, int expected = 0) {
    QVector<FileConfiguration> files;
    files.reserve(expected);
    while (q.Step()) {
        files.append(FileConfiguration());
        ReadFile(q, files.last());
    }
    return files;
}

}  // namespace

FileConfigManager::FileConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

FileConfigManager::~FileConfigManager() = default;

FileConfiguration FileConfigManager::GetFileById(int fileId) {
    Query q(_database->impl(), kById);
    q.Bind(1, fileId);
    return q.Step() ? ReadFile(q) : FileConfiguration();
}

FileConfiguration FileConfigManager::GetGeneratedFileById(int fileId) {
    Query q(_database->impl(), kGeneratedById);
    q.Bind(1, fileId);
    return q.Step() ? ReadFile(q) : FileConfiguration();
}

QVector<FileConfiguration> FileConfigManager::GetFilesOfMissingRootFolders() {
    Query q(_database->impl(), kOrphans);
    return ReadAll(q);
}

FileConfiguration FileConfigManager::GetFileByPath(const QString& localPath, int authenticationId) {
    Query q(_database->impl(), kByPath);
    q.Bind(1, codec::PathKey(localPath));
    q.Bind(2, authenticationId);
    return q.Step() ? ReadFile(q) : FileConfiguration();
}

QVector<FileConfiguration> FileConfigManager::GetFilesByRootId(int rootId, bool generatedToo) {
    int expected = 0;
    {
        Query count(_database->impl(), kCountByRoot);
        count.Bind(1, rootId);
        count.Bind(2, generatedToo);
        if (count.Step()) expected = count.Int(0);
    }
    Query q(_database->impl(), generatedToo ? kAllByRoot : kByRoot);
    q.Bind(1, rootId);
    return ReadAll(q, expected);
}

QVector<FileConfiguration> FileConfigManager::GetGeneratedFilesByRootId(int rootId, bool) {
    Query q(_database->impl(), kGeneratedByRoot);
    q.Bind(1, rootId);
    return ReadAll(q);
}

QVector<FileConfiguration> FileConfigManager::GetGeneratedFilesByKind(int kind) {
    Query q(_database->impl(), kGeneratedByKind);
    q.Bind(1, kind);
    return ReadAll(q);
}

bool FileConfigManager::UpdateFile(const FileConfiguration& file) {
    if (file.id < 0) return false;
    Query q(_database->impl(), kUpdate);
    BindFile(q, file);
    q.Bind(kFileValueCount + 1, file.id);
    q.Run();
    return q.Changes() > 0;
}

bool FileConfigManager::AddFile(FileConfiguration& file) {
    Query q(_database->impl(), kInsert);
    BindFile(q, file);
    q.Run();
    file.id = static_cast<int>(q.LastInsertId());
    return true;
}

void FileConfigManager::RemoveFile(int fileId) {
    Query q(_database->impl(), kDelete);
    q.Bind(1, fileId);
    q.Run();
}

void FileConfigManager::RemoveGeneratedFileById(int fileId) {
    Query q(_database->impl(), kDeleteGenerated);
    q.Bind(1, fileId);
    q.Run();
}

void FileConfigManager::RemoveGeneratedFile(int fileId) {
    RemoveGeneratedFileById(fileId);
}

}  // namespace database
}  // namespace sync
