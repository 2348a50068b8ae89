#pragma once

#include <memory>

#include "EntryInfoTree.h"
#include "EntryInfoTreeChange.h"
#include "FolderConfiguration.h"

namespace sync {
namespace syncService {
class SyncTaskDepot;
}
namespace interf {

// Turns one (server action, local action) pair of a folder into its task.
class IFolderConflictResolver {
public:
    virtual ~IFolderConflictResolver() = default;
    virtual void Resolve(sync::config::FolderConfiguration& serverRecord,
                         sync::config::FolderConfiguration& localRecord,
                         std::shared_ptr<sync::syncService::EntryInfoTree> localTree,
                         std::shared_ptr<sync::syncService::EntryInfoTree> configTree,
                         std::shared_ptr<sync::syncService::EntryInfoTree> serverTree,
                         std::shared_ptr<sync::syncService::EntryInfoTreeChange> serverChange,
                         std::shared_ptr<sync::syncService::EntryInfoTreeChange> localChange,
                         sync::syncService::SyncTaskDepot& depot) = 0;
};

}  // namespace interf
}  // namespace sync
