#include "FileConfigManager.h"

#include <QSet>
#include <exception>
#include <limits>
#include <thread>

#include "ConfigDatabaseImpl.h"
#include "EntryInfoTree.h"

using sync::config::FileConfiguration;
using sync::syncService::EntryInfoTree;

namespace sync {
namespace database {

namespace {

#define FILE_SELECT "SELECT f.id, " SYNC_DB_FILE_COLUMNS("f.") " FROM files f "

const char* const kById = FILE_SELECT "WHERE f.id = ?1";
const char* const kGeneratedById = FILE_SELECT "WHERE f.id = ?1 AND f.is_generated <> 0";
// As for folders: orphans are the records whose rootId and inheritedId both name no root record.
const char* const kOrphans = FILE_SELECT
    "WHERE NOT EXISTS (SELECT 1 FROM folders r WHERE r.id = f.root_id AND r.root_id = r.id) "
    "AND NOT EXISTS (SELECT 1 FROM folders r WHERE r.id = f.inherited_id AND r.root_id = r.id) "
    "ORDER BY f.id";
// The ids of the root records, and the next root id the files name above a given one: the
// index on root_id finds each in one seek, where the orphan query reads every record.
const char* const kRootIds = "SELECT id FROM folders WHERE root_id = id";
const char* const kNextFileRootId =
    "SELECT root_id FROM files WHERE root_id > ?1 ORDER BY root_id LIMIT 1";
const char* const kByPath = FILE_SELECT
    "JOIN folders r ON r.id = f.root_id "
    "WHERE f.local_path_key = ?1 AND r.authentication_id = ?2 ORDER BY f.id LIMIT 1";
const char* const kByRoot = FILE_SELECT "WHERE f.root_id = ?1 AND f.is_generated = 0 ORDER BY f.id";
// The two halves of kByRoot for a read split between two threads, and the id where they meet.
const char* const kByRootBelow =
    FILE_SELECT "WHERE f.root_id = ?1 AND f.is_generated = 0 AND f.id < ?2 ORDER BY f.id";
const char* const kByRootFrom =
    FILE_SELECT "WHERE f.root_id = ?1 AND f.is_generated = 0 AND f.id >= ?2 ORDER BY f.id";
const char* const kMiddleIdByRoot =
    "SELECT f.id FROM files f WHERE f.root_id = ?1 AND f.is_generated = 0 ORDER BY f.id "
    "LIMIT 1 OFFSET ?2";
// Beyond this many root ids the files name, one read of every record costs less than seeking.
constexpr int kMaxRootIdsSought = 1000;
// Below this many records a second thread costs more than it saves.
constexpr int kSplitReadAbove = 20000;
const char* const kAllByRoot = FILE_SELECT "WHERE f.root_id = ?1 ORDER BY f.id";
const char* const kGeneratedByRoot =
    FILE_SELECT "WHERE f.root_id = ?1 AND f.is_generated <> 0 ORDER BY f.id";
const char* const kGeneratedByKind =
    FILE_SELECT "WHERE f.generated_kind = ?1 AND f.is_generated <> 0 ORDER BY f.id";
const char* const kInsert =
    "INSERT INTO files (" SYNC_DB_FILE_COLUMNS("") ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, "
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

FileConfiguration ReadFile(const Query& q) {
    FileConfiguration f;
    RecordCodec::ReadFile(q, f);
    return f;
}

// Records are filled in place: a populated record is expensive to copy. During a planning pass
// each record gives up its copies of the texts the trees already built hold, as soon as it is
// read: the next record's texts then reuse that memory, and the 100,000 records of a large root
// never hold a second copy of their paths all at once.
void ReadRow(const Query& q, FileConfiguration& file) {
    RecordCodec::ReadFile(q, file);
    if (EntryInfoTree::TextSource::Active()) {
        QString key = EntryInfoTree::KeyOf(file.serverPath);
        EntryInfoTree::ShareTexts(key, file);
    }
}

QVector<FileConfiguration> ReadAll(Query& q, int expected = 0) {
    QVector<FileConfiguration> files;
    files.reserve(expected);
    while (q.Step()) {
        files.append(FileConfiguration());
        ReadRow(q, files.last());
    }
    return files;
}

// Reads the rows of q into target[from, to) and any beyond into extra; answers how many went
// into the target.
int ReadInto(Query& q, FileConfiguration* target, int from, int to,
             QVector<FileConfiguration>& extra) {
    int next = from;
    while (q.Step()) {
        if (next < to) {
            ReadRow(q, target[next++]);
        } else {
            extra.append(FileConfiguration());
            ReadRow(q, extra.last());
        }
    }
    return next - from;
}

// Decoding the records of a large root costs more than SQLite's own work: the upper half is
// read on a second thread through the peer connection while this one reads the lower half,
// both into one vector made to size, so that no second copy of the records is ever held.
// Outside a transaction both connections see the same committed rows, and the halves joined
// in id order are exactly what one read returns.
QVector<FileConfiguration> ReadSplit(ConfigDatabase::Impl& db, ConfigDatabase::Impl& peer,
                                     int rootId, int expected) {
    const int lowerSize = expected / 2;
    int middle = 0;
    {
        Query q(db, kMiddleIdByRoot);
        q.Bind(1, rootId);
        q.Bind(2, lowerSize);
        if (!q.Step()) {
            Query all(db, kByRoot);
            all.Bind(1, rootId);
            return ReadAll(all, expected);
        }
        middle = q.Int(0);
    }
    QVector<FileConfiguration> files(expected);
    FileConfiguration* const target = files.data();
    QVector<FileConfiguration> lowerExtra, upperExtra;
    int upperRead = 0;
    std::exception_ptr upperFailure;
    const EntryInfoTree::TextSource* texts = EntryInfoTree::TextSource::OfThisThread();
    std::thread reader([&] {
        try {
            const EntryInfoTree::TextSource::Lent lent(texts);
            Query q(peer.Checked(), kByRootFrom);
            q.Bind(1, rootId);
            q.Bind(2, middle);
            upperRead = ReadInto(q, target, lowerSize, expected, upperExtra);
        } catch (...) {
            upperFailure = std::current_exception();
        }
    });
    int lowerRead = 0;
    try {
        Query q(db, kByRootBelow);
        q.Bind(1, rootId);
        q.Bind(2, middle);
        lowerRead = ReadInto(q, target, 0, lowerSize, lowerExtra);
    } catch (...) {
        reader.join();
        throw;
    }
    reader.join();
    if (upperFailure) std::rethrow_exception(upperFailure);
    if (lowerRead == lowerSize && lowerExtra.isEmpty() && upperExtra.isEmpty() &&
        upperRead == expected - lowerSize)
        return files;
    // Another program changed the root's records between the count and the read.
    QVector<FileConfiguration> joined;
    joined.reserve(lowerRead + lowerExtra.size() + upperRead + upperExtra.size());
    for (int i = 0; i < lowerRead; ++i) joined.append(std::move(target[i]));
    for (FileConfiguration& file : lowerExtra) joined.append(std::move(file));
    for (int i = lowerSize; i < lowerSize + upperRead; ++i) joined.append(std::move(target[i]));
    for (FileConfiguration& file : upperExtra) joined.append(std::move(file));
    return joined;
}

}  // namespace

FileConfigManager::FileConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

FileConfigManager::~FileConfigManager() = default;

FileConfiguration FileConfigManager::GetFileById(int fileId) {
    Query q(_database->impl().Checked(), kById);
    q.Bind(1, fileId);
    return q.Step() ? ReadFile(q) : FileConfiguration();
}

FileConfiguration FileConfigManager::GetGeneratedFileById(int fileId) {
    Query q(_database->impl().Checked(), kGeneratedById);
    q.Bind(1, fileId);
    return q.Step() ? ReadFile(q) : FileConfiguration();
}

QVector<FileConfiguration> FileConfigManager::GetFilesOfMissingRootFolders() {
    auto& db = _database->impl().Checked();
    // An orphan names no root record in rootId, so while every rootId the files name is a
    // root's there is none, and that takes a seek per root instead of a read of every record.
    QSet<qint64> roots;
    {
        Query q(db, kRootIds);
        while (q.Step()) roots.insert(q.Int64(0));
    }
    bool rootMissing = false;
    qint64 after = std::numeric_limits<qint64>::min();
    for (int seen = 0; seen <= kMaxRootIdsSought && !rootMissing; ++seen) {
        Query next(db, kNextFileRootId);
        next.Bind(1, after);
        if (!next.Step()) break;
        after = next.Int64(0);
        rootMissing = !roots.contains(after) || seen == kMaxRootIdsSought;
    }
    if (!rootMissing) return {};
    Query q(db, kOrphans);
    return ReadAll(q);
}

FileConfiguration FileConfigManager::GetFileByPath(const QString& localPath, int authenticationId) {
    Query q(_database->impl().Checked(), kByPath);
    q.Bind(1, RecordCodec::PathKey(localPath));
    q.Bind(2, authenticationId);
    return q.Step() ? ReadFile(q) : FileConfiguration();
}

QVector<FileConfiguration> FileConfigManager::GetFilesByRootId(int rootId, bool generatedToo) {
    auto& db = _database->impl().Checked();
    int expected = 0;
    {
        Query count(db, kCountByRoot);
        count.Bind(1, rootId);
        count.Bind(2, generatedToo);
        if (count.Step()) expected = count.Int(0);
    }
    if (!generatedToo && expected > kSplitReadAbove && !db.InTransaction())
        if (ConfigDatabase::Impl* peer = db.ReadingPeer())
            return ReadSplit(db, *peer, rootId, expected);
    Query q(db, generatedToo ? kAllByRoot : kByRoot);
    q.Bind(1, rootId);
    return ReadAll(q, expected);
}

QVector<FileConfiguration> FileConfigManager::GetGeneratedFilesByRootId(int rootId, bool) {
    Query q(_database->impl().Checked(), kGeneratedByRoot);
    q.Bind(1, rootId);
    return ReadAll(q);
}

QVector<FileConfiguration> FileConfigManager::GetGeneratedFilesByKind(int kind) {
    Query q(_database->impl().Checked(), kGeneratedByKind);
    q.Bind(1, kind);
    return ReadAll(q);
}

bool FileConfigManager::UpdateFile(const FileConfiguration& file) {
    auto& db = _database->impl().Checked();
    if (file.id < 0) return false;
    Query q(db, kUpdate);
    RecordCodec::BindFile(q, file);
    q.Bind(RecordCodec::FileValueCount + 1, file.id);
    q.Run();
    return q.Changes() > 0;
}

bool FileConfigManager::AddFile(FileConfiguration& file) {
    Query q(_database->impl().Checked(), kInsert);
    RecordCodec::BindFile(q, file);
    q.Run();
    file.id = static_cast<int>(q.LastInsertId());
    return true;
}

void FileConfigManager::RemoveFile(int fileId) {
    Query q(_database->impl().Checked(), kDelete);
    q.Bind(1, fileId);
    q.Run();
}

void FileConfigManager::RemoveGeneratedFileById(int fileId) {
    Query q(_database->impl().Checked(), kDeleteGenerated);
    q.Bind(1, fileId);
    q.Run();
}

void FileConfigManager::RemoveGeneratedFile(int fileId) {
    RemoveGeneratedFileById(fileId);
}

}  // namespace database
}  // namespace sync
