#pragma once

#include <memory>

#include "IEntryInfoTreeRetriever.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"

namespace sync {
namespace syncService {

// The database's view of a root folder: every file and folder record as stored after the last
// synchronisation. Records that describe the same path twice are removed from the database
// while the tree is built, keeping the one the database returns last.
class ConfigEntryInfoTreeRetriever : public sync::interf::IEntryInfoTreeRetriever {
    Q_OBJECT
public:
    ConfigEntryInfoTreeRetriever(
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager);
    ~ConfigEntryInfoTreeRetriever() override = default;

    std::shared_ptr<EntryInfoTree> GetEntryInfoTree(
        sync::config::FolderConfiguration& root) override;

private:
    // A record that a later one of the same key replaced in the tree.
    struct ReplacedFile {
        int id;
        QString localPath;
    };
    void _RemoveDuplicateFiles(int duplicates, QVector<ReplacedFile>& replaced);
    void _RemoveDuplicateFolders(const QVector<sync::config::FolderConfiguration>& folders,
                                 const EntryInfoTree& tree);

    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
};

}  // namespace syncService
}  // namespace sync
