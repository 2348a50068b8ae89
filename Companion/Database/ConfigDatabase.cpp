#include "ConfigDatabase.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QStandardPaths>
#include <QTimeZone>

#include "ConfigDatabaseImpl.h"
#include "ConfigurationFactory.h"
#include "DatabaseSchema.h"
#include "ServerConfigManager.h"
#include "SqliteTransactionBackend.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace database {

namespace {

// Long enough to ride out a host tool's checkpoint or short write, short enough that a stuck
// writer shows up as an error instead of a hung service.
constexpr int kBusyTimeoutMs = 5000;

std::runtime_error FileError(const QString& path, const QString& what) {
    return std::runtime_error(
        QStringLiteral("Configuration database \"%1\": %2").arg(path, what).toStdString());
}

}  // namespace

// --- Impl -------------------------------------------------------------------------------------

sqlite3_stmt* ConfigDatabase::Impl::Prepared(const char* sql) {
    auto it = _statements.find(sql);
    if (it != _statements.end()) return it->second.get();
    sqlite3_stmt* raw = nullptr;
    const int rc = sqlite3_prepare_v3(Handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(raw);
        throw Error(QString::fromUtf8(sqlite3_errmsg(Handle())));
    }
    _statements.emplace(sql, std::unique_ptr<sqlite3_stmt, Finalize>(raw));
    return raw;
}

void ConfigDatabase::Impl::Exec(const char* sql) {
    try {
        db->exec(sql);
    } catch (const std::exception& e) {
        throw Error(e);
    }
}

std::runtime_error ConfigDatabase::Impl::Error(const QString& what) const {
    return FileError(path, what);
}

// --- Query ------------------------------------------------------------------------------------

void Query::_Check(int rc) {
    if (rc != SQLITE_OK) throw _db.Error(QString::fromUtf8(sqlite3_errmsg(_db.Handle())));
}

void Query::Bind(int index, const QString& value) {
    const QByteArray utf8 = value.toUtf8();
    _Check(sqlite3_bind_text(_stmt, index, utf8.constData(), utf8.size(), SQLITE_TRANSIENT));
}

void Query::BindBlob(int index, const QByteArray& value) {
    if (value.isNull()) {
        BindNull(index);
        return;
    }
    _Check(sqlite3_bind_blob(_stmt, index, value.constData(), value.size(), SQLITE_TRANSIENT));
}

void Query::BindTime(int index, const QDateTime& value) {
    if (!value.isValid()) {
        BindNull(index);
        BindNull(index + 1);
        return;
    }
    Bind(index, static_cast<qint64>(value.toMSecsSinceEpoch()));
    switch (value.timeSpec()) {
        case Qt::LocalTime:
            Bind(index + 1, 0);
            break;
        case Qt::UTC:
            Bind(index + 1, 1);
            break;
        case Qt::OffsetFromUTC:
            Bind(index + 1, 2 + 4 * static_cast<qint64>(value.offsetFromUtc()));
            break;
        case Qt::TimeZone:
            Bind(index + 1, QString::fromUtf8(value.timeZone().id()));
            break;
    }
}

bool Query::Step() {
    const int rc = sqlite3_step(_stmt);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw _db.Error(QString::fromUtf8(sqlite3_errmsg(_db.Handle())));
}

void Query::Run() {
    while (Step()) {
    }
}

QString Query::Text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(_stmt, column));
    if (!text) return QString();
    return QString::fromUtf8(text, sqlite3_column_bytes(_stmt, column));
}

QByteArray Query::Blob(int column) const {
    const void* data = sqlite3_column_blob(_stmt, column);
    if (!data) return QByteArray();
    return QByteArray(static_cast<const char*>(data), sqlite3_column_bytes(_stmt, column));
}

QDateTime Query::Time(int column) const {
    if (IsNull(column)) return QDateTime();
    const qint64 ms = Int64(column);
    if (sqlite3_column_type(_stmt, column + 1) == SQLITE_TEXT)
        return QDateTime::fromMSecsSinceEpoch(ms, QTimeZone(Text(column + 1).toUtf8()));
    const qint64 zone = Int64(column + 1);
    if (zone == 1) return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
    if (zone >= 2 || zone <= -2) {
        if ((zone - 2) % 4 == 0)
            return QDateTime::fromMSecsSinceEpoch(ms, Qt::OffsetFromUTC,
                                                  static_cast<int>((zone - 2) / 4));
    }
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::LocalTime);
}

