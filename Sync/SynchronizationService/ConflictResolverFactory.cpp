#include "ConflictResolverFactory.h"

#include <utility>

#include "FileConflictResolver.h"
#include "FolderConflictResolver.h"
#include "SyncException.h"

namespace sync {
namespace syncService {

namespace {

// One resolver per row of the matrix, so the instances cannot drift from the table.
template <template <EntryAction, EntryAction> class Resolver, typename Interface,
          const matrix::Matrix& Rows, std::size_t... I>
void BuildFromRows(QHash<int, QHash<int, std::shared_ptr<Interface>>>& hash,
                   std::index_sequence<I...>) {
    (hash[Rows[I].server].insert(Rows[I].local,
                                 std::make_shared<Resolver<Rows[I].server, Rows[I].local>>()),
     ...);
}

template <typename Interface>
std::shared_ptr<Interface> Find(const QHash<int, QHash<int, std::shared_ptr<Interface>>>& hash,
                                EntryAction serverAction, EntryAction localAction,
                                const char* error) {
    auto resolver = hash.value(serverAction).value(localAction);
    if (!resolver) throw sync::core::SyncException(QString::fromLatin1(error));
    return resolver;
}

}  // namespace

ConflictResolverFactory::ConflictResolverFactory() {
    InitFileResolvers();
    InitFolderResolvers();
}

ConflictResolverFactory::~ConflictResolverFactory() = default;

void ConflictResolverFactory::InitFileResolvers() {
    BuildFromRows<FileConflictResolver, sync::interf::IFileConflictResolver, matrix::kFileMatrix>(
        _fileResolvers, std::make_index_sequence<matrix::kFileMatrix.size()>());
}

void ConflictResolverFactory::InitFolderResolvers() {
    BuildFromRows<FolderConflictResolver, sync::interf::IFolderConflictResolver,
                  matrix::kFolderMatrix>(_folderResolvers,
                                         std::make_index_sequence<matrix::kFolderMatrix.size()>());
}

std::shared_ptr<sync::interf::IFileConflictResolver>
ConflictResolverFactory::CreateFileConflictResolver(EntryAction serverAction,
                                                    EntryAction localAction) {
    return Find(_fileResolvers, serverAction, localAction, "Invalid file action pair");
}

std::shared_ptr<sync::interf::IFolderConflictResolver>
ConflictResolverFactory::CreateFolderConflictResolver(EntryAction serverAction,
                                                      EntryAction localAction) {
    return Find(_folderResolvers, serverAction, localAction, "Invalid folder action pair");
}

}  // namespace syncService
}  // namespace sync
