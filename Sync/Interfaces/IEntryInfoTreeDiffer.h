#pragma once

#include <QObject>

#include "EntryInfoTree.h"
#include "EntryInfoTreeChange.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"

namespace sync {
namespace interf {

// Diffs a side's tree against the config tree under that side's rules. The trees are only
// read; the rules receive copies of records and may change them.
class IEntryInfoTreeDiffer : public QObject {
    Q_OBJECT
public:
    ~IEntryInfoTreeDiffer() override = default;
    // checkDownloadPrivilege: true for the server side, where a file the account may no longer
    // download counts as deleted.
    virtual sync::syncService::EntryInfoTreeChange Diff(
        sync::syncService::EntryInfoTree& configTree, sync::syncService::EntryInfoTree& otherTree,
        bool checkDownloadPrivilege) = 0;
    virtual bool DetectFileModified(sync::config::FileConfiguration& configFile,
                                    sync::config::FileConfiguration& otherFile) = 0;
    virtual bool DetectFileAdded(sync::config::FileConfiguration& otherFile,
                                 sync::syncService::EntryInfoTree& configTree,
                                 sync::syncService::EntryInfoTree& otherTree) = 0;
    virtual bool DetectFileDeleted(sync::config::FileConfiguration& configFile) = 0;
    virtual bool DetectFolderAdded(sync::config::FolderConfiguration& folder,
                                   sync::syncService::EntryInfoTree& configTree,
                                   sync::syncService::EntryInfoTree& otherTree) = 0;
    virtual bool DetectFolderDeleted(sync::config::FolderConfiguration& configFolder) = 0;
};

}  // namespace interf
}  // namespace sync
