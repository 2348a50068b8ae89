#pragma once

#include <QDir>
#include <QDirIterator>
#include <memory>

#include "ICoreFactory.h"
#include "IEntryInfoTreeRetriever.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IQDirWrapper.h"
#include "ISyncFilter.h"

namespace sync {
namespace syncService {

// The local disk's view of a root folder. Leaves out the engine's own temporary and backup
// folders, symbolic links, hidden entries (unless the root asks for them), entries the sync
// filters reject and entries whose path is too long for the disk; adds the generated files the
// database records for the root, repairing those that are gone or orphaned.
class LocalEntryInfoTreeRetriever : public sync::interf::IEntryInfoTreeRetriever {
    Q_OBJECT
public:
    LocalEntryInfoTreeRetriever(
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::ISyncFilter> fileFilter,
        std::shared_ptr<sync::interf::ISyncFilter> folderFilter);
    ~LocalEntryInfoTreeRetriever() override = default;

    // Throws sync::core::SyncException when the root's directory is missing; lets the
    // walker's SyncException for an unreadable folder through, as skipping that folder would
    // make its content look deleted.
    std::shared_ptr<EntryInfoTree> GetEntryInfoTree(
        sync::config::FolderConfiguration& root) override;

private:
    bool _RootFolderAppearsMissing(const sync::config::FolderConfiguration& root,
                                   const std::shared_ptr<sync::interf::IQDirWrapper>& dirWrapper);
    bool _FilterFile(const QString& filePath, const QString& pathBelowRoot, qint64 size);
    bool _FilterFolder(const QString& rootLocalPath, const QString& folderPath);
    bool _FilterFileNameByMaxLength(const sync::config::FileConfiguration& file);
    bool _FilterFolderNameByMaxLength(const sync::config::FolderConfiguration& folder);
    // Reports each entry of a letter-case clash as filtered out.
    void _ReportClash(const QStringList& paths, bool folders);
    // Adds the generated files that still exist and still belong to a file record.
    void _AddGeneratedFiles(const sync::config::FolderConfiguration& root, EntryInfoTree& tree,
                            sync::interf::ICheckForExit& checkForExit);

    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
    std::shared_ptr<sync::interf::ISyncFilter> _fileFilter;
    std::shared_ptr<sync::interf::ISyncFilter> _folderFilter;
};

}  // namespace syncService
}  // namespace sync