// --- OperationSavepoint -----------------------------------------------------------------------

OperationSavepoint::OperationSavepoint(ConfigDatabase::Impl& db) : _db(db) {
    _db.Exec("SAVEPOINT manager_operation");
}

OperationSavepoint::~OperationSavepoint() {
    if (_released) return;
    try {
        _db.Exec("ROLLBACK TO manager_operation");
        _db.Exec("RELEASE manager_operation");
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to roll back a database operation: %1", e.what());
    }
}

void OperationSavepoint::Release() {
    _db.Exec("RELEASE manager_operation");
    _released = true;
}

// --- codec ------------------------------------------------------------------------------------

namespace codec {

// The layout is QDataStream's (version 5.15): a big-endian quint32 count, then the values; a
// string is a big-endian quint32 byte length (0xFFFFFFFF for a null string) and UTF-16BE. It is
// written and read by hand because a QDataStream per record costs more than the whole row.

namespace {

class Writer {
public:
    void UInt32(quint32 v) {
        const char bytes[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
        blob.append(bytes, 4);
    }
    void Int64(qint64 value) {
        const quint64 v = static_cast<quint64>(value);
        UInt32(static_cast<quint32>(v >> 32));
        UInt32(static_cast<quint32>(v));
    }
    void String(const QString& s) {
        if (s.isNull()) {
            UInt32(0xFFFFFFFFu);
            return;
        }
        UInt32(static_cast<quint32>(s.size() * 2));
        for (const QChar c : s) {
            const ushort u = c.unicode();
            const char bytes[2] = {char(u >> 8), char(u)};
            blob.append(bytes, 2);
        }
    }
    QByteArray blob;
};

class Reader {
public:
    explicit Reader(const QByteArray& blob)
        : _p(reinterpret_cast<const uchar*>(blob.constData())), _end(_p + blob.size()) {}
    bool ok() const { return _ok; }
    quint32 UInt32() {
        if (_end - _p < 4) return _Fail();
        const quint32 v = (quint32(_p[0]) << 24) | (quint32(_p[1]) << 16) | (quint32(_p[2]) << 8) |
                          quint32(_p[3]);
        _p += 4;
        return v;
    }
    qint64 Int64() {
        const quint64 high = UInt32();
        const quint64 low = UInt32();
        return static_cast<qint64>((high << 32) | low);
    }
    QString String() {
        const quint32 bytes = UInt32();
        if (!_ok || bytes == 0xFFFFFFFFu) return QString();
        if (bytes % 2 != 0 || quint32(_end - _p) < bytes) {
            _Fail();
            return QString();
        }
        QString s(static_cast<int>(bytes / 2), Qt::Uninitialized);
        QChar* out = s.data();
        for (quint32 i = 0; i < bytes / 2; ++i)
            out[i] = QChar(static_cast<ushort>((_p[2 * i] << 8) | _p[2 * i + 1]));
        _p += bytes;
        return s;
    }

private:
    quint32 _Fail() {
        _ok = false;
        _p = _end;
        return 0;
    }
    const uchar* _p;
    const uchar* _end;
    bool _ok = true;
};

}  // namespace

QByteArray EncodeProperties(const QMap<QString, QString>& properties) {
    if (properties.isEmpty()) return QByteArray();
    Writer w;
    w.UInt32(static_cast<quint32>(properties.size()));
    for (auto it = properties.cbegin(); it != properties.cend(); ++it) {
        w.String(it.key());
        w.String(it.value());
    }
    return w.blob;
}

QMap<QString, QString> DecodeProperties(const QByteArray& blob) {
    QMap<QString, QString> properties;
    if (blob.isEmpty()) return properties;
    Reader r(blob);
    const quint32 count = r.UInt32();
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        QString key = r.String();
        QString value = r.String();
        if (r.ok()) properties.insert(key, value);
    }
    return properties;
}

QByteArray EncodeFileLinks(const QList<sync::config::FileLink>& links) {
    if (links.isEmpty()) return QByteArray();
    Writer w;
    w.UInt32(static_cast<quint32>(links.size()));
    for (const auto& link : links) {
        w.Int64(link.linkId);
        w.String(link.target);
        w.String(link.kind);
        w.String(link.extra);
    }
    return w.blob;
}

QList<sync::config::FileLink> DecodeFileLinks(const QByteArray& blob) {
    QList<sync::config::FileLink> links;
    if (blob.isEmpty()) return links;
    Reader r(blob);
    const quint32 count = r.UInt32();
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        sync::config::FileLink link;
        link.linkId = r.Int64();
        link.target = r.String();
        link.kind = r.String();
        link.extra = r.String();
        if (r.ok()) links.append(link);
    }
    return links;
}

