#pragma once

#include <QString>
#include <cstring>

namespace sync {
namespace config {

// Whether two texts hold the same UTF-16 units, which is what QString's == answers; memcmp is
// several times faster at it, and a planning pass compares every path of a tree this way.
inline bool SameText(const QString& a, const QString& b) {
    return a.size() == b.size() &&
           std::memcmp(a.constData(), b.constData(), sizeof(QChar) * std::size_t(a.size())) == 0;
}

// Makes mine the same implicitly shared value as theirs when the two are equal: the value
// reads the same, and this record's own copy of it is freed.
template <typename Value>
void ShareText(Value& mine, const Value& theirs) {
    if (mine.isSharedWith(theirs) || mine.isEmpty() || mine != theirs) return;
    mine = theirs;
}

inline void ShareText(QString& mine, const QString& theirs) {
    if (mine.isSharedWith(theirs) || mine.isEmpty() || !SameText(mine, theirs)) return;
    mine = theirs;
}

// The last component of a path. With Qt 6 it is the end of the path's own text, which a
// string may start inside of: a tree's name then costs no memory of its own. Changing either
// string still copies it first, as for any shared text.
inline QString LastComponentOf(const QString& path) {
    const qsizetype from = path.lastIndexOf(QLatin1Char('/')) + 1;
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    QString::DataPointer whole = path.data_ptr();
    auto* header = whole.d_ptr();
    if (!header || from == 0) return from == 0 ? path : path.mid(from);
    header->ref();  // the tail's own reference; `whole` gives back the one it took
    return QString(QString::DataPointer(header, whole.data() + from, whole.size - from));
#else
    return path.mid(from);
#endif
}

}  // namespace config
}  // namespace sync
