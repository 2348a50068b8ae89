#include "ConfigDatabase.h"

#include <SQLiteCpp/Column.h>
// For the names of SQLite's result codes that SQLite::Exception reports.
#include <sqlite3.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QVector>

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

struct FileFacts {
    QString verdict;
    qint64 applicationId = 0;
    int version = 0;
    qint64 tables = 0;
};

// Reading the schema is what tells a database from any other file; quick_check then reads
// every page, which finds a truncated or overwritten file before a manager trips over it.
FileFacts ReadFacts(ConfigDatabase::Impl& impl) {
    auto& db = impl.Connection();
    FileFacts facts;
    try {
        facts.tables = db.execAndGet("SELECT count(*) FROM sqlite_master").getInt64();
        facts.verdict = QString::fromStdString(db.execAndGet("PRAGMA quick_check(1)").getString());
        facts.applicationId = db.execAndGet("PRAGMA application_id").getInt64();
        facts.version = db.execAndGet("PRAGMA user_version").getInt();
    } catch (const std::exception& e) {
        const QString message = QString::fromUtf8(e.what());
        switch (ConfigDatabase::Impl::ResultCode(e)) {
            case SQLITE_CORRUPT:
                throw impl.Error("the file is damaged: " + message);
            case SQLITE_NOTADB:
                throw impl.Error("not a readable database: " + message);
            default:
                throw impl.Fail(e, QStringLiteral("the file cannot be read"));
        }
    }
    return facts;
}

void Refuse(ConfigDatabase::Impl& impl, const FileFacts& facts, bool readOnly) {
    const int latest = DatabaseSchema::LatestVersion();
    if (facts.verdict != QLatin1String("ok"))
        throw impl.Error("the file is damaged: " + facts.verdict);
    if (facts.applicationId != 0 && facts.applicationId != DatabaseSchema::ApplicationId)
        throw impl.Error(QStringLiteral("the file belongs to another program"));
    if (facts.applicationId == 0 && facts.tables > 0)
        throw impl.Error(QStringLiteral("the file is not a synchronisation database"));
    if (facts.version > latest)
        throw impl.Error(QStringLiteral("schema version %1 was written by a newer release; this "
                                        "release reads up to version %2")
                             .arg(facts.version)
                             .arg(latest));
    // Reading an old file with this release's queries would fail half-way or misread columns.
    if (readOnly && facts.version < latest)
        throw impl.Error(QStringLiteral("schema version %1 must be updated to %2 by opening the "
                                        "file for writing first")
                             .arg(facts.version)
                             .arg(latest));
}

void UseWal(ConfigDatabase::Impl& impl) {
    QString journal;
    try {
        journal = QString::fromStdString(
            impl.Connection().execAndGet("PRAGMA journal_mode = WAL").getString());
    } catch (const std::exception& e) {
        throw impl.Fail(e, QStringLiteral("cannot switch to WAL mode"));
    }
    if (journal.compare(QLatin1String("wal"), Qt::CaseInsensitive) != 0)
        throw impl.Error(QStringLiteral("cannot switch to WAL mode (%1)").arg(journal));
}

