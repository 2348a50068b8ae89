#include "TreeRelease.h"

#include <system_error>
#include <utility>

namespace sync {
namespace syncService {

namespace {

// What a tree holds, moved out of the tree: the tree itself is a QObject and goes on the
// thread that made it, its plain containers may go on any.
struct Contents {
    explicit Contents(EntryInfoTree& tree)
        : folderMap(std::move(tree.folderMap)),
          fileMap(std::move(tree.fileMap)),
          excludedFolderKeys(std::move(tree.excludedFolderKeys)),
          excludedFileKeys(std::move(tree.excludedFileKeys)),
          clashingFolderKeys(std::move(tree.clashingFolderKeys)),
          clashingFileKeys(std::move(tree.clashingFileKeys)) {}

    QHash<QString, sync::config::FolderConfiguration> folderMap;
    QHash<QString, sync::config::FileConfiguration> fileMap;
    QSet<QString> excludedFolderKeys;
    QSet<QString> excludedFileKeys;
    QSet<QString> clashingFolderKeys;
    QSet<QString> clashingFileKeys;
};

}  // namespace

TreeRelease::~TreeRelease() {
    _Wait();
}

int TreeRelease::Release(std::initializer_list<std::shared_ptr<EntryInfoTree>*> trees) {
    _Wait();
    _threads.reserve(trees.size());
    int taken = 0;
    for (std::shared_ptr<EntryInfoTree>* owner : trees) {
        // Taken from the caller, so that the count below is of the real owners.
        std::shared_ptr<EntryInfoTree> tree = std::move(*owner);
        // Another owner still reads it: its records stay where they are.
        if (!tree || tree.use_count() > 1) continue;
        // One thread per tree: each tree's texts were mostly made by threads of their own (the
        // walk, the database read, the listing), so the frees mostly go to different heaps of
        // the allocator instead of queueing for one.
        auto contents = std::make_unique<Contents>(*tree);
        ++taken;
        try {
            _threads.emplace_back([released = std::move(contents)]() mutable { released.reset(); });
        } catch (const std::system_error&) {
            // No thread to be had: the records are freed here, as they always could be.
        }
    }
    return taken;
}

void TreeRelease::_Wait() {
    for (std::thread& thread : _threads)
        if (thread.joinable()) thread.join();
    _threads.clear();
}

}  // namespace syncService
}  // namespace sync
