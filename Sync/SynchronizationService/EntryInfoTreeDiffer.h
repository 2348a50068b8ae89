#pragma once

#include "IEntryInfoTreeDiffer.h"

namespace sync {
namespace syncService {

// Walks the config tree and one side's tree and asks the side's rules what each difference
// means. The walk is fixed here; subclasses supply the five rules.
class EntryInfoTreeDiffer : public sync::interf::IEntryInfoTreeDiffer {
    Q_OBJECT
public:
    EntryInfoTreeDiffer() = default;
    ~EntryInfoTreeDiffer() override = default;

    EntryInfoTreeChange Diff(EntryInfoTree& configTree, EntryInfoTree& otherTree,
                             bool checkDownloadPrivilege) override;

protected:
    // True only when the side's rules would find the pair unchanged without reading the file
    // or logging anything. The walk then compares in place instead of copying both records for
    // the rules: nearly every file of a large root is in step.
    virtual bool IsFileSurelyUnchanged(const sync::config::FileConfiguration& configFile,
                                       const sync::config::FileConfiguration& otherFile) const {
        (void)configFile;
        (void)otherFile;
        return false;
    }

private:
    using FileMap = decltype(EntryInfoTree::fileMap);
    using FolderMap = QHash<QString, sync::config::FolderConfiguration>;

    // Each pass returns how many entries of the other side it found in the config tree, so
    // that the passes over new entries can be skipped when there are none.
    int _DiffConfigFiles(const FileMap& configFiles, const FileMap& otherFiles,
                         EntryInfoTree& configTree, EntryInfoTree& otherTree,
                         bool checkDownloadPrivilege, EntryInfoTreeChange& change);
    void _DiffNewFiles(const FileMap& configFiles, const FileMap& otherFiles,
                       EntryInfoTree& configTree, EntryInfoTree& otherTree,
                       EntryInfoTreeChange& change);
    int _DiffConfigFolders(const FolderMap& configFolders, const FolderMap& otherFolders,
                           EntryInfoTree& configTree, EntryInfoTree& otherTree,
                           EntryInfoTreeChange& change);
    void _DiffNewFolders(const FolderMap& configFolders, const FolderMap& otherFolders,
                         EntryInfoTree& configTree, EntryInfoTree& otherTree,
                         EntryInfoTreeChange& change);
};

}  // namespace syncService
}  // namespace sync
