#pragma once

#include "EntryInfoTreeDiffer.h"

namespace sync {
namespace syncService {

// The server side's rules: what counts as a server change, and which downloads must wait
// (a local file open for writing, or no download privilege).
class ServerConfigTreeDiffer : public EntryInfoTreeDiffer {
    Q_OBJECT
public:
    ServerConfigTreeDiffer() = default;
    ~ServerConfigTreeDiffer() override = default;

    bool DetectFileModified(sync::config::FileConfiguration& configFile,
                            sync::config::FileConfiguration& serverFile) override;
    bool DetectFileAdded(sync::config::FileConfiguration& serverFile, EntryInfoTree& configTree,
                         EntryInfoTree& serverTree) override;
    bool DetectFileDeleted(sync::config::FileConfiguration& configFile) override;
    bool DetectFolderAdded(sync::config::FolderConfiguration& folder, EntryInfoTree& configTree,
                           EntryInfoTree& serverTree) override;
    bool DetectFolderDeleted(sync::config::FolderConfiguration& configFolder) override;

    // A content change that may be downloaded now.
    bool DetectFileContentModified(sync::config::FileConfiguration& configFile,
                                   sync::config::FileConfiguration& serverFile);
    bool IsFileContentModified(sync::config::FileConfiguration& configFile,
                               sync::config::FileConfiguration& serverFile);

protected:
    bool IsFileSurelyUnchanged(const sync::config::FileConfiguration& configFile,
                               const sync::config::FileConfiguration& serverFile) const override;
};

}  // namespace syncService
}  // namespace sync
