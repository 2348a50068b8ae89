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
class TreeRelease {
public:
    TreeRelease() = default;
    ~TreeRelease();
    TreeRelease(const TreeRelease&) = delete;
    TreeRelease& operator=(const TreeRelease&) = delete;

    // Takes the trees out of the given pointers, which are left empty, and returns how many were
    // handed to the thread. Pointers rather than values: a braced list of shared pointers is
    // copied, never moved, and its copies would keep every tree alive here.
    int Release(std::initializer_list<std::shared_ptr<EntryInfoTree>*> trees);

private:
    void _Wait();

    std::vector<std::thread> _threads;
};

}  // namespace syncService
}  // namespace sync
