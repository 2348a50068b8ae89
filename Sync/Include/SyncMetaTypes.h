#pragma once

#include "SyncEnums.h"
#include "SyncResults.h"

namespace sync {
namespace core {

// Registers the types that cross threads in queued signals, under both the short and the
// qualified names that signal signatures use. Call before the first connection is made.
void RegisterSyncMetaTypes();

}  // namespace core
}  // namespace sync
