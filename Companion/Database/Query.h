#pragma once

#include <SQLiteCpp/Column.h>
#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <string>
#include <vector>

#include "ConfigDatabase.h"

namespace sync {
namespace database {

// One use of a cached prepared statement: binds parameters, steps, reads columns, and resets
// the statement when it ends so that no read stays open (an open read would pin the WAL
// snapshot). Every failure is thrown as a DatabaseException naming the file.
class Query {
public:
    Query(ConfigDatabase::Impl& db, const char* sql);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    void Bind(int index, int value);
    void Bind(int index, qint64 value);
    void Bind(int index, bool value) { Bind(index, value ? 1 : 0); }
    void Bind(int index, const QString& value);
    // A null array binds NULL.
    void BindBlob(int index, const QByteArray& value);
    void BindNull(int index);

    // True while a row is available.
    bool Step();
    // Runs a statement that returns no row.
    void Run();
    // Rows changed by the last Run.
    int Changes() const;
    qint64 LastInsertId() const;

    // A stored number that an int cannot hold is refused (DatabaseException), not cut: a cut
    // id or reference would name another record.
    int Int(int column) const {
        const qint64 value = Value(column).getInt64();
        if (value != static_cast<int>(value)) _OutOfRange(column, value);
        return static_cast<int>(value);
    }
    qint64 Int64(int column) const { return Value(column).getInt64(); }
    bool IsNull(int column) const { return Value(column).isNull(); }
    bool IsText(int column) const { return Value(column).isText(); }
    // A null string for NULL.
    QString Text(int column) const;
    QByteArray Blob(int column) const;
    // A column of the current row, for a reader that asks it several things.
    const SQLite::Column& Value(int column) const {
        if (_columns.empty()) _MakeColumns();
        Q_ASSERT(column >= 0 && static_cast<size_t>(column) < _columns.size());
        return _columns[static_cast<size_t>(column)];
    }

private:
    // Runs a bind, translating its failure.
    template <typename F>
    void _Guard(F&& bind);
    void _MakeColumns() const;
    [[noreturn]] void _OutOfRange(int column, qint64 value) const;

    ConfigDatabase::Impl& _db;
    SQLite::Statement& _stmt;
    // A column handle reads whatever row the statement stands on, so one handle per column
    // serves every row. Each handle shares ownership of the statement; making one per value
    // read made reading a large root some 15% slower.
    mutable std::vector<SQLite::Column> _columns;
    // Reused for every text parameter: the statement copies what is bound.
    std::string _text;
};

}  // namespace database
}  // namespace sync
