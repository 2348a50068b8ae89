// Rows of the configuration database as another program, a damaged disk or an older release
// may have left them, read back through the real managers: nothing read may crash, and a
// record that was read must write back and read again unchanged, without touching another.
//
// The input is a small text, a "[table]" line before each row and "column = value" lines, the
// value in SQL literal syntax (NULL, 12, -1.5, 'text', X'00ff'), so that the corpus reads like
// the rows it describes. A NOT NULL column left out takes 0 or '' by its declared type. The
// rows are written by a second connection, as another program would.
#include <log4cplus/logger.h>
#include <sqlite3.h>

#include <QByteArray>
#include <QDir>
#include <QHash>
#include <QTemporaryDir>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>

#include "ActionLogWording.h"
#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "DatabaseActionLog.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "ScheduleEntryManager.h"
#include "ServerConfigManager.h"
#include "SyncConfiguration.h"
#include "SyncLog.h"

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::config::ServerConfiguration;
using namespace sync::database;

namespace {

[[noreturn]] void Fail(const char* what, qint64 id = 0) {
    std::fprintf(stderr, "stored record fuzzer: %s (id %lld)\n", what, static_cast<long long>(id));
    std::abort();
}

struct Column {
    QByteArray name;
    QByteArray type;
    bool notNull = false;
};

struct Value {
    enum Kind { Null, Integer, Real, Text, Blob } kind = Null;
    qint64 integer = 0;
    double real = 0;
    QByteArray bytes;
};

struct Row {
    QByteArray table;
    QList<QPair<QByteArray, Value>> values;
};

const char* const kTables[] = {"folders",  "files",    "accounts",
                               "schedule", "settings", "action_log"};

struct Store {
    QTemporaryDir dir;
    std::shared_ptr<ConfigDatabase> db;
    sqlite3* writer = nullptr;
    QHash<QByteArray, QList<Column>> columns;
    std::unique_ptr<FolderConfigManager> folders;
    std::unique_ptr<FileConfigManager> files;
    std::unique_ptr<AuthenticationConfigManager> accounts;
    std::unique_ptr<ServerConfigManager> servers;
    std::unique_ptr<ScheduleEntryManager> schedule;
    std::unique_ptr<SyncConfiguration> settings;
    std::unique_ptr<DatabaseActionLog> actionLog;

    // In memory-backed storage when there is one: every run writes the file.
    static QString Base() {
        return QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm/record-fuzz-")
                                                         : QDir::tempPath() + "/record-fuzz-";
    }

