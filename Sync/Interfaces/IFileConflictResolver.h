#pragma once

#include <memory>

#include "EntryInfoTree.h"
#include "EntryInfoTreeChange.h"
#include "FileConfiguration.h"

namespace sync {
namespace syncService {
class SyncTaskDepot;
}
namespace interf {

// Turns one (server action, local action) pair of a file into its task.
class IFileConflictResolver {
public:
    virtual ~IFileConflictResolver() = default;
    virtual void Resolve(sync::config::FileConfiguration& serverRecord,
                         sync::config::FileConfiguration& localRecord,
                         std::shared_ptr<sync::syncService::EntryInfoTree> localTree,
                         std::shared_ptr<sync::syncService::EntryInfoTree> configTree,
                         std::shared_ptr<sync::syncService::EntryInfoTree> serverTree,
                         std::shared_ptr<sync::syncService::EntryInfoTreeChange> serverChange,
                         std::shared_ptr<sync::syncService::EntryInfoTreeChange> localChange,
                         sync::syncService::SyncTaskDepot& depot) = 0;
};

}  // namespace interf
}  // namespace sync