// Brings the file to the latest schema in one write transaction, which is also the proof that
// the file can be written: SQLite opens a file that it may not write read-only without a word.
// The version is read again under the write lock, so that two processes that open an old file
// at once migrate it once.
void Migrate(ConfigDatabase::Impl& impl) {
    auto& db = impl.Connection();
    const int level = impl.BeginLevel();
    int from = 0;
    int to = 0;
    QVector<int> applied;
    try {
        from = db.execAndGet("PRAGMA user_version").getInt();
        // Writes nothing new, but fails on a file that cannot be written.
        db.exec(QStringLiteral("PRAGMA user_version = %1").arg(from).toStdString());
        for (const auto& step : DatabaseSchema::Migrations()) {
            if (step.version <= from) continue;
            to = step.version;
            db.exec(step.sql);
            db.exec(QStringLiteral("PRAGMA application_id = %1; PRAGMA user_version = %2")
                        .arg(DatabaseSchema::ApplicationId)
                        .arg(step.version)
                        .toStdString());
            applied.append(step.version);
        }
        if (applied.isEmpty())
            impl.RollbackLevel(level);
        else
            impl.CommitLevel(level);
    } catch (const std::exception& e) {
        impl.RollbackLevel(level);
        if (ConfigDatabase::Impl::ResultCode(e) == SQLITE_READONLY)
            throw impl.Error(QStringLiteral("the file is read-only"));
        if (to == 0) throw impl.Fail(e, QStringLiteral("the file cannot be written"));
        throw impl.Error(QStringLiteral("could not update the schema from version %1 to %2: %3")
                             .arg(to - 1)
                             .arg(to)
                             .arg(QString::fromUtf8(e.what())));
    }
    for (int version : applied)
        SYNC_LOG_INFO("Configuration database %1 updated to schema version %2", impl.Path(),
                      version);
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
    if (path.isEmpty()) throw DatabaseException(path, QStringLiteral("no file name given"));
    const QFileInfo info(path);
    if (info.isDir()) throw DatabaseException(path, QStringLiteral("the path is a directory"));
    if (readOnly && !info.exists())
        throw DatabaseException(path, QStringLiteral("the file does not exist"));
    if (!readOnly && !QDir().mkpath(info.absolutePath()))
        throw DatabaseException(
            path, QStringLiteral("cannot create the directory %1").arg(info.absolutePath()));

    std::unique_ptr<SQLite::Database> db;
    try {
        // One thread uses a connection, so SQLite's per-call connection mutex is pure cost.
        const int flags =
            SQLite::OPEN_NOMUTEX |
            (readOnly ? SQLite::OPEN_READONLY : (SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE));
        db = std::make_unique<SQLite::Database>(QFile::encodeName(path).toStdString(), flags,
                                                DefaultBusyTimeoutMs);
    } catch (const std::exception& e) {
        throw DatabaseException(path, QStringLiteral("cannot be opened: %1").arg(e.what()));
    }
    auto impl = std::make_unique<Impl>(path, std::move(db), readOnly, DefaultBusyTimeoutMs);
    Refuse(*impl, ReadFacts(*impl), readOnly);

    // Reading the records of a large root walks tens of megabytes, more than any cache worth
    // its memory holds: the scan reads through it either way, and the pages come back from the
    // system's file cache. A small cache keeps the upper levels of the tables and indexes,
    // which is what lookups and updates by id or path need.
    impl->Exec("PRAGMA cache_size = -2048");
    if (!readOnly) {
        Migrate(*impl);
        UseWal(*impl);
        // FULL: a committed batch must survive a power cut, because the files on disk already
        // reflect it.
        impl->Exec("PRAGMA synchronous = FULL");
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
    return _impl->Path();
}

bool ConfigDatabase::IsReadOnly() const {
    return _impl->ReadOnly();
}

int ConfigDatabase::SchemaVersion() const {
    try {
        return _impl->Connection().execAndGet("PRAGMA user_version").getInt();
    } catch (const std::exception& e) {
        throw _impl->Fail(e);
    }
}

void ConfigDatabase::CopyTo(const QString& path) const {
    try {
        SQLite::Statement copy(_impl->Connection(), "VACUUM INTO ?");
        copy.bind(1, QFile::encodeName(path).toStdString());
        copy.exec();
    } catch (const std::exception& e) {
        throw _impl->Fail(e, QStringLiteral("cannot copy the database to %1").arg(path));
    }
}

int ConfigDatabase::LatestSchemaVersion() {
    return DatabaseSchema::LatestVersion();
}

bool ConfigDatabase::InTransaction() const {
    return _impl->InTransaction();
}

int ConfigDatabase::BusyTimeoutMs() const {
    return _impl->BusyTimeoutMs();
}

void ConfigDatabase::SetBusyTimeoutMs(int milliseconds) {
    _impl->SetBusyTimeoutMs(milliseconds);
}

}  // namespace database
}  // namespace sync
