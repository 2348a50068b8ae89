#pragma once

#include <memory>

#include "ConflictMatrix.h"
#include "IFolderConflictResolver.h"
#include "SyncTaskDepot.h"

namespace sync {
namespace syncService {

// Carries out one cell of the folder matrix; every resolver instance calls it with its own
// cell.
void ResolveFolderCell(const matrix::Cell& cell, sync::config::FolderConfiguration& serverRecord,
                       sync::config::FolderConfiguration& localRecord,
                       std::shared_ptr<EntryInfoTree> localTree,
                       std::shared_ptr<EntryInfoTree> configTree,
                       std::shared_ptr<EntryInfoTree> serverTree,
                       std::shared_ptr<EntryInfoTreeChange> serverChange,
                       std::shared_ptr<EntryInfoTreeChange> localChange, SyncTaskDepot& depot);

// True when the change set holds, below folder (at any depth, without regard to case), a new
// folder or a new or modified file.
bool HasNewContentBelow(const EntryInfoTreeChange& change, const QString& folder);

// The resolver of one folder pair: S is the server action, L the local action. Stateless; what
// it does is its row of matrix::kFolderMatrix.
template <EntryAction S, EntryAction L>
class FolderConflictResolver : public sync::interf::IFolderConflictResolver {
public:
    static constexpr matrix::Cell kCell = matrix::CellOf(matrix::kFolderMatrix, S, L);
    static_assert(kCell.server == S && kCell.local == L && !(S == NoChange && L == NoChange),
                  "only the pairs of the folder matrix have a resolver");

    void Resolve(sync::config::FolderConfiguration& serverRecord,
                 sync::config::FolderConfiguration& localRecord,
                 std::shared_ptr<EntryInfoTree> localTree,
                 std::shared_ptr<EntryInfoTree> configTree,
                 std::shared_ptr<EntryInfoTree> serverTree,
                 std::shared_ptr<EntryInfoTreeChange> serverChange,
                 std::shared_ptr<EntryInfoTreeChange> localChange, SyncTaskDepot& depot) override {
        ResolveFolderCell(kCell, serverRecord, localRecord, std::move(localTree),
                          std::move(configTree), std::move(serverTree), std::move(serverChange),
                          std::move(localChange), depot);
    }
};

}  // namespace syncService
}  // namespace sync
