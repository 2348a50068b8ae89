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

}  // namespace config
}  // namespace sync
