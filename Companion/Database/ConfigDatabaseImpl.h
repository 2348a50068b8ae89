#pragma once

// Internal to the database library: the connection that the managers share, with its
// statement cache, its transaction levels and its failure bookkeeping. Not for the host.

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <QString>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "ConfigDatabase.h"
#include "DatabaseException.h"
#include "OperationSavepoint.h"
#include "Query.h"
#include "RecordCodec.h"
#include "ServerConfiguration.h"

namespace sync {
namespace database {

class ConfigDatabase::Impl {
public:
    Impl(const QString& path, std::unique_ptr<SQLite::Database> db, bool readOnly,
         int busyTimeoutMs);
    ~Impl();

    const QString& Path() const { return _path; }
    bool ReadOnly() const { return _readOnly; }
    SQLite::Database& Connection() { return *_db; }

    int BusyTimeoutMs() const { return _busyTimeoutMs; }
    void SetBusyTimeoutMs(int milliseconds);

    // The connection for a manager operation. Throws, once, the failure of a batch that a
    // scope lost when it ended (ReportLostBatch); the operation after that runs normally.
    Impl& Checked();
    // Keeps a lost batch's reason for the next Checked().
    void ReportLostBatch(const QString& reason) noexcept;

    // The prepared statement for sql, made on first use. sql must be a string with static
    // storage: its address is the cache key. Throws while a transaction is aborted (see Fail).
    SQLite::Statement& Prepared(const char* sql);
    // Runs statements that return no rows. Transactions go through the levels below, never
    // through here, so that InTransaction() stays true to the connection.
    void Exec(const char* sql);

    // Transaction levels: the first is a BEGIN IMMEDIATE transaction, the ones inside it are
    // savepoints. BeginLevel answers the new level's number. A level ends by CommitLevel or
    // RollbackLevel, innermost first. CommitLevel throws on failure and leaves the level open
    // for RollbackLevel, which never throws.
    int BeginLevel();
    void CommitLevel(int level);
    void RollbackLevel(int level) noexcept;
    bool InTransaction() const { return !_levels.empty(); }

    // A second, read-only connection to the same file, opened on first use, for the half of a
    // large read that another thread runs while this connection reads the other half. It sees
    // what is committed, so it is only for reads outside a transaction. Null when none can be
    // opened; the caller then reads everything here.
    Impl* ReadingPeer();

    // An exception naming the file.
    DatabaseException Error(const QString& what) const;
    // Translates a failure of the SQLite library into an exception naming the file and what
    // happened (doing may be empty). After a failure that lets SQLite roll the whole
    // transaction back on its own (full disk, I/O error, out of memory, lock timeout), the
    // transaction is rolled back here for certain and every statement throws until its levels
    // have ended: the rest of the batch must not run outside a transaction, one write at a time.
    DatabaseException Fail(const std::exception& e, const QString& doing = QString());
    // SQLite's primary result code of a failure, 0 when it did not come from SQLite.
    static int ResultCode(const std::exception& e);

private:
    QString _path;
    // Declared before the statements so that they are finalized before the connection closes.
    std::unique_ptr<SQLite::Database> _db;
    std::unordered_map<const char*, std::unique_ptr<SQLite::Statement>> _statements;
    bool _readOnly = false;
    int _busyTimeoutMs = 0;
    // One entry per open level: false for the transaction, true for a savepoint.
    std::vector<bool> _levels;
    // Set while the open transaction has been rolled back after a failure.
    std::optional<QString> _aborted;
    std::optional<QString> _lostBatch;
    std::unique_ptr<Impl> _peer;
    bool _peerFailed = false;
};

// The account record with that id (id -1 when none); AuthenticationConfigManager writes them.
sync::config::ServerConfiguration ReadAccountById(ConfigDatabase::Impl& impl, int authenticationId);

}  // namespace database
}  // namespace sync
