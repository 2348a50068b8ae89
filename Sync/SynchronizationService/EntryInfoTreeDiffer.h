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
    void _DiffConfigFiles(const QList<QString>& configKeys, EntryInfoTree& configTree,
                          EntryInfoTree& otherTree, bool checkDownloadPrivilege,
                          EntryInfoTreeChange& change);
    void _DiffNewFiles(const QList<QString>& otherKeys, EntryInfoTree& configTree,
                       EntryInfoTree& otherTree, EntryInfoTreeChange& change);
    void _DiffConfigFolders(const QList<QString>& configKeys, EntryInfoTree& configTree,
                            EntryInfoTree& otherTree, EntryInfoTreeChange& change);
    void _DiffNewFolders(const QList<QString>& otherKeys, EntryInfoTree& configTree,
                         EntryInfoTree& otherTree, EntryInfoTreeChange& change);
};

}  // namespace syncService
}  // namespace sync
