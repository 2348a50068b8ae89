#include "DatabaseActionLog.h"

#include "ConfigDatabaseImpl.h"
#include "SyncLog.h"

namespace sync {
namespace database {

namespace {
const char* const kInsert =
    "INSERT INTO action_log (time_ms, type, local_path, name, http_code, url, details_kind, "
    "details_arguments) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
const char* const kSelect =
    "SELECT id, time_ms, type, local_path, name, http_code, url, details_kind, details_arguments "
    "FROM action_log WHERE id > ?1 ORDER BY id LIMIT ?2";
const char* const kPrune = "DELETE FROM action_log WHERE time_ms < ?1";
}  // namespace

DatabaseActionLog::DatabaseActionLog(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

DatabaseActionLog::~DatabaseActionLog() {
    if (!_WritePending() && !_pending.isEmpty())
        SYNC_LOG_ERROR("%1 action log entries could not be written and are lost", _pending.size());
}

void DatabaseActionLog::Initialize(int) {
    if (_database->InTransaction()) return;
    try {
        Query q(_database->impl(), kPrune);
        q.Bind(1, QDateTime::currentDateTimeUtc().addDays(-RetentionDays).toMSecsSinceEpoch());
        q.Run();
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to prune the action log: %1", e.what());
    }
}

void DatabaseActionLog::AddEntry(int type, const sync::core::SyncDetails& details) {
    ActionLogEntry entry;
    entry.type = type;
    entry.hasDetails = true;
    entry.details = details;
    _Add(std::move(entry));
}

void DatabaseActionLog::AddFolderEntry(int type, const QString& localPath, const QString& name) {
    ActionLogEntry entry;
    entry.type = type;
    entry.localPath = localPath;
    entry.name = name;
    _Add(std::move(entry));
}

void DatabaseActionLog::AddFolderEntryWithDetails(int type, const QString& localPath,
                                                  const QString& name,
                                                  const sync::core::SyncDetails& details) {
    ActionLogEntry entry;
    entry.type = type;
    entry.localPath = localPath;
    entry.name = name;
    entry.hasDetails = true;
    entry.details = details;
    _Add(std::move(entry));
}

void DatabaseActionLog::AddHttpErrorEntry(int type, int httpCode, const QString& localPath,
                                          const QString& name, const QString& url) {
    ActionLogEntry entry;
    entry.type = type;
    entry.httpCode = httpCode;
    entry.localPath = localPath;
    entry.name = name;
    entry.url = url;
    _Add(std::move(entry));
}

sync::core::SyncDetails DatabaseActionLog::CreateDetails(int kind) {
    return sync::core::SyncDetails(kind);
}

sync::core::SyncDetails DatabaseActionLog::CreateDetailsWithArguments(
    int kind, const QVector<QString>& arguments) {
    return sync::core::SyncDetails(kind, arguments);
}

void DatabaseActionLog::Flush() {
    if (_WritePending() || _pending.isEmpty()) return;
    SYNC_LOG_WARN("%1 action log entries wait until the open database transaction ends",
                  _pending.size());
}

QVector<ActionLogEntry> DatabaseActionLog::Entries(qint64 afterId, int limit) {
    QVector<ActionLogEntry> entries;
    Query q(_database->impl(), kSelect);
    q.Bind(1, afterId);
    q.Bind(2, static_cast<qint64>(limit));
    while (q.Step()) {
        ActionLogEntry e;
        e.id = q.Int64(0);
        e.time = QDateTime::fromMSecsSinceEpoch(q.Int64(1), Qt::UTC);
        e.type = q.Int(2);
        e.localPath = q.Text(3);
        e.name = q.Text(4);
        e.httpCode = q.IsNull(5) ? 0 : q.Int(5);
        e.url = q.Text(6);
        e.hasDetails = !q.IsNull(7);
        if (e.hasDetails)
            e.details = sync::core::SyncDetails(q.Int(7), codec::DecodeStrings(q.Blob(8)));
        entries.append(e);
    }
    return entries;
}

void DatabaseActionLog::_Add(ActionLogEntry entry) {
    entry.time = QDateTime::currentDateTimeUtc();
    if (_pending.size() >= MaxPending) {
        SYNC_LOG_ERROR("Action log entries could not be written; dropping the oldest");
        _pending.removeFirst();
    }
    _pending.append(std::move(entry));
    _WritePending();
}

// True when nothing is left waiting.
bool DatabaseActionLog::_WritePending() {
    if (_pending.isEmpty()) return true;
    if (_database->InTransaction()) return false;
    auto& impl = _database->impl();
    try {
        const int level = impl.BeginLevel();
        try {
            for (const auto& e : _pending) {
                Query q(impl, kInsert);
                q.Bind(1, static_cast<qint64>(e.time.toMSecsSinceEpoch()));
                q.Bind(2, e.type);
                q.Bind(3, e.localPath);
                q.Bind(4, e.name);
                if (e.httpCode != 0) q.Bind(5, e.httpCode);
                q.Bind(6, e.url);
                if (e.hasDetails) {
                    q.Bind(7, e.details.kind);
                    q.BindBlob(8, codec::EncodeStrings(e.details.arguments));
                }
                q.Run();
            }
            impl.CommitLevel(level);
        } catch (...) {
            impl.RollbackLevel(level);
            throw;
        }
        _pending.clear();
        return true;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to write the action log: %1", e.what());
        return false;
    }
}

}  // namespace database
}  // namespace sync