QByteArray EncodeStrings(const QVector<QString>& strings) {
    if (strings.isEmpty()) return QByteArray();
    Writer w;
    w.UInt32(static_cast<quint32>(strings.size()));
    for (const auto& s : strings) w.String(s);
    return w.blob;
}

QVector<QString> DecodeStrings(const QByteArray& blob) {
    QVector<QString> strings;
    if (blob.isEmpty()) return strings;
    Reader r(blob);
    const quint32 count = r.UInt32();
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        QString s = r.String();
        if (r.ok()) strings.append(s);
    }
    return strings;
}

}  // namespace codec

// --- ConfigDatabase ---------------------------------------------------------------------------

namespace {

qint64 PragmaInt(ConfigDatabase::Impl& impl, const char* sql) {
    Query q(impl, sql);
    return q.Step() ? q.Int64(0) : 0;
}

// Reading the schema is what tells a database from any other file; quick_check then reads
// every page, which finds a truncated or overwritten file before a manager trips over it.
// Answers quick_check's verdict ("ok" for a sound file).
QString CheckIntegrity(ConfigDatabase::Impl& impl) {
    Query count(impl, "SELECT count(*) FROM sqlite_master");
    count.Step();
    Query check(impl, "PRAGMA quick_check(1)");
    return check.Step() ? check.Text(0) : QString();
}

void Migrate(ConfigDatabase::Impl& impl, int fromVersion) {
    for (const auto& step : DatabaseSchema::Migrations()) {
        if (step.version <= fromVersion) continue;
        try {
            impl.db->exec("BEGIN IMMEDIATE");
            try {
                impl.db->exec(step.sql);
                impl.db->exec(QStringLiteral("PRAGMA application_id = %1; PRAGMA user_version = %2")
                                  .arg(DatabaseSchema::ApplicationId)
                                  .arg(step.version)
                                  .toStdString());
                impl.db->exec("COMMIT");
            } catch (...) {
                impl.db->exec("ROLLBACK");
                throw;
            }
        } catch (const std::exception& e) {
            throw impl.Error(QStringLiteral("could not update the schema from version %1 to %2: %3")
                                 .arg(step.version - 1)
                                 .arg(step.version)
                                 .arg(QString::fromUtf8(e.what())));
        }
        SYNC_LOG_INFO("Configuration database %1 updated to schema version %2", impl.path,
                      step.version);
    }
}

}  // namespace

QString ConfigDatabase::DefaultPath() {
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) +
           QStringLiteral("/sync.db");
}

ConfigDatabase::ConfigDatabase(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}

ConfigDatabase::~ConfigDatabase() = default;

