#pragma once

#include <QVector>
#include <memory>

#include "ICoreFactory.h"
#include "IEntryInfoTreeRetriever.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "ISyncFilter.h"

namespace sync {
namespace syncService {

// The server's view of a root folder, without the entries the sync filters exclude or whose
// local counterpart's path would be too long for the disk.
class ServerEntryInfoTreeRetriever : public sync::interf::IEntryInfoTreeRetriever {
    Q_OBJECT
public:
    ServerEntryInfoTreeRetriever(
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory>
            remoteFolderManagerFactory,
        std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory,
        std::shared_ptr<sync::interf::ISyncFilter> fileFilter,
        std::shared_ptr<sync::interf::ISyncFilter> folderFilter);
    ~ServerEntryInfoTreeRetriever() override = default;

    // Throws sync::http::HttpException when the server cannot list the root.
    std::shared_ptr<EntryInfoTree> GetEntryInfoTree(
        sync::config::FolderConfiguration& root) override;
    bool IsTreeModified() const override { return treeModified; }

    // False when the last retrieval learnt nothing new about the server: it answered "not
    // modified", or the root-only listing failed. The server's changes are then not diffed.
    bool treeModified = true;

private:
    void _GetEntryInfoTree(sync::config::FolderConfiguration& root, EntryInfoTree& tree);
    void _GetRootEntryInfo(sync::config::FolderConfiguration& root, EntryInfoTree& tree);
    // Adds the listed entries that pass the filters; false when stopped by an exit request.
    bool _AddFiles(QVector<sync::config::FileConfiguration>& files, EntryInfoTree& tree,
                   sync::interf::ICheckForExit& checkForExit, int& filteredCount);
    // Reports each entry of a letter-case clash as filtered out.
    void _ReportClash(const QStringList& paths, bool folders);
    bool _AddFolders(const QVector<sync::config::FolderConfiguration>& folders, EntryInfoTree& tree,
                     sync::interf::ICheckForExit& checkForExit, int& filteredCount);
    bool _FilterFile(const sync::config::FileConfiguration& file);
    bool _FilterFolder(const QString& path);
    bool _FilterFileNameByMaxLength(const sync::config::FileConfiguration& file);
    bool _FilterFolderNameByMaxLength(const sync::config::FolderConfiguration& folder);

    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> _remoteFolderManagerFactory;
    std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> _remoteFileManagerFactory;
    std::shared_ptr<sync::interf::ISyncFilter> _fileFilter;
    std::shared_ptr<sync::interf::ISyncFilter> _folderFilter;
};

}  // namespace syncService
}  // namespace sync
