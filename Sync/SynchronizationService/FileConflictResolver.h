#pragma once

#include <memory>

#include "ConflictMatrix.h"
#include "IFileConflictResolver.h"
#include "SyncTaskDepot.h"

namespace sync {
namespace syncService {

// Carries out one cell of the file matrix; every resolver instance calls it with its own cell.
void ResolveFileCell(const matrix::Cell& cell, sync::config::FileConfiguration& serverRecord,
                     sync::config::FileConfiguration& localRecord,
                     std::shared_ptr<EntryInfoTree> localTree,
                     std::shared_ptr<EntryInfoTree> configTree,
                     std::shared_ptr<EntryInfoTree> serverTree,
                     std::shared_ptr<EntryInfoTreeChange> serverChange,
                     std::shared_ptr<EntryInfoTreeChange> localChange, SyncTaskDepot& depot);

// The resolver of one file pair: S is the server action, L the local action. Stateless; what
// it does is its row of matrix::kFileMatrix.
template <EntryAction S, EntryAction L>
class FileConflictResolver : public sync::interf::IFileConflictResolver {
public:
    static constexpr matrix::Cell kCell = matrix::CellOf(matrix::kFileMatrix, S, L);
    static_assert(kCell.server == S && kCell.local == L && !(S == NoChange && L == NoChange),
                  "only the pairs of the file matrix have a resolver");

    void Resolve(sync::config::FileConfiguration& serverRecord,
                 sync::config::FileConfiguration& localRecord,
                 std::shared_ptr<EntryInfoTree> localTree,
                 std::shared_ptr<EntryInfoTree> configTree,
                 std::shared_ptr<EntryInfoTree> serverTree,
                 std::shared_ptr<EntryInfoTreeChange> serverChange,
                 std::shared_ptr<EntryInfoTreeChange> localChange, SyncTaskDepot& depot) override {
        ResolveFileCell(kCell, serverRecord, localRecord, std::move(localTree),
                        std::move(configTree), std::move(serverTree), std::move(serverChange),
                        std::move(localChange), depot);
    }
};

}  // namespace syncService
}  // namespace sync
