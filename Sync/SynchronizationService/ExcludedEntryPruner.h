#pragma once

#include <QString>

#include "EntryInfoTree.h"

namespace sync {
namespace syncService {

// Takes the entries that the local or the server retriever left out by a rule out of all three
// trees before they are diffed. A record whose entry was only left out (hidden entries switched
// off, a filter added, a name clash in letter case) must not look deleted on that side, and the
// other side's copy must not be downloaded or uploaded over it: the record stays as it is and
// neither copy is touched. The engine's own temporary and backup folders are left out here too,
// whichever tree holds them, but for the generated files that the local retriever adds.
class ExcludedEntryPruner {
public:
    // rootServerPath: the root folder's serverPath; the root itself is never taken out.
    // Returns the number of entries taken out of the three trees together.
    static int Prune(const QString& rootServerPath, EntryInfoTree& configTree,
                     EntryInfoTree& localTree, EntryInfoTree& serverTree);
};

}  // namespace syncService
}  // namespace sync
