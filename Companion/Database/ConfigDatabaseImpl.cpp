#include "ConfigDatabaseImpl.h"

#include <SQLiteCpp/Exception.h>

#include <QFile>
// For the names of SQLite's result codes that SQLite::Exception reports.
#include <sqlite3.h>

#include <string>

#include "SyncLog.h"

namespace sync {
namespace database {

namespace {

std::string SavepointName(int level) {
    return "level_" + std::to_string(level);
}

// After these SQLite may have rolled back the whole transaction by itself.
bool EndsTheTransaction(int code) {
    return code == SQLITE_FULL || code == SQLITE_IOERR || code == SQLITE_NOMEM ||
           code == SQLITE_BUSY || code == SQLITE_INTERRUPT;
}

}  // namespace

ConfigDatabase::Impl::Impl(const QString& path, std::unique_ptr<SQLite::Database> db, bool readOnly,
                           int busyTimeoutMs)
    : _path(path), _db(std::move(db)), _readOnly(readOnly), _busyTimeoutMs(busyTimeoutMs) {}

ConfigDatabase::Impl::~Impl() {
    // A transaction left open (a scope still alive when the database closes) is undone, as
    // closing the connection would do anyway; said here so that it does not pass unnoticed.
    if (!_levels.empty()) {
        SYNC_LOG_ERROR("Configuration database %1 closed inside a transaction; its writes are lost",
                       _path);
        RollbackLevel(0);
    }
}

ConfigDatabase::Impl* ConfigDatabase::Impl::ReadingPeer() {
    if (_peer || _peerFailed) return _peer.get();
    try {
        auto db = std::make_unique<SQLite::Database>(QFile::encodeName(_path).toStdString(),
                                                     SQLite::OPEN_READONLY | SQLite::OPEN_NOMUTEX,
                                                     _busyTimeoutMs);
        _peer = std::make_unique<Impl>(_path, std::move(db), true, _busyTimeoutMs);
        _peer->Exec("PRAGMA cache_size = -2048");
    } catch (const std::exception& e) {
        // Reads then run on this connection alone, as they always could.
        SYNC_LOG_DEBUG("No second connection to %1: %2", _path, QString::fromUtf8(e.what()));
        _peer.reset();
        _peerFailed = true;
    }
    return _peer.get();
}

void ConfigDatabase::Impl::SetBusyTimeoutMs(int milliseconds) {
    _db->setBusyTimeout(milliseconds);
    _busyTimeoutMs = milliseconds;
    if (_peer) _peer->SetBusyTimeoutMs(milliseconds);
}

ConfigDatabase::Impl& ConfigDatabase::Impl::Checked() {
    if (_lostBatch) {
        const QString reason = *_lostBatch;
        _lostBatch.reset();
        throw Error(reason);
    }
    return *this;
}

void ConfigDatabase::Impl::ReportLostBatch(const QString& reason) noexcept {
    try {
        _lostBatch = QStringLiteral(
                         "a batch of writes was rolled back because it could not be "
                         "committed: %1")
                         .arg(reason);
    } catch (...) {
    }
}

SQLite::Statement& ConfigDatabase::Impl::Prepared(const char* sql) {
    if (_aborted) throw Error(*_aborted);
    auto it = _statements.find(sql);
    if (it != _statements.end()) return *it->second;
    try {
        auto statement = std::make_unique<SQLite::Statement>(*_db, sql);
        return *_statements.emplace(sql, std::move(statement)).first->second;
    } catch (const std::exception& e) {
        throw Fail(e);
    }
}

void ConfigDatabase::Impl::Exec(const char* sql) {
    if (_aborted) throw Error(*_aborted);
    try {
        _db->exec(sql);
    } catch (const std::exception& e) {
        throw Fail(e);
    }
}

int ConfigDatabase::Impl::BeginLevel() {
    if (_aborted) throw Error(*_aborted);
    const int level = static_cast<int>(_levels.size());
    try {
        _db->exec(level == 0 ? std::string("BEGIN IMMEDIATE")
                             : "SAVEPOINT " + SavepointName(level));
    } catch (const std::exception& e) {
        throw Fail(e, QStringLiteral("cannot begin a transaction"));
    }
    _levels.push_back(level != 0);
    return level;
}

void ConfigDatabase::Impl::CommitLevel(int level) {
    if (level != static_cast<int>(_levels.size()) - 1)
        throw Error(QStringLiteral("transaction level %1 ended out of order").arg(level));
    if (_aborted) throw Error(*_aborted);
    try {
        _db->exec(_levels.back() ? "RELEASE " + SavepointName(level) : std::string("COMMIT"));
    } catch (const std::exception& e) {
        throw Fail(e, QStringLiteral("cannot commit a transaction"));
    }
    _levels.pop_back();
}

void ConfigDatabase::Impl::RollbackLevel(int level) noexcept {
    if (level < 0 || level >= static_cast<int>(_levels.size())) return;
    // Levels inside this one that nobody ended go with it.
    const bool savepoint = _levels[level];
    _levels.resize(level);
    if (!_aborted) {
        // A ROLLBACK after SQLite already rolled back fails with "no transaction is active";
        // that is the state wanted, so only other failures are worth a line.
        const std::string name = SavepointName(level);
        const int rc = savepoint ? _db->tryExec("ROLLBACK TO " + name + "; RELEASE " + name)
                                 : _db->tryExec("ROLLBACK");
        if (rc != SQLITE_OK && _db->getErrorCode() != SQLITE_ERROR) {
            SYNC_LOG_ERROR("Failed to roll back a transaction on configuration database %1: %2",
                           _path, _db->getErrorMsg());
        }
    }
    if (_levels.empty()) _aborted.reset();
}

int ConfigDatabase::Impl::ResultCode(const std::exception& e) {
    const auto* sqliteError = dynamic_cast<const SQLite::Exception*>(&e);
    return sqliteError ? sqliteError->getErrorCode() & 0xff : 0;
}

DatabaseException ConfigDatabase::Impl::Error(const QString& what) const {
    return DatabaseException(_path, what);
}

DatabaseException ConfigDatabase::Impl::Fail(const std::exception& e, const QString& doing) {
    if (const auto* known = dynamic_cast<const DatabaseException*>(&e)) return *known;
    const int code = ResultCode(e);
    QString what = QString::fromUtf8(e.what());
    if (code == SQLITE_BUSY) {
        what = QStringLiteral(
                   "the file is locked by another process; gave up after waiting %1 ms "
                   "(%2)")
                   .arg(_busyTimeoutMs)
                   .arg(what);
    } else if (code == SQLITE_FULL) {
        what = QStringLiteral("the disk is full (%1)").arg(what);
    } else if (code == SQLITE_READONLY) {
        what = QStringLiteral("the file cannot be written (%1)").arg(what);
    }
    if (!doing.isEmpty()) what = doing + QStringLiteral(": ") + what;
    if (!_levels.empty() && !_aborted && EndsTheTransaction(code)) {
        _db->tryExec("ROLLBACK");
        _aborted =
            QStringLiteral("the open transaction was rolled back after a failure: %1").arg(what);
        SYNC_LOG_ERROR("Configuration database %1: %2", _path, *_aborted);
    }
    return Error(what);
}

}  // namespace database
}  // namespace sync
