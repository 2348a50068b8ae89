#pragma once

#include <QSet>
#include <QString>
#include <QStringList>
#include <memory>

#include "EntryInfoTree.h"
#include "EntryInfoTreeChange.h"
#include "ICheckForExit.h"
#include "IConflictResolverFactory.h"
#include "ICoreFactory.h"
#include "IEntryInfoTreeDiffer.h"
#include "IEntryInfoTreeRetriever.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "ISyncConfiguration.h"
#include "ISynchronizationPreProcessor.h"
#include "ISynchronizeRunner.h"
#include "SyncTaskDepot.h"
#include "TreeRelease.h"

namespace sync {
namespace syncService {

// Plans one root folder: builds its three trees, records what is already in step on both
// sides, diffs each side against the database, and hands every entry's pair of actions to the
// conflict matrix, which fills the depot. Keeps no state between calls.
class SynchronizeRunner : public sync::interf::ISynchronizeRunner {
    Q_OBJECT
public:
    SynchronizeRunner(std::shared_ptr<sync::interf::factory::IConflictResolverFactory> resolvers,
                      std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localRetriever,
                      std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> configRetriever,
                      std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverRetriever,
                      std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> localDiffer,
                      std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> serverDiffer,
                      std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
                      std::shared_ptr<sync::interf::ISynchronizationPreProcessor> preProcessor,
                      std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                      std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
                      std::shared_ptr<sync::interf::ISyncConfiguration> syncConfiguration);
    ~SynchronizeRunner() override;

    std::shared_ptr<SyncTaskDepot> Process(sync::config::FolderConfiguration& root) override;

    // Parents before children: serverPath order without regard to letter case.
    static bool LessThan(const sync::config::FolderConfiguration& a,
                         const sync::config::FolderConfiguration& b);

private:
    using TreePtr = std::shared_ptr<EntryInfoTree>;
    using ChangePtr = std::shared_ptr<EntryInfoTreeChange>;

    // Entry counts of one change set for the summaries, and the first entries of each list
    // for the dumps. Only what is printed is kept: a change set can hold every file of a root.
    struct ChangeList {
        int count = 0;
        QStringList firstPaths;
    };
    enum ChangeKind { AddedKind, ModifiedKind, ReferencesOnlyKind, DeletedKind, KindCount };

    void _CopyPrivilegesFromServerToLocalFiles(const TreePtr& serverTree, const TreePtr& localTree);
    void _AddSynchronizedFilesAndFoldersToDatabase(const TreePtr& localTree,
                                                   const TreePtr& serverTree,
                                                   const TreePtr& configTree,
                                                   const sync::config::FolderConfiguration& root);
    void _AddSynchronizedFolders(const TreePtr& localTree, const TreePtr& serverTree,
                                 const TreePtr& configTree,
                                 const sync::config::FolderConfiguration& root);
    void _AddSynchronizedFiles(const TreePtr& localTree, const TreePtr& serverTree,
                               const TreePtr& configTree,
                               const sync::config::FolderConfiguration& root);
    void _UpdateFileAndFolderPropertiesInDatabase(const TreePtr& configTree,
                                                  const TreePtr& serverTree,
                                                  const SyncTaskDepot& depot);
    void _LogThreeTrees(const sync::config::FolderConfiguration& root, const TreePtr& localTree,
                        const TreePtr& configTree, const TreePtr& serverTree);
    void _LogTree(const sync::config::FolderConfiguration& root, const TreePtr& tree);
    void _LogTwoChangeLists(const sync::config::FolderConfiguration& root,
                            const ChangePtr& serverChange, const ChangePtr& localChange);
    void _GetListForLog(const EntryInfoTreeChange& change, bool serverPaths, bool folders,
                        ChangeList (&lists)[KindCount], int keepPaths) const;
    void _RemoveNewFiles(EntryInfoTreeChange& serverChange);
    void _ProcessFiles(const sync::config::FolderConfiguration& root, const TreePtr& localTree,
                       const TreePtr& configTree, const TreePtr& serverTree,
                       const ChangePtr& serverChange, const ChangePtr& localChange,
                       SyncTaskDepot& depot);
    void _ProcessFolders(const sync::config::FolderConfiguration& root, const TreePtr& localTree,
                         const TreePtr& configTree, const TreePtr& serverTree,
                         const ChangePtr& serverChange, const ChangePtr& localChange,
                         SyncTaskDepot& depot);
    void _HandOverFileIdentity(const sync::config::FolderConfiguration& root,
                               const TreePtr& configTree, sync::config::FileConfiguration& server,
                               sync::config::FileConfiguration& local, EntryAction serverAction,
                               EntryAction localAction);

    std::shared_ptr<sync::interf::factory::IConflictResolverFactory> _resolverFactory;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _localRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _configRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _serverRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> _localDiffer;
    std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> _serverDiffer;
    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
    std::shared_ptr<sync::interf::ISynchronizationPreProcessor> _preProcessor;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::ISyncConfiguration> _syncConfiguration;
    // Not planning state: only frees the trees of the last pass while the cycle goes on.
    TreeRelease _treeRelease;
};

}  // namespace syncService
}  // namespace sync
