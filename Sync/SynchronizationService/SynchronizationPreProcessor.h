#pragma once

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <memory>

#include "FileConfiguration.h"
#include "ICoreFactory.h"
#include "ICryptographicHash.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IQFileWrapper.h"
#include "ISynchronizationPreProcessor.h"

namespace sync {
namespace syncService {

// Repairs what an interrupted run left behind before the trees of a root folder are diffed:
// folder records still marked Synchronizing or OutOfSync, file records of downloads and local
// deletions that were under way, and the downloads' temporary files. The config tree is changed
// in place, so that the differs see the repaired state. Only temporary files are ever removed
// from the disk, never a file at its real path.
class SynchronizationPreProcessor : public sync::interf::ISynchronizationPreProcessor {
    Q_OBJECT
public:
    SynchronizationPreProcessor(
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager);
    ~SynchronizationPreProcessor() override = default;

    // The server tree is not used.
    void PreProcess(std::shared_ptr<EntryInfoTree> localTree,
                    std::shared_ptr<EntryInfoTree> configTree,
                    std::shared_ptr<EntryInfoTree> serverTree) override;

private:
    void _ResetFolders(EntryInfoTree& configTree);
    // rootPath is the root folder's local path; empty when unknown, and temporary files are
    // then left alone.
    void _ResetFiles(const EntryInfoTree& localTree, EntryInfoTree& configTree,
                     const QString& rootPath);
    // A is the file, B its temporary partner. checksum is set to A's hash when the hashes had
    // to be compared; it is left as it is when size and time decided.
    bool _TwoFilesAreTheSame(std::shared_ptr<sync::interf::IQFileWrapper> a,
                             std::shared_ptr<sync::interf::IQFileWrapper> b, QString& checksum);
    static bool _ConfigHasNoChecksum(const sync::config::FileConfiguration& file);
    void _UpdateDbAndClearupFolder(decltype(EntryInfoTree::fileMap)& configFiles,
                                   QList<QString>& removeKeys, QList<QString>& updateKeys,
                                   QSet<QString>& folders, const QString& rootPath);
    // The temporary partner of the file set in file, or empty when there can be none.
    QString _TemporaryFileOf(sync::interf::IQFileWrapper& file, const QString& rootPath);
    void _ClearTemporaryFolder(const QString& folder);

    std::shared_ptr<sync::interf::ICryptographicHash> _cryptographicHash;
    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
};

}  // namespace syncService
}  // namespace sync
