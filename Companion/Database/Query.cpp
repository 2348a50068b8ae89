#include "Query.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>

#include "ConfigDatabaseImpl.h"

namespace sync {
namespace database {

Query::Query(ConfigDatabase::Impl& db, const char* sql) : _db(db), _stmt(db.Prepared(sql)) {}

Query::~Query() {
    _stmt.tryReset();
    try {
        _stmt.clearBindings();
    } catch (...) {
        // Only fails on a finalized statement; the next use binds every parameter anyway.
    }
}

template <typename F>
void Query::_Guard(F&& bind) {
    try {
        bind();
    } catch (const std::exception& e) {
        throw _db.Fail(e);
    }
}

void Query::Bind(int index, int value) {
    _Guard([&] { _stmt.bind(index, static_cast<int32_t>(value)); });
}

void Query::Bind(int index, qint64 value) {
    _Guard([&] { _stmt.bind(index, static_cast<int64_t>(value)); });
}

void Query::Bind(int index, const QString& value) {
    // Most values are ASCII (ids, checksums, most paths): copied byte by byte they spare the
    // allocation of a UTF-8 copy per value, which a batch of records pays tens of times each.
    const QChar* chars = value.constData();
    const auto length = static_cast<size_t>(value.size());
    _text.resize(length);
    size_t i = 0;
    for (; i < length && chars[i].unicode() < 0x80; ++i)
        _text[i] = static_cast<char>(chars[i].unicode());
    if (i < length) {
        const QByteArray utf8 = value.toUtf8();
        _text.assign(utf8.constData(), static_cast<size_t>(utf8.size()));
    }
    _Guard([&] { _stmt.bind(index, _text); });
}

void Query::BindBlob(int index, const QByteArray& value) {
    if (value.isNull()) {
        BindNull(index);
        return;
    }
    _Guard([&] { _stmt.bind(index, value.constData(), static_cast<int>(value.size())); });
}

void Query::BindNull(int index) {
    _Guard([&] { _stmt.bind(index); });
}

bool Query::Step() {
    try {
        return _stmt.executeStep();
    } catch (const std::exception& e) {
        throw _db.Fail(e);
    }
}

void Query::Run() {
    while (Step()) {
    }
}

int Query::Changes() const {
    return _db.Connection().getChanges();
}

qint64 Query::LastInsertId() const {
    return _db.Connection().getLastInsertRowid();
}

void Query::_MakeColumns() const {
    // getColumn checks that a row is there and that the index is in range; the handles stay
    // valid for every later row.
    const int count = _stmt.getColumnCount();
    _columns.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) _columns.push_back(_stmt.getColumn(i));
}

void Query::_OutOfRange(int column, qint64 value) const {
    throw _db.Error(QStringLiteral("column %1 of a stored row holds %2, more than it can hold")
                        .arg(QString::fromUtf8(_stmt.getColumnName(column)))
                        .arg(value));
}

QString Query::Text(int column) const {
    const SQLite::Column& value = Value(column);
    const char* text = value.getText(nullptr);
    if (!text) return QString();
    return QString::fromUtf8(text, value.getBytes());
}

QByteArray Query::Blob(int column) const {
    const SQLite::Column& value = Value(column);
    const void* data = value.getBlob();
    if (!data) return QByteArray();
    return QByteArray(static_cast<const char*>(data), value.getBytes());
}

}  // namespace database
}  // namespace sync