    Store() : dir(Base() + QStringLiteral("XXXXXX")) {
        if (!dir.isValid()) Fail("no temporary folder");
        const QString path = dir.filePath(QStringLiteral("sync.db"));
        db = ConfigDatabase::Open(path);
        folders = std::make_unique<FolderConfigManager>(db);
        files = std::make_unique<FileConfigManager>(db);
        accounts = std::make_unique<AuthenticationConfigManager>(db);
        servers = std::make_unique<ServerConfigManager>(db);
        schedule = std::make_unique<ScheduleEntryManager>(db);
        settings = std::make_unique<SyncConfiguration>(db);
        actionLog = std::make_unique<DatabaseActionLog>(db);
        if (sqlite3_open_v2(path.toUtf8().constData(), &writer, SQLITE_OPEN_READWRITE, nullptr) !=
            SQLITE_OK)
            Fail("cannot open a second connection");
        sqlite3_exec(writer, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
        for (const char* table : kTables) {
            sqlite3_stmt* info = nullptr;
            const QByteArray sql = QByteArray("PRAGMA table_info(") + table + ")";
            sqlite3_prepare_v2(writer, sql.constData(), -1, &info, nullptr);
            while (sqlite3_step(info) == SQLITE_ROW) {
                Column c;
                c.name = reinterpret_cast<const char*>(sqlite3_column_text(info, 1));
                c.type = reinterpret_cast<const char*>(sqlite3_column_text(info, 2));
                c.notNull = sqlite3_column_int(info, 3) != 0;
                columns[table].append(c);
            }
            sqlite3_finalize(info);
        }
    }
};

Store& TheStore() {
    static Store store;
    return store;
}

// --- the input ---------------------------------------------------------------------------------

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

Value ParseValue(const QByteArray& text) {
    Value v;
    if (text.compare("NULL", Qt::CaseInsensitive) == 0) return v;
    if (text.size() >= 2 && (text[0] == 'x' || text[0] == 'X') && text[1] == '\'') {
        v.kind = Value::Blob;
        int high = -1;
        for (int i = 2; i < text.size() && text[i] != '\''; ++i) {
            const int d = HexDigit(text[i]);
            if (d < 0) continue;
            if (high < 0) {
                high = d;
            } else {
                v.bytes.append(char(high * 16 + d));
                high = -1;
            }
        }
        return v;
    }
    if (text.startsWith('\'')) {
        v.kind = Value::Text;
        for (int i = 1; i < text.size(); ++i) {
            if (text[i] == '\'') {
                if (i + 1 < text.size() && text[i + 1] == '\'') {
                    ++i;
                } else {
                    break;
                }
            }
            v.bytes.append(text[i]);
        }
        return v;
    }
    bool ok = false;
    v.integer = text.toLongLong(&ok);
    if (ok) {
        v.kind = Value::Integer;
        return v;
    }
    v.real = text.toDouble(&ok);
    v.kind = ok ? Value::Real : Value::Text;
    if (!ok) v.bytes = text;
    return v;
}

QList<Row> ParseRows(const QByteArray& input) {
    QList<Row> rows;
    for (const QByteArray& raw : input.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.isEmpty() || line.startsWith('#')) continue;
        if (line.startsWith('[') && line.endsWith(']')) {
            if (rows.size() == 32) break;
            rows.append(Row{line.mid(1, line.size() - 2).trimmed(), {}});
            continue;
        }
        const int equals = line.indexOf('=');
        if (equals < 0 || rows.isEmpty()) continue;
        rows.last().values.append(
            {line.left(equals).trimmed(), ParseValue(line.mid(equals + 1).trimmed())});
    }
    return rows;
}

void Bind(sqlite3_stmt* stmt, int index, const Value& v) {
    switch (v.kind) {
        case Value::Null:
            sqlite3_bind_null(stmt, index);
            break;
        case Value::Integer:
            sqlite3_bind_int64(stmt, index, v.integer);
            break;
        case Value::Real:
            sqlite3_bind_double(stmt, index, v.real);
            break;
        case Value::Text:
            sqlite3_bind_text(stmt, index, v.bytes.constData(), v.bytes.size(), SQLITE_TRANSIENT);
            break;
        case Value::Blob:
            sqlite3_bind_blob(stmt, index, v.bytes.constData(), v.bytes.size(), SQLITE_TRANSIENT);
            break;
    }
}

void WriteRows(Store& store, const QList<Row>& rows) {
    sqlite3_exec(store.writer, "BEGIN", nullptr, nullptr, nullptr);
    for (const char* table : kTables)
        sqlite3_exec(store.writer, (QByteArray("DELETE FROM ") + table).constData(), nullptr,
                     nullptr, nullptr);
    for (const Row& row : rows) {
        const auto known = store.columns.constFind(row.table);
        if (known == store.columns.constEnd()) continue;
        QByteArray names, marks;
        QList<Value> values;
        for (const Column& column : *known) {
            const Value* given = nullptr;
            for (const auto& pair : row.values)
                if (pair.first == column.name) given = &pair.second;
            Value v;
            if (given) {
                v = *given;
            } else if (!column.notNull) {
                continue;
            } else if (column.type == "TEXT") {
                v.kind = Value::Text;
            } else {
                v.kind = Value::Integer;
            }
            names += (names.isEmpty() ? "" : ", ") + column.name;
            marks += marks.isEmpty() ? "?" : ", ?";
            values.append(v);
        }
        if (values.isEmpty()) continue;
        const QByteArray sql =
            "INSERT INTO " + row.table + " (" + names + ") VALUES (" + marks + ")";
        sqlite3_stmt* insert = nullptr;
        if (sqlite3_prepare_v2(store.writer, sql.constData(), -1, &insert, nullptr) != SQLITE_OK)
            Fail("an insert does not prepare");
        for (int i = 0; i < values.size(); ++i) Bind(insert, i + 1, values[i]);
        sqlite3_step(insert);  // a row the schema refuses is simply not there
        sqlite3_finalize(insert);
    }
    if (sqlite3_exec(store.writer, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
        Fail("the rows could not be written");
}

QList<qint64> StoredIds(Store& store, const char* table) {
    QList<qint64> ids;
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(store.writer, (QByteArray("SELECT id FROM ") + table).constData(), -1,
                       &select, nullptr);
    while (sqlite3_step(select) == SQLITE_ROW) ids.append(sqlite3_column_int64(select, 0));
    sqlite3_finalize(select);
    return ids;
}

// Every row of the table but one, as bytes.
QByteArray OtherRows(Store& store, const char* table, qint64 id) {
    QByteArray rows;
    sqlite3_stmt* select = nullptr;
    const QByteArray sql = QByteArray("SELECT * FROM ") + table + " WHERE id <> ?1 ORDER BY id";
    sqlite3_prepare_v2(store.writer, sql.constData(), -1, &select, nullptr);
    sqlite3_bind_int64(select, 1, id);
    while (sqlite3_step(select) == SQLITE_ROW) {
        for (int i = 0; i < sqlite3_column_count(select); ++i) {
            rows += char('0' + sqlite3_column_type(select, i));
            const void* bytes = sqlite3_column_blob(select, i);
            rows += QByteArray::number(sqlite3_column_bytes(select, i)) + ':';
            if (bytes)
                rows.append(static_cast<const char*>(bytes), sqlite3_column_bytes(select, i));
        }
        rows += '\n';
    }
    sqlite3_finalize(select);
    return rows;
}

// --- reading -----------------------------------------------------------------------------------

// Touches every value, so that the sanitizers see a record that holds anything it should not.
volatile size_t sink;
void Use(const QString& s) {
    sink = sink + static_cast<size_t>(qHash(s));
}
void Use(const QDateTime& t) {
    if (t.isValid()) Use(t.toString(Qt::ISODateWithMs));
    sink = sink + static_cast<size_t>(t.toMSecsSinceEpoch());
}
template <typename Map>
void UseMap(const Map& map) {
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        Use(it.key());
        Use(it.value());
    }
}
void Use(const QMap<QString, QString>& map) {
    UseMap(map);
}
void Use(const sync::config::PropertyMap& map) {
    UseMap(map);
}
void Use(const FolderConfiguration& f) {
    for (const QString* s : {&f.name, &f.serverAttribute, &f.path, &f.localPath, &f.serverPath,
                             &f.privilegeInfo, &f.serverRootPath, &f.serverFolderId})
        Use(*s);
    for (const QDateTime* t : {&f.lastModified, &f.lastSyncTime, &f.lastServerSyncRequestTime})
        Use(*t);
    Use(f.properties);
}
void Use(const FileConfiguration& f) {
    for (const QString* s :
         {&f.name, &f.localPath, &f.serverPath, &f.checksum, &f.contentType.value(),
          &f.privilegeInfo, &f.serverFileId, &f.serverChecksum})
        Use(*s);
    for (const QDateTime* t :
         {&f.created, &f.lastModified, &f.lastTransferAttempt, &f.serverModified})
        Use(*t);
    Use(f.properties);
    for (const auto& link : f.fileLinks) {
        Use(link.target);
        Use(link.kind);
        Use(link.extra);
    }
}

template <typename F>
void Reading(F&& read) {
    try {
        read();
    } catch (const DatabaseException&) {
        // Refusing a record is allowed; crashing on it is not.
    }
}

// A listed record stands for the row it was read from: its id is that row's id.
template <typename Record>
void CheckId(const Record& record, const std::set<qint64>& stored, const char* what) {
    if (stored.count(record.id) == 0) Fail(what, record.id);
}

void ReadEverything(Store& store) {
    const QList<qint64> folderList = StoredIds(store, "folders");
    const QList<qint64> fileList = StoredIds(store, "files");
    const std::set<qint64> folderIds(folderList.cbegin(), folderList.cend());
    const std::set<qint64> fileIds(fileList.cbegin(), fileList.cend());
    const auto folder = [&](const FolderConfiguration& f) {
        CheckId(f, folderIds, "a folder record carries an id no row has");
        Use(f);
    };
    const auto file = [&](const FileConfiguration& f) {
        CheckId(f, fileIds, "a file record carries an id no row has");
        Use(f);
    };
    std::set<int> roots;
    Reading([&] {
        for (const FolderConfiguration& f : store.folders->GetRootFolders()) {
            folder(f);
            roots.insert(f.id);
            Use(store.folders->GetFolderByPath(f.localPath, f.authenticationId));
            Use(store.servers->GetServerConfigurationByFolderId(f.id).baseUrl);
        }
    });
    for (int root : roots) {
        Reading([&] {
            for (const FolderConfiguration& f : store.folders->GetFoldersByRootId(root)) folder(f);
        });
        Reading([&] {
            for (const FileConfiguration& f : store.files->GetFilesByRootId(root, true)) {
                file(f);
                Use(store.files->GetFileByPath(f.localPath, 1));
            }
        });
    }
    Reading([&] {
        for (const FolderConfiguration& f : store.folders->GetFoldersOfMissingRootFolders())
            folder(f);
    });
    Reading([&] {
        for (const FileConfiguration& f : store.files->GetFilesOfMissingRootFolders()) file(f);
    });
    Reading([&] {
        for (const FileConfiguration& f : store.files->GetGeneratedFilesByKind(2)) file(f);
    });
    Reading([&] {
        for (const ServerConfiguration& a : store.accounts->GetAccounts()) {
            Use(a.name);
            Use(a.baseUrl);
            Use(a.settings);
        }
    });
    Reading([&] {
        const auto entry = store.schedule->GetScheduleEntry();
        Use(entry.syncTime);
        Use(entry.lastChanged);
    });
    if (store.settings->GetSyncInterval() <= 0 ||
        store.settings->GetTooManyRequestsHoldSeconds() <= 0)
        Fail("a stored setting read as a wait that is no wait");
    try {
        for (const ActionLogEntry& e : store.actionLog->Entries(0, 100))
            Use(ActionLogWording::Describe(e));
    } catch (const std::exception&) {
        // Refused as documented, with the file named.
    }
}

// A record read, written back and read again must come back as it was, and no other stored
// record may change with it.
void RoundTrip(Store& store) {
    for (const qint64 stored : StoredIds(store, "folders")) {
        const int id = static_cast<int>(stored);
        if (id != stored) continue;  // no record can ask for it; the listings check those
        Reading([&] {
            const FolderConfiguration before = store.folders->GetFolderById(id);
            if (before.id < 0) return;
            const QByteArray others = OtherRows(store, "folders", stored);
            if (!store.folders->UpdateFolder(before)) return;
            if (store.folders->GetFolderById(id) != before)
                Fail("a folder record changed on its way back", stored);
            if (OtherRows(store, "folders", stored) != others)
                Fail("writing a folder record back changed another", stored);
        });
    }
    for (const qint64 stored : StoredIds(store, "files")) {
        const int id = static_cast<int>(stored);
        if (id != stored) continue;  // no record can ask for it; the listings check those
        Reading([&] {
            const FileConfiguration before = store.files->GetFileById(id);
            if (before.id < 0) return;
            const QByteArray others = OtherRows(store, "files", stored);
            if (!store.files->UpdateFile(before)) return;
            if (store.files->GetFileById(id) != before)
                Fail("a file record changed on its way back", stored);
            if (OtherRows(store, "files", stored) != others)
                Fail("writing a file record back changed another", stored);
        });
    }
    for (const qint64 stored : StoredIds(store, "accounts")) {
        const int id = static_cast<int>(stored);
        if (id != stored) continue;  // no record can ask for it; the listings check those
        Reading([&] {
            const ServerConfiguration before = store.accounts->GetAccount(id);
            if (before.id < 0) return;
            const QByteArray others = OtherRows(store, "accounts", stored);
            if (!store.accounts->UpdateAccount(before)) return;
            if (OtherRows(store, "accounts", stored) != others)
                Fail("writing an account back changed another", stored);
            if (!(store.accounts->GetAccount(id) == before))
                Fail("an account record changed on its way back", stored);
        });
    }
    Reading([&] {
        auto before = store.schedule->GetScheduleEntry();
        store.schedule->UpdateScheduleEntry(before);
        const auto after = store.schedule->GetScheduleEntry();
        if (after.syncTime != before.syncTime || after.lastChanged != before.lastChanged ||
            after.syncType != before.syncType || after.syncInterval != before.syncInterval)
            Fail("the schedule changed on its way back");
    });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sync::core::SyncLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    TheStore();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Store& store = TheStore();
    WriteRows(store, ParseRows(QByteArray(reinterpret_cast<const char*>(data), int(size))));
    ReadEverything(store);
    RoundTrip(store);
    return 0;
}
