#pragma once

#include <QHash>
#include <QObject>
#include <memory>

#include "IConflictResolverFactory.h"

namespace sync {
namespace syncService {

// Builds the resolver of every (server action, local action) pair once, from the rows of the
// two matrices, and hands out the same object for a pair every time.
class ConflictResolverFactory : public sync::interf::factory::IConflictResolverFactory {
    Q_OBJECT
public:
    ConflictResolverFactory();
    ~ConflictResolverFactory() override;

    // Throw sync::core::SyncException for (NoChange, NoChange) and values outside the enum.
    std::shared_ptr<sync::interf::IFileConflictResolver> CreateFileConflictResolver(
        EntryAction serverAction, EntryAction localAction) override;
    std::shared_ptr<sync::interf::IFolderConflictResolver> CreateFolderConflictResolver(
        EntryAction serverAction, EntryAction localAction) override;

    void InitFileResolvers();
    void InitFolderResolvers();

private:
    template <typename Resolver>
    using ResolverHash = QHash<int, QHash<int, std::shared_ptr<Resolver>>>;

    ResolverHash<sync::interf::IFileConflictResolver> _fileResolvers;
    ResolverHash<sync::interf::IFolderConflictResolver> _folderResolvers;
};

}  // namespace syncService
}  // namespace sync
