#pragma once

#include <initializer_list>
#include <memory>
#include <thread>
#include <vector>

#include "EntryInfoTree.h"

namespace sync {
namespace syncService {

// Freeing the three trees of a large root takes a tenth of a second that the rest of the cycle
// need not wait for. Trees that nobody else holds are emptied here and their records freed on
// threads of their own while the cycle goes on; a tree still held elsewhere is just let go.
// The threads are waited for before the next release and when the object goes.
//
// A program that ends right after its cycle can leave the last root's trees to the end of the
// process instead (LeaveLastToProcessExit): they are then kept, reachable, until the process
// ends, and only the trees of a root that another root follows are freed.
class TreeRelease {
public:
    enum class LastTrees { Freed, LeftToProcessExit };
    // For the whole process; Freed unless the program says otherwise.
    static void SetLastTrees(LastTrees policy);

    TreeRelease();
    ~TreeRelease();
    TreeRelease(const TreeRelease&) = delete;
    TreeRelease& operator=(const TreeRelease&) = delete;

    // Takes the trees out of the given pointers, which are left empty, and returns how many were
    // taken (to be freed on threads, or kept). Pointers rather than values: a braced list of
    // shared pointers is copied, never moved, and its copies would keep every tree alive here.
    int Release(std::initializer_list<std::shared_ptr<EntryInfoTree>*> trees);
    // Frees the trees kept from an earlier release, on threads; for a cycle that goes on to
    // another root.
    void FreeKept();

    struct Contents;

private:
    void _Free(std::unique_ptr<Contents> contents);
    void _Wait();

    std::vector<std::thread> _threads;
    std::vector<std::unique_ptr<Contents>> _kept;
};

}  // namespace syncService
}  // namespace sync
