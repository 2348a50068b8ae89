#pragma once

#include <memory>

#include "EntryInfoTreeDiffer.h"
#include "ICryptographicHash.h"

namespace sync {
namespace syncService {

// The local side's rules: what counts as a local change, and which changes the account may
// not carry to the server (those are logged and left for the next cycle).
class LocalConfigTreeDiffer : public EntryInfoTreeDiffer {
    Q_OBJECT
public:
    LocalConfigTreeDiffer();
    ~LocalConfigTreeDiffer() override = default;

    bool DetectFileModified(sync::config::FileConfiguration& configFile,
                            sync::config::FileConfiguration& localFile) override;
    bool DetectFileAdded(sync::config::FileConfiguration& localFile, EntryInfoTree& configTree,
                         EntryInfoTree& localTree) override;
    bool DetectFileDeleted(sync::config::FileConfiguration& configFile) override;
    bool DetectFolderAdded(sync::config::FolderConfiguration& folder, EntryInfoTree& configTree,
                           EntryInfoTree& localTree) override;
    bool DetectFolderDeleted(sync::config::FolderConfiguration& configFolder) override;

    // A content change that the account may upload.
    bool DetectFileContentModified(sync::config::FileConfiguration& configFile,
                                   sync::config::FileConfiguration& localFile);
    bool IsFileContentModified(sync::config::FileConfiguration& configFile,
                               sync::config::FileConfiguration& localFile);

private:
    // The nearest ancestor of serverPath that exists on the server may take uploads. An
    // ancestor that refuses them is returned in refusingAncestor, spelt as in serverPath.
    bool _AncestorAllowsUpload(const QString& serverPath, EntryInfoTree& configTree,
                               QString& refusingAncestor) const;

    std::shared_ptr<sync::interf::ICryptographicHash> _hash;

protected:
    bool IsFileSurelyUnchanged(const sync::config::FileConfiguration& configFile,
                               const sync::config::FileConfiguration& localFile) const override;
};

}  // namespace syncService
}  // namespace sync
