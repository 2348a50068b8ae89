#include "TreeRelease.h"

#include <atomic>
#include <mutex>
#include <system_error>
#include <utility>

namespace sync {
namespace syncService {

// What a tree holds, moved out of the tree: the tree itself is a QObject and goes on the
// thread that made it, its plain containers may go on any.
struct TreeRelease::Contents {
    explicit Contents(EntryInfoTree& tree)
        : folderMap(std::move(tree.folderMap)),
          fileMap(std::move(tree.fileMap)),
          excludedFolderKeys(std::move(tree.excludedFolderKeys)),
          excludedFileKeys(std::move(tree.excludedFileKeys)),
          clashingFolderKeys(std::move(tree.clashingFolderKeys)),
          clashingFileKeys(std::move(tree.clashingFileKeys)) {}

    QHash<QString, sync::config::FolderConfiguration> folderMap;
    decltype(EntryInfoTree::fileMap) fileMap;
    QSet<QString> excludedFolderKeys;
    QSet<QString> excludedFileKeys;
    QSet<QString> clashingFolderKeys;
    QSet<QString> clashingFileKeys;
};

namespace {

std::atomic<TreeRelease::LastTrees> g_lastTrees{TreeRelease::LastTrees::Freed};

// Trees left to the end of the process. Reachable from here, so that a leak checker does not
// take them for lost, and never destroyed: freeing them is the work this saves.
void LeaveToProcessExit(std::vector<std::unique_ptr<TreeRelease::Contents>> trees) {
    static std::mutex mutex;
    static auto* const kept = new std::vector<std::unique_ptr<TreeRelease::Contents>>();
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto& tree : trees) kept->push_back(std::move(tree));
}

}  // namespace

void TreeRelease::SetLastTrees(LastTrees policy) {
    g_lastTrees = policy;
}

TreeRelease::TreeRelease() = default;

TreeRelease::~TreeRelease() {
    _Wait();
    if (!_kept.empty()) LeaveToProcessExit(std::move(_kept));
}

void TreeRelease::FreeKept() {
    std::vector<std::unique_ptr<Contents>> kept;
    kept.swap(_kept);
    for (auto& contents : kept) _Free(std::move(contents));
}

int TreeRelease::Release(std::initializer_list<std::shared_ptr<EntryInfoTree>*> trees) {
    _Wait();
    FreeKept();
    const bool keep = g_lastTrees == LastTrees::LeftToProcessExit;
    int taken = 0;
    for (std::shared_ptr<EntryInfoTree>* owner : trees) {
        // Taken from the caller, so that the count below is of the real owners.
        std::shared_ptr<EntryInfoTree> tree = std::move(*owner);
        // Another owner still reads it: its records stay where they are.
        if (!tree || tree.use_count() > 1) continue;
        auto contents = std::make_unique<Contents>(*tree);
        ++taken;
        if (keep)
            _kept.push_back(std::move(contents));
        else
            _Free(std::move(contents));
    }
    return taken;
}

void TreeRelease::_Free(std::unique_ptr<Contents> contents) {
    // One thread per tree: each tree's texts were mostly made by threads of their own (the
    // walk, the database read, the listing), so the frees mostly go to different heaps of the
    // allocator instead of queueing for one.
    try {
        _threads.emplace_back([released = std::move(contents)]() mutable { released.reset(); });
    } catch (const std::system_error&) {
        // No thread to be had: the records are freed here, as they always could be.
    }
}

void TreeRelease::_Wait() {
    for (std::thread& thread : _threads)
        if (thread.joinable()) thread.join();
    _threads.clear();
}

}  // namespace syncService
}  // namespace sync
