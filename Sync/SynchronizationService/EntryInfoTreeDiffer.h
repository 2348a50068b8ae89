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

private:
    using FileMap = QHash<QString, sync::config::FileConfiguration>;
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
