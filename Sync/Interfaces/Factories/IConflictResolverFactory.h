#pragma once

#include <QObject>
#include <memory>

#include "EntryAction.h"
#include "IFileConflictResolver.h"
#include "IFolderConflictResolver.h"

namespace sync {
namespace interf {
namespace factory {

// Hands out the resolver of each (server action, local action) pair.
class IConflictResolverFactory : public QObject {
    Q_OBJECT
public:
    ~IConflictResolverFactory() override = default;
    // Throws sync::core::SyncException "Invalid file action pair" for (NoChange, NoChange)
    // and values outside the enum.
    virtual std::shared_ptr<IFileConflictResolver> CreateFileConflictResolver(
        sync::syncService::EntryAction serverAction,
        sync::syncService::EntryAction localAction) = 0;
    // Throws sync::core::SyncException "Invalid folder action pair" likewise.
    virtual std::shared_ptr<IFolderConflictResolver> CreateFolderConflictResolver(
        sync::syncService::EntryAction serverAction,
        sync::syncService::EntryAction localAction) = 0;
};

}  // namespace factory
}  // namespace interf
}  // namespace sync
