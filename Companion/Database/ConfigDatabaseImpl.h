#pragma once

// Internal to the database library: the connection, the statement cache and the typed column
// helpers that the managers share. Not for the host.

#include <SQLiteCpp/Database.h>
#include <sqlite3.h>
#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QVector>
#include <memory>
#include <stdexcept>
#include <unordered_map>

#include "ConfigDatabase.h"
#include "FileLink.h"
#include "ServerConfiguration.h"

namespace sync {
namespace database {

class ConfigDatabase::Impl {
public:
    Impl(const QString& path, std::unique_ptr<SQLite::Database> db, bool readOnly)
        : path(path), db(std::move(db)), readOnly(readOnly) {}

    sqlite3* Handle() const { return db->getHandle(); }
    // The prepared statement for sql, made on first use. sql must be a string with static
    // storage: its address is the cache key.
    sqlite3_stmt* Prepared(const char* sql);
    // Runs statements that return no rows (schema changes, transaction control).
    void Exec(const char* sql);
    // An error text that names the file.
    std::runtime_error Error(const QString& what) const;
    std::runtime_error Error(const std::exception& e) const { return Error(QString(e.what())); }

    QString path;
    std::unique_ptr<SQLite::Database> db;
    bool readOnly = false;

private:
    struct Finalize {
        void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
    };
    // Declared after db so that the statements are finalized before the connection closes.
    std::unordered_map<const char*, std::unique_ptr<sqlite3_stmt, Finalize>> _statements;
};

// One use of a cached statement: binds, steps, reads columns, and resets the statement when
// it ends so that no read stays open (an open read would pin the WAL snapshot).
class Query {
public:
    Query(ConfigDatabase::Impl& db, const char* sql) : _db(db), _stmt(db.Prepared(sql)) {}
    ~Query() {
        sqlite3_reset(_stmt);
        sqlite3_clear_bindings(_stmt);
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    void Bind(int index, int value) { _Check(sqlite3_bind_int(_stmt, index, value)); }
    void Bind(int index, qint64 value) { _Check(sqlite3_bind_int64(_stmt, index, value)); }
    void Bind(int index, bool value) { Bind(index, value ? 1 : 0); }
    void Bind(int index, const QString& value);
    void BindBlob(int index, const QByteArray& value);
    void BindNull(int index) { _Check(sqlite3_bind_null(_stmt, index)); }
    // Takes two parameters: index (milliseconds since the epoch) and index + 1 (time spec).
    void BindTime(int index, const QDateTime& value);

    // True while a row is available.
    bool Step();
    // Runs a statement that returns no row.
    void Run();
    // Rows changed by the last Run.
    int Changes() const { return sqlite3_changes(_db.Handle()); }
    qint64 LastInsertId() const { return sqlite3_last_insert_rowid(_db.Handle()); }

    int Int(int column) const { return sqlite3_column_int(_stmt, column); }
    qint64 Int64(int column) const { return sqlite3_column_int64(_stmt, column); }
    bool IsNull(int column) const { return sqlite3_column_type(_stmt, column) == SQLITE_NULL; }
    QString Text(int column) const;
    QByteArray Blob(int column) const;
    // Reads what BindTime wrote: column and column + 1.
    QDateTime Time(int column) const;

private:
    void _Check(int rc);
    ConfigDatabase::Impl& _db;
    sqlite3_stmt* _stmt;
};

// A savepoint around one manager operation that needs several statements; rolled back unless
// Release() is reached.
class OperationSavepoint {
public:
    explicit OperationSavepoint(ConfigDatabase::Impl& db);
    ~OperationSavepoint();
    void Release();

private:
    ConfigDatabase::Impl& _db;
    bool _released = false;
};

// The account record with that id (id -1 when none); AuthenticationConfigManager writes them.
sync::config::ServerConfiguration ReadAccountById(ConfigDatabase::Impl& impl, int authenticationId);

// Values the records keep in one column.
namespace codec {
QByteArray EncodeProperties(const QMap<QString, QString>& properties);
QMap<QString, QString> DecodeProperties(const QByteArray& blob);
QByteArray EncodeFileLinks(const QList<sync::config::FileLink>& links);
QList<sync::config::FileLink> DecodeFileLinks(const QByteArray& blob);
QByteArray EncodeStrings(const QVector<QString>& strings);
QVector<QString> DecodeStrings(const QByteArray& blob);
// The key under which local paths are looked up without regard to case.
inline QString PathKey(const QString& localPath) {
    return localPath.toLower();
}
}  // namespace codec

}  // namespace database
}  // namespace sync
