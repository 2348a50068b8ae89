#pragma once

namespace sync {
namespace syncService {

// What happened to an entry on one side since the last synchronisation. The values index
// the conflict matrix, so they are fixed.
enum EntryAction { NoChange = 0, Added = 1, Deleted = 2, Modified = 3 };

}  // namespace syncService
}  // namespace sync