std::shared_ptr<ConfigDatabase> ConfigDatabase::Open(const QString& path, Mode mode) {
    const bool readOnly = mode == Mode::ReadOnly;
    if (path.isEmpty()) throw FileError(path, QStringLiteral("no file name given"));
    const QFileInfo info(path);
    if (info.isDir()) throw FileError(path, QStringLiteral("the path is a directory"));
    if (readOnly && !info.exists())
        throw FileError(path, QStringLiteral("the file does not exist"));
    if (!readOnly && !QDir().mkpath(info.absolutePath()))
        throw FileError(path,
                        QStringLiteral("cannot create the directory %1").arg(info.absolutePath()));

    std::unique_ptr<SQLite::Database> db;
    try {
        // One thread uses a connection, so SQLite's per-call connection mutex is pure cost.
        const int flags =
            SQLite::OPEN_NOMUTEX |
            (readOnly ? SQLite::OPEN_READONLY : (SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE));
        db = std::make_unique<SQLite::Database>(QFile::encodeName(path).toStdString(), flags,
                                                kBusyTimeoutMs);
    } catch (const std::exception& e) {
        throw FileError(path, QStringLiteral("cannot be opened: %1").arg(e.what()));
    }
    auto impl = std::make_unique<Impl>(path, std::move(db), readOnly);
    // SQLite quietly falls back to read-only when the file cannot be written; say so now
    // rather than at the first write of a cycle.
    if (!readOnly && sqlite3_db_readonly(impl->Handle(), "main") == 1)
        throw impl->Error(QStringLiteral("the file is read-only"));

    int version = 0;
    qint64 applicationId = 0;
    qint64 tables = 0;
    QString verdict;
    try {
        verdict = CheckIntegrity(*impl);
        applicationId = PragmaInt(*impl, "PRAGMA application_id");
        version = static_cast<int>(PragmaInt(*impl, "PRAGMA user_version"));
        tables = PragmaInt(*impl, "SELECT count(*) FROM sqlite_master");
    } catch (const std::exception&) {
        const int code = sqlite3_errcode(impl->Handle());
        const QString message = QString::fromUtf8(sqlite3_errmsg(impl->Handle()));
        if (code == SQLITE_CORRUPT) throw impl->Error("the file is damaged: " + message);
        if (code == SQLITE_NOTADB) throw impl->Error("not a readable database: " + message);
        throw impl->Error("the file cannot be read: " + message);
    }
    if (verdict != QLatin1String("ok")) throw impl->Error("the file is damaged: " + verdict);
    if (applicationId != 0 && applicationId != DatabaseSchema::ApplicationId)
        throw impl->Error(QStringLiteral("the file belongs to another program"));
    if (applicationId == 0 && tables > 0)
        throw impl->Error(QStringLiteral("the file is not a synchronisation database"));
    if (version > DatabaseSchema::LatestVersion())
        throw impl->Error(QStringLiteral("schema version %1 was written by a newer release; this "
                                         "release reads up to version %2")
                              .arg(version)
                              .arg(DatabaseSchema::LatestVersion()));

    // Reading the records of a large root walks tens of megabytes; a larger cache keeps a
    // cycle's pages between its passes.
    impl->Exec("PRAGMA cache_size = -16384");

    if (readOnly) {
        if (version < DatabaseSchema::LatestVersion())
            throw impl->Error(QStringLiteral("schema version %1 must be updated to %2 by opening "
                                             "the file for writing first")
                                  .arg(version)
                                  .arg(DatabaseSchema::LatestVersion()));
    } else {
        try {
            Query wal(*impl, "PRAGMA journal_mode = WAL");
            const QString journal = wal.Step() ? wal.Text(0) : QString();
            if (journal.compare(QLatin1String("wal"), Qt::CaseInsensitive) != 0)
                throw impl->Error(QStringLiteral("cannot switch to WAL mode (%1)").arg(journal));
        } catch (const std::exception& e) {
            throw impl->Error(QString::fromUtf8(e.what()));
        }
        // FULL: a committed batch must survive a power cut, because the files on disk already
        // reflect it.
        impl->Exec("PRAGMA synchronous = FULL");
        Migrate(*impl, version);
    }
    return std::shared_ptr<ConfigDatabase>(new ConfigDatabase(std::move(impl)));
}

void ConfigDatabase::Install(const std::shared_ptr<ConfigDatabase>& database) {
    TransactionalScope::SetBackend(std::make_shared<SqliteTransactionBackend>(database));
    sync::factory::ConfigurationFactory::SetServerConfigManagerMaker(
        [database]() -> std::shared_ptr<sync::interf::IServerConfigManager> {
            return std::make_shared<ServerConfigManager>(database);
        });
}

void ConfigDatabase::Uninstall() {
    TransactionalScope::SetBackend(nullptr);
    sync::factory::ConfigurationFactory::SetServerConfigManagerMaker(nullptr);
}

const QString& ConfigDatabase::Path() const {
    return _impl->path;
}

bool ConfigDatabase::IsReadOnly() const {
    return _impl->readOnly;
}

int ConfigDatabase::SchemaVersion() const {
    return static_cast<int>(PragmaInt(*_impl, "PRAGMA user_version"));
}

int ConfigDatabase::LatestSchemaVersion() {
    return DatabaseSchema::LatestVersion();
}

bool ConfigDatabase::InTransaction() const {
    return sqlite3_get_autocommit(_impl->Handle()) == 0;
}

}  // namespace database
}  // namespace sync
