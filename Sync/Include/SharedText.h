#pragma once

namespace sync {
namespace config {

// Makes mine the same implicitly shared value as theirs when the two are equal: the value
// reads the same, and this record's own copy of it is freed.
template <typename Value>
void ShareText(Value& mine, const Value& theirs) {
    if (mine.isSharedWith(theirs) || mine.isEmpty() || mine != theirs) return;
    mine = theirs;
}

}  // namespace config
}  // namespace sync
