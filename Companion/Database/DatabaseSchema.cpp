#include "DatabaseSchema.h"

namespace sync {
namespace database {

// Times are two columns: <name>_ms (milliseconds since the epoch, NULL for a null time) and
// <name>_zone (0 local time, 1 UTC, 2 + 4 * offset seconds for a fixed offset, or the IANA id
// as text for a named time zone), so that a time comes back with the time spec it was stored
// with. local_path_key is the lower-case local path: lookups by path ignore case.
// AUTOINCREMENT keeps ids of deleted records from being handed out again, because other
// records refer to them (rootId, parentId, parentFileId).
static const char* const kVersion1 = R"SQL(
CREATE TABLE folders (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    authentication_id INTEGER NOT NULL,
    root_id INTEGER NOT NULL,
    inherited_id INTEGER NOT NULL,
    name TEXT NOT NULL,
    server_attribute TEXT NOT NULL,
    path TEXT NOT NULL,
    local_path TEXT NOT NULL,
    local_path_key TEXT NOT NULL,
    server_path TEXT NOT NULL,
    parent_id INTEGER NOT NULL,
    last_modified_ms INTEGER,
    last_modified_zone,
    sync_scope INTEGER NOT NULL,
    server_creation_failed INTEGER NOT NULL,
    inherited_value INTEGER NOT NULL,
    sync_option INTEGER NOT NULL,
    privilege_info TEXT NOT NULL,
    privileges INTEGER NOT NULL,
    server_root_path TEXT NOT NULL,
    server_folder_id TEXT NOT NULL,
    properties BLOB,
    last_sync_time_ms INTEGER,
    last_sync_time_zone,
    last_server_sync_request_time_ms INTEGER,
    last_server_sync_request_time_zone,
    sync_status INTEGER NOT NULL,
    user_flag INTEGER NOT NULL
);
CREATE INDEX folders_by_root ON folders(root_id);
CREATE INDEX folders_by_path ON folders(local_path_key, authentication_id);
CREATE INDEX root_folders_by_account ON folders(authentication_id) WHERE root_id = id;
CREATE INDEX root_folders ON folders(id) WHERE root_id = id;

CREATE TABLE files (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    folder_id INTEGER NOT NULL,
    root_id INTEGER NOT NULL,
    name TEXT NOT NULL,
    local_path TEXT NOT NULL,
    local_path_key TEXT NOT NULL,
    server_path TEXT NOT NULL,
    checksum TEXT NOT NULL,
    content_type TEXT NOT NULL,
    created_ms INTEGER,
    created_zone,
    last_modified_ms INTEGER,
    last_modified_zone,
    size INTEGER NOT NULL,
    transfer_direction INTEGER NOT NULL,
    properties BLOB,
    last_transfer_attempt_ms INTEGER,
    last_transfer_attempt_zone,
    inherited_id INTEGER NOT NULL,
    generated_kind INTEGER NOT NULL,
    parent_file_id INTEGER NOT NULL,
    privilege_info TEXT NOT NULL,
    privileges INTEGER NOT NULL,
    is_generated INTEGER NOT NULL,
    server_file_id TEXT NOT NULL,
    server_checksum TEXT NOT NULL,
    file_links BLOB,
    server_modified_ms INTEGER,
    server_modified_zone,
    sync_status INTEGER NOT NULL,
    references_only INTEGER NOT NULL,
    transfer_pending INTEGER NOT NULL,
    sync_status_set INTEGER NOT NULL
);
CREATE INDEX files_by_root ON files(root_id, is_generated);
CREATE INDEX files_by_path ON files(local_path_key);
CREATE INDEX generated_files_by_kind ON files(generated_kind) WHERE is_generated <> 0;

CREATE TABLE accounts (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    name TEXT NOT NULL,
    kind TEXT NOT NULL,
    base_url TEXT NOT NULL,
    user_name TEXT NOT NULL,
    settings BLOB
);

CREATE TABLE schedule (
    id INTEGER PRIMARY KEY CHECK (id = 1),
    sync_time_ms INTEGER,
    sync_time_zone,
    last_changed_ms INTEGER,
    last_changed_zone,
    sync_type INTEGER NOT NULL,
    sync_interval INTEGER NOT NULL
);

CREATE TABLE settings (
    key TEXT PRIMARY KEY NOT NULL,
    value
) WITHOUT ROWID;
)SQL";

// Release 2 keeps the user-facing action log in the same file, so the host reads it from there.
// details_kind is NULL for an entry without details; http_code is NULL unless the entry reports
// an HTTP failure.
static const char* const kVersion2 = R"SQL(
CREATE TABLE action_log (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    time_ms INTEGER NOT NULL,
    type INTEGER NOT NULL,
    local_path TEXT,
    name TEXT,
    http_code INTEGER,
    url TEXT,
    details_kind INTEGER,
    details_arguments BLOB
);
CREATE INDEX action_log_by_time ON action_log(time_ms);
)SQL";

const std::vector<MigrationStep>& DatabaseSchema::Migrations() {
    static const std::vector<MigrationStep> steps = {
        {1, kVersion1},
        {2, kVersion2},
    };
    return steps;
}

int DatabaseSchema::LatestVersion() {
    return Migrations().back().version;
}

}  // namespace database
}  // namespace sync
