#include "SynchronizeRunner.h"

#include <algorithm>

#include "ExcludedEntryPruner.h"
#include "FolderUtilities.h"
#include "ParallelScan.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

using FileMap = decltype(EntryInfoTree::fileMap);

const QString kVersion = QStringLiteral("version");
const QString kVersionId = QStringLiteral("versionId");
const int kListCut = 25;

bool TraceEnabled() {
    return sync::core::SyncLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL);
}

bool DebugEnabled() {
    return sync::core::SyncLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL);
}

bool IsEmpty(const std::shared_ptr<EntryInfoTreeChange>& change) {
    return !change || (change->_fileActionMap.isEmpty() && change->_folderActionMap.isEmpty());
}

// The folder that holds an entry: from the config tree, or the root itself, which the config
// tree need not hold.
const FolderConfiguration* ParentFolder(const EntryInfoTree& configTree, const QString& serverPath,
                                        const FolderConfiguration& root) {
    const QString parentKey =
        EntryInfoTree::KeyOf(sync::core::FolderUtilities::GetParentFolderPath(serverPath));
    if (parentKey == EntryInfoTree::KeyOf(root.serverPath)) return &root;
    const auto it = configTree.folderMap.constFind(parentKey);
    return it == configTree.folderMap.constEnd() ? nullptr : &*it;
}

bool IsContentVersion(const QString& key) {
    return key == kVersion || key == kVersionId;
}

// True when both maps hold the same entries apart from the content versions. Compared in place:
// this runs for every entry of the root, and nearly always finds them equal.
template <typename Map>
bool SameAttributes(const Map& server, const Map& config) {
    auto s = server.constBegin();
    auto c = config.constBegin();
    for (;;) {
        while (s != server.constEnd() && IsContentVersion(s.key())) ++s;
        while (c != config.constEnd() && IsContentVersion(c.key())) ++c;
        if (s == server.constEnd() || c == config.constEnd())
            return s == server.constEnd() && c == config.constEnd();
        if (s.key() != c.key() || s.value() != c.value()) return false;
        ++s;
        ++c;
    }
}

// The server's attributes that do not describe content, with the content versions the
// database holds: those are written only by the transfers, so that a failed transfer is seen
// again in the next cycle.
template <typename Map>
Map WithContentVersionsOf(const Map& serverProperties, const Map& configProperties) {
    Map merged = serverProperties;
    merged.remove(kVersion);
    merged.remove(kVersionId);
    for (const QString& key : {kVersion, kVersionId}) {
        const auto it = configProperties.constFind(key);
        if (it != configProperties.constEnd()) merged.insert(key, *it);
    }
    return merged;
}

}  // namespace

SynchronizeRunner::SynchronizeRunner(
    std::shared_ptr<sync::interf::factory::IConflictResolverFactory> resolvers,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> configRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> localDiffer,
    std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> serverDiffer,
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::ISynchronizationPreProcessor> preProcessor,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::ISyncConfiguration> syncConfiguration)
    : _resolverFactory(std::move(resolvers)),
      _localRetriever(std::move(localRetriever)),
      _configRetriever(std::move(configRetriever)),
      _serverRetriever(std::move(serverRetriever)),
      _localDiffer(std::move(localDiffer)),
      _serverDiffer(std::move(serverDiffer)),
      _coreFactory(std::move(coreFactory)),
      _preProcessor(std::move(preProcessor)),
      _fileConfigManager(std::move(fileConfigManager)),
      _folderConfigManager(std::move(folderConfigManager)),
      _syncConfiguration(std::move(syncConfiguration)) {}

SynchronizeRunner::~SynchronizeRunner() = default;

bool SynchronizeRunner::LessThan(const FolderConfiguration& a, const FolderConfiguration& b) {
    return a.serverPath.compare(b.serverPath, Qt::CaseInsensitive) < 0;
}

std::shared_ptr<SyncTaskDepot> SynchronizeRunner::Process(FolderConfiguration& root) {
    const auto checkForExit = _coreFactory->CreateCheckForExit();
    auto depot = std::make_shared<SyncTaskDepot>();
    // Trees an earlier root left for the end of the process are freed while this one is read.
    _treeRelease.FreeKept();
    if (checkForExit->ShouldExit()) return depot;

    TreePtr localTree = _localRetriever->GetEntryInfoTree(root);
    if (!localTree) return depot;
    if (checkForExit->ShouldExit()) return depot;
    // The three trees name the same paths: each record read for the next trees takes the
    // strings of the trees already built where its texts are equal, as it is read, so that one
    // copy of each lives and the memory of the copy read is reused by the next record.
    EntryInfoTree::TextSource texts(localTree);
    TreePtr configTree = _configRetriever->GetEntryInfoTree(root);
    if (checkForExit->ShouldExit()) return depot;
    texts.Add(configTree);
    TreePtr serverTree = _serverRetriever->GetEntryInfoTree(root);
    const bool serverTreeModified = _serverRetriever->IsTreeModified();
    if (checkForExit->ShouldExit()) return depot;
    // Without one of the trees every entry would look added or deleted on that side.
    if (!configTree || !serverTree) return depot;
    // What either side left out by a rule must not look deleted to the differs.
    ExcludedEntryPruner::Prune(root.serverPath, *configTree, *localTree, *serverTree);

    _CopyPrivilegesFromServerToLocalFiles(serverTree, localTree);
    _AddSynchronizedFilesAndFoldersToDatabase(localTree, serverTree, configTree, root);
    Q_EMIT ConfigDataRetrieved(localTree.get(), configTree.get(), serverTree.get());
    _preProcessor->PreProcess(localTree, configTree, serverTree);
    _LogThreeTrees(root, localTree, configTree, serverTree);

    const ChangePtr serverChange = serverTreeModified
                                       ? std::make_shared<EntryInfoTreeChange>(
                                             _serverDiffer->Diff(*configTree, *serverTree, true))
                                       : std::make_shared<EntryInfoTreeChange>();
    const ChangePtr localChange =
        std::make_shared<EntryInfoTreeChange>(_localDiffer->Diff(*configTree, *localTree, false));
    if (checkForExit->ShouldExit()) return depot;

    if (root.hasSyncOption(sync::config::SkipDownloadingNewFiles)) {
        SYNC_LOG_INFO(
            "Root folder %1 has SkipDownloadingNewFiles option set. Skipping download of all new "
            "files.",
            root.localPath);
        _RemoveNewFiles(*serverChange);
    }
    _LogTwoChangeLists(root, serverChange, localChange);
    _ProcessFiles(root, localTree, configTree, serverTree, serverChange, localChange, *depot);
    _ProcessFolders(root, localTree, configTree, serverTree, serverChange, localChange, *depot);
    _UpdateFileAndFolderPropertiesInDatabase(configTree, serverTree, *depot);
    _treeRelease.Release({&localTree, &configTree, &serverTree});
    return depot;
}

void SynchronizeRunner::_CopyPrivilegesFromServerToLocalFiles(const TreePtr& serverTree,
                                                              const TreePtr& localTree) {
    // Found first, written after: the privileges rarely differ, and the search reads only.
    const auto& localFiles = std::as_const(localTree->fileMap);
    const auto differing = ParallelScan(serverTree->fileMap, [&](FileMap::const_iterator server) {
        const auto local = localFiles.constFind(server.key());
        return local != localFiles.constEnd() && local->privileges != server->privileges;
    });
    for (const auto& server : differing)
        localTree->fileMap[server.key()].privileges = server->privileges;
}

void SynchronizeRunner::_AddSynchronizedFilesAndFoldersToDatabase(const TreePtr& localTree,
                                                                  const TreePtr& serverTree,
                                                                  const TreePtr& configTree,
                                                                  const FolderConfiguration& root) {
    _AddSynchronizedFolders(localTree, serverTree, configTree, root);
    _AddSynchronizedFiles(localTree, serverTree, configTree, root);
}

void SynchronizeRunner::_AddSynchronizedFolders(const TreePtr& localTree, const TreePtr& serverTree,
                                                const TreePtr& configTree,
                                                const FolderConfiguration& root) {
    const QString rootKey = EntryInfoTree::KeyOf(root.serverPath);
    QList<FolderConfiguration> found;
    for (auto it = localTree->folderMap.constBegin(); it != localTree->folderMap.constEnd(); ++it) {
        if (it.key() == rootKey || configTree->folderMap.contains(it.key())) continue;
        const auto server = serverTree->folderMap.constFind(it.key());
        if (server == serverTree->folderMap.constEnd()) continue;
        FolderConfiguration folder = *it;
        folder.serverFolderId = server->serverFolderId;
        folder.privileges = server->privileges;
        folder.privilegeInfo = server->privilegeInfo;
        found.append(folder);
    }
    if (found.isEmpty()) return;
    // Parents first: a folder takes its parent's database id.
    std::sort(found.begin(), found.end(), &SynchronizeRunner::LessThan);

    QStringList added;
    {
        sync::database::TransactionalScope scope;
        for (FolderConfiguration& folder : found) {
            const FolderConfiguration* parent = ParentFolder(*configTree, folder.serverPath, root);
            if (!parent || parent->id < 0) continue;
            folder.parentId = parent->id;
            folder.inheritedId = parent->inheritedId;
            folder.rootId = parent->rootId;
            folder.authenticationId = root.authenticationId;
            folder.syncStatus = FolderSynchronizationStatus::Synchronized;
            if (!_folderConfigManager->AddFolder(folder)) continue;
            added.append(folder.localPath);
            EntryInfoTree::Put(configTree->folderMap, EntryInfoTree::KeyOf(folder.serverPath),
                               std::move(folder));
        }
        scope.commit();
    }
    if (added.isEmpty()) return;
    SYNC_LOG_INFO(
        "%1 folder(s) already exist in both local and server, but they don't exist in database. "
        "Adding them to database.",
        added.size());
    SYNC_LOG_DEBUG("List of folder(s) which exist in both local and server:\n%1",
                   sync::core::FolderUtilities::GetTruncatedList(added, kListCut));
}

void SynchronizeRunner::_AddSynchronizedFiles(const TreePtr& localTree, const TreePtr& serverTree,
                                              const TreePtr& configTree,
                                              const FolderConfiguration& root) {
    // Only a file whose size matches and for which the server names a checksum can be proven
    // equal; hashing any other file would cost a read for nothing.
    const auto& configFiles = std::as_const(configTree->fileMap);
    const auto& serverFiles = std::as_const(serverTree->fileMap);
    const auto found = ParallelScan(localTree->fileMap, [&](FileMap::const_iterator it) {
        if (configFiles.contains(it.key())) return false;
        const auto server = serverFiles.constFind(it.key());
        return server != serverFiles.constEnd() && !server->serverChecksum.isEmpty() &&
               server->size == it->size;
    });
    if (found.empty()) return;
    QStringList candidates;
    for (const auto& it : found) candidates.append(it.key());

    const auto hash = _coreFactory->CreateCryptographicHash();
    QStringList added;
    QStringList duplicates;
    {
        sync::database::TransactionalScope scope;
        for (const QString& key : candidates) {
            const FileConfiguration& local = localTree->fileMap.value(key);
            const FileConfiguration& server = serverTree->fileMap.value(key);
            const FolderConfiguration* folder = ParentFolder(*configTree, local.serverPath, root);
            if (!folder || folder->id < 0) continue;
            const QString checksum = hash->GetFileHash(local.localPath);
            if (checksum.isEmpty() ||
                checksum.compare(server.serverChecksum, Qt::CaseInsensitive) != 0)
                continue;

            const FileConfiguration existing =
                _fileConfigManager->GetFileByPath(local.localPath, root.authenticationId);
            if (existing.id != -1) {
                _fileConfigManager->RemoveFile(existing.id);
                duplicates.append(existing.localPath);
            }

            FileConfiguration file = local;
            file.id = -1;
            file.folderId = folder->id;
            file.rootId = folder->rootId;
            file.inheritedId = folder->inheritedId;
            file.serverFileId = server.serverFileId;
            file.serverChecksum = server.serverChecksum;
            for (const QString& property : {kVersion, kVersionId}) {
                const auto value = server.properties.constFind(property);
                if (value != server.properties.constEnd()) file.properties.insert(property, *value);
            }
            file.checksum = checksum;
            // Whole seconds in UTC, as the local rules compare them: the file is not hashed
            // again in this pass.
            QDateTime modified = local.lastModified.toUTC();
            modified.setMSecsSinceEpoch(modified.toMSecsSinceEpoch() - modified.time().msec());
            file.lastModified = modified;
            file.privileges = server.privileges;
            file.privilegeInfo = server.privilegeInfo;
            // Content in step, references not yet: the local rules report a references-only
            // change, and the upload settles it without sending the content.
            file.syncStatus = FileSynchronizationStatus::OutOfSync;
            file.transferDirection = 2;
            if (!_fileConfigManager->AddFile(file)) continue;
            added.append(file.localPath);
            EntryInfoTree::Put(configTree->fileMap, key, std::move(file));
        }
        scope.commit();
    }
    if (!added.isEmpty()) {
        SYNC_LOG_INFO(
            "%1 file(s) are already in sync, but they don't exist in database. Adding them to "
            "database. Only file link information will be synced for these files.",
            added.size());
        SYNC_LOG_DEBUG("List of file(s) which are already in sync:\n%1",
                       sync::core::FolderUtilities::GetTruncatedList(added, kListCut));
    }
    if (!duplicates.isEmpty()) {
        SYNC_LOG_INFO("%1 duplicate file(s) found in database and removed", duplicates.size());
        SYNC_LOG_DEBUG("List of duplicate file(s) which were removed:\n%1",
                       sync::core::FolderUtilities::GetTruncatedList(duplicates, kListCut));
    }
}

void SynchronizeRunner::_UpdateFileAndFolderPropertiesInDatabase(const TreePtr& configTree,
                                                                 const TreePtr& serverTree,
                                                                 const SyncTaskDepot& depot) {
    // An entry with a task is written by its task.
    QSet<QString> planned;
    for (int type = ServerFolderCreation; type <= FileConflictMarking; ++type) {
        if (const auto keys = depot.GetSyncTaskListKeys(static_cast<SyncTaskType>(type)))
            for (const QString& key : *keys) planned.insert(EntryInfoTree::KeyOf(key));
    }

    // Read first, write after: most passes write nothing, and the trees are read without
    // taking a private copy of them.
    const auto& serverFiles = std::as_const(serverTree->fileMap);
    const auto differing = ParallelScan(configTree->fileMap, [&](FileMap::const_iterator it) {
        if (it->id <= 0 || planned.contains(it.key())) return false;
        const auto server = serverFiles.constFind(it.key());
        return server != serverFiles.constEnd() &&
               (it->privileges != server->privileges ||
                it->privilegeInfo != server->privilegeInfo ||
                !SameAttributes(server->properties, it->properties));
    });
    QStringList files;
    for (const auto& it : differing) files.append(it.key());
    QStringList folders;
    for (auto it = configTree->folderMap.constBegin(); it != configTree->folderMap.constEnd();
         ++it) {
        if (it->id <= 0 || planned.contains(it.key())) continue;
        const auto server = serverTree->folderMap.constFind(it.key());
        if (server == serverTree->folderMap.constEnd()) continue;
        if (it->privileges != server->privileges || it->privilegeInfo != server->privilegeInfo ||
            it->serverFolderId != server->serverFolderId ||
            !SameAttributes(server->properties, it->properties))
            folders.append(it.key());
    }
    if (files.isEmpty() && folders.isEmpty()) return;

    sync::database::TransactionalScope scope;
    for (const QString& key : files) {
        const FileConfiguration& server = serverTree->fileMap.constFind(key).value();
        FileConfiguration& config = configTree->fileMap[key];
        config.privileges = server.privileges;
        config.privilegeInfo = server.privilegeInfo;
        config.properties = WithContentVersionsOf(server.properties, config.properties);
        _fileConfigManager->UpdateFile(config);
    }
    for (const QString& key : folders) {
        const FolderConfiguration& server = serverTree->folderMap.constFind(key).value();
        FolderConfiguration& config = configTree->folderMap[key];
        config.privileges = server.privileges;
        config.privilegeInfo = server.privilegeInfo;
        config.serverFolderId = server.serverFolderId;
        config.properties = WithContentVersionsOf(server.properties, config.properties);
        _folderConfigManager->UpdateFolder(config);
    }
    scope.commit();
}

void SynchronizeRunner::_LogThreeTrees(const FolderConfiguration& root, const TreePtr& localTree,
                                       const TreePtr& configTree, const TreePtr& serverTree) {
    SYNC_LOG_INFO("Found %1 file(s) and %2 folder(s) in server %3", serverTree->fileMap.size(),
                  serverTree->folderMap.size(), root.serverPath);
    SYNC_LOG_INFO("Found %1 file(s) and %2 folder(s) in local %3", localTree->fileMap.size(),
                  localTree->folderMap.size(), root.localPath);
    if (!TraceEnabled()) return;
    SYNC_LOG_TRACE("Begin entry trees dump: %0", root.localPath);
    SYNC_LOG_TRACE("***Begin server tree***");
    _LogTree(root, serverTree);
    SYNC_LOG_TRACE("***Begin config tree***");
    _LogTree(root, configTree);
    SYNC_LOG_TRACE("***Begin local tree***");
    _LogTree(root, localTree);
    SYNC_LOG_TRACE("End entry trees dump: %0", root.localPath);
}

void SynchronizeRunner::_LogTree(const FolderConfiguration& /*root*/, const TreePtr& tree) {
    if (!tree || !TraceEnabled()) return;
    for (auto it = tree->folderMap.constBegin(); it != tree->folderMap.constEnd(); ++it)
        SYNC_LOG_TRACE("%0", it.key());
    for (auto it = tree->fileMap.constBegin(); it != tree->fileMap.constEnd(); ++it)
        SYNC_LOG_TRACE("%0", it.key());
}

void SynchronizeRunner::_GetListForLog(const EntryInfoTreeChange& change, bool serverPaths,
                                       bool folders, ChangeList (&lists)[KindCount],
                                       int keepPaths) const {
    for (ChangeList& list : lists) list = ChangeList();
    auto add = [&](ChangeKind kind, const QString& localPath, const QString& serverPath) {
        ChangeList& list = lists[kind];
        if (list.count++ < keepPaths) list.firstPaths.append(serverPaths ? serverPath : localPath);
    };
    auto kindOf = [](EntryAction action, bool referencesOnly) {
        switch (action) {
            case Added:
                return AddedKind;
            case Deleted:
                return DeletedKind;
            case Modified:
                return referencesOnly ? ReferencesOnlyKind : ModifiedKind;
            case NoChange:
                break;
        }
        return KindCount;
    };
    if (folders) {
        for (auto it = change._folderActionMap.constBegin();
             it != change._folderActionMap.constEnd(); ++it) {
            const ChangeKind kind = kindOf(*it, false);
            if (kind == KindCount) continue;
            const FolderConfiguration& record = change._folderMap.value(it.key());
            add(kind, record.localPath, record.serverPath);
        }
    } else {
        for (auto it = change._fileActionMap.constBegin(); it != change._fileActionMap.constEnd();
             ++it) {
            const FileConfiguration& record = change._fileMap.value(it.key());
            const ChangeKind kind = kindOf(*it, (record.referencesOnly & 1) != 0);
            if (kind == KindCount) continue;
            add(kind, record.localPath, record.serverPath);
        }
    }
}

void SynchronizeRunner::_LogTwoChangeLists(const FolderConfiguration& root,
                                           const ChangePtr& serverChange,
                                           const ChangePtr& localChange) {
    if (IsEmpty(serverChange) && IsEmpty(localChange)) {
        SYNC_LOG_INFO("No changes in server or local %1", root.localPath);
        return;
    }
    // The dumps print the first entries of each list; the summaries need only the counts.
    const int keep = DebugEnabled() ? kListCut : 0;
    const EntryInfoTreeChange empty;
    struct Side {
        ChangeList folders[KindCount];
        ChangeList files[KindCount];
    } server, local;
    _GetListForLog(serverChange ? *serverChange : empty, true, true, server.folders, keep);
    _GetListForLog(serverChange ? *serverChange : empty, true, false, server.files, keep);
    _GetListForLog(localChange ? *localChange : empty, false, true, local.folders, keep);
    _GetListForLog(localChange ? *localChange : empty, false, false, local.files, keep);

    auto summarise = [](const Side& side, const char* none, const char* changes,
                        const QString& path) {
        const bool anything = side.files[AddedKind].count || side.files[ModifiedKind].count ||
                              side.files[ReferencesOnlyKind].count ||
                              side.files[DeletedKind].count || side.folders[AddedKind].count ||
                              side.folders[DeletedKind].count;
        if (!anything) {
            SYNC_LOG_INFO(none, path);
            return;
        }
        SYNC_LOG_INFO(changes, path, side.files[AddedKind].count, side.files[ModifiedKind].count,
                      side.files[ReferencesOnlyKind].count, side.files[DeletedKind].count,
                      side.folders[AddedKind].count, side.folders[DeletedKind].count);
    };
    summarise(server, "No changes in server %1",
              "Changes in server %1: %2 file(s) added, %3 file(s) modified, %4 file(s) require "
              "only references update, %5 file(s) deleted, %6 folder(s) added, %7 folder(s) "
              "deleted",
              root.serverPath);
    summarise(local, "No changes in local %1",
              "Changes in local %1: %2 file(s) added, %3 file(s) modified, %4 file(s) require "
              "only references update, %5 file(s) deleted, %6 folder(s) added, %7 folder(s) "
              "deleted",
              root.localPath);
    if (!DebugEnabled()) return;

    auto dump = [](const Side& side, const char* const(&headers)[6]) {
        const ChangeList* lists[] = {&side.folders[AddedKind],        &side.folders[DeletedKind],
                                     &side.files[AddedKind],          &side.files[ModifiedKind],
                                     &side.files[ReferencesOnlyKind], &side.files[DeletedKind]};
        for (int i = 0; i < 6; ++i) {
            if (lists[i]->count == 0) continue;
            SYNC_LOG_DEBUG(headers[i], sync::core::FolderUtilities::TruncatedList(
                                           lists[i]->firstPaths, lists[i]->count, kListCut));
        }
    };
    static const char* const kServerHeaders[6] = {
        "***Added folders in server***\n%1",
        "***Deleted folders in server***\n%1",
        "***Added files in server***\n%1",
        "***Modified files in server***\n%1",
        "***Modified files in server requiring only references update***\n%1",
        "***Deleted files in server***\n%1"};
    static const char* const kLocalHeaders[6] = {
        "***Added folders in local***\n%1",
        "***Deleted folders in local***\n%1",
        "***Added files in local***\n%1",
        "***Modified files in local***\n%1",
        "***Modified files in local requiring only references update***\n%1",
        "***Deleted files in local***\n%1"};
    SYNC_LOG_DEBUG("***Server changes dump for %1***", root.serverPath);
    dump(server, kServerHeaders);
    SYNC_LOG_DEBUG("***Local changes dump for %1***", root.localPath);
    dump(local, kLocalHeaders);
}

void SynchronizeRunner::_RemoveNewFiles(EntryInfoTreeChange& serverChange) {
    QStringList files;
    for (auto it = serverChange._fileActionMap.constBegin();
         it != serverChange._fileActionMap.constEnd(); ++it)
        if (*it == Added) files.append(it.key());
    for (const QString& key : files) {
        serverChange._fileActionMap.remove(key);
        serverChange._fileMap.remove(key);
        SYNC_LOG_DEBUG("Skipping download of new file %0", key);
    }
    QStringList folders;
    for (auto it = serverChange._folderActionMap.constBegin();
         it != serverChange._folderActionMap.constEnd(); ++it)
        if (*it == Added) folders.append(it.key());
    for (const QString& key : folders) {
        serverChange._folderActionMap.remove(key);
        serverChange._folderMap.remove(key);
        SYNC_LOG_DEBUG("Skipping creation of new folder %0", key);
    }
}

void SynchronizeRunner::_HandOverFileIdentity(const FolderConfiguration& root,
                                              const TreePtr& configTree, FileConfiguration& server,
                                              FileConfiguration& local, EntryAction serverAction,
                                              EntryAction localAction) {
    QString fileId;
    QString checksum;
    if ((serverAction == Added || serverAction == Modified) && local.serverFileId.isEmpty()) {
        fileId = server.serverFileId;
        checksum = server.serverChecksum;
    } else if (localAction == Modified && serverAction == Deleted &&
               server.privilegeInfo.compare(root.privilegeInfo, Qt::CaseInsensitive) != 0) {
        // The local edit goes up as a new file: it must not name the one the server removed.
    } else {
        return;
    }
    local.serverFileId = fileId;
    local.serverChecksum = checksum;
    server.serverFileId = fileId;
    server.serverChecksum = checksum;
    const auto config = configTree->fileMap.find(EntryInfoTree::KeyOf(local.serverPath));
    if (config != configTree->fileMap.end()) {
        config->serverFileId = fileId;
        config->serverChecksum = checksum;
    }
    FileConfiguration stored =
        local.id != -1 ? _fileConfigManager->GetFileById(local.id)
                       : _fileConfigManager->GetFileByPath(local.localPath, root.authenticationId);
    if (stored.id == -1) return;
    stored.serverFileId = fileId;
    stored.serverChecksum = checksum;
    sync::database::TransactionalScope scope;
    _fileConfigManager->UpdateFile(stored);
}

void SynchronizeRunner::_ProcessFiles(const FolderConfiguration& root, const TreePtr& localTree,
                                      const TreePtr& configTree, const TreePtr& serverTree,
                                      const ChangePtr& serverChange, const ChangePtr& localChange,
                                      SyncTaskDepot& depot) {
    const QList<QString> localKeys = localChange->_fileActionMap.keys();
    const QList<QString> serverKeys = serverChange->_fileActionMap.keys();
    // Server keys already paired with a local change; a set instead of removing from the list
    // keeps the pass linear in the number of changes.
    QSet<QString> paired;

    for (const QString& key : localKeys) {
        const auto localAction = localChange->_fileActionMap.constFind(key);
        // A resolver may have taken the key out of the change set meanwhile.
        if (localAction == localChange->_fileActionMap.constEnd()) continue;
        const EntryAction la = *localAction;
        FileConfiguration& local = localChange->_fileMap[key];
        const auto serverAction = serverChange->_fileActionMap.constFind(key);
        if (serverAction == serverChange->_fileActionMap.constEnd()) {
            _resolverFactory->CreateFileConflictResolver(NoChange, la)
                ->Resolve(local, local, localTree, configTree, serverTree, serverChange,
                          localChange, depot);
            continue;
        }
        const EntryAction sa = *serverAction;
        FileConfiguration& server = serverChange->_fileMap[key];
        _HandOverFileIdentity(root, configTree, server, local, sa, la);
        paired.insert(key);
        if (sa == Deleted && la == Deleted) {
            SYNC_LOG_INFO(
                "File exists in database, but doesn't exist in local or server. Removing it from "
                "database. File: %1 (%2)",
                local.localPath, local.serverPath);
            _fileConfigManager->RemoveFile(local.id);
            continue;
        }
        _resolverFactory->CreateFileConflictResolver(sa, la)->Resolve(
            server, local, localTree, configTree, serverTree, serverChange, localChange, depot);
    }

    for (const QString& key : serverKeys) {
        if (paired.contains(key)) continue;
        const auto serverAction = serverChange->_fileActionMap.constFind(key);
        if (serverAction == serverChange->_fileActionMap.constEnd()) continue;
        FileConfiguration& server = serverChange->_fileMap[key];
        _resolverFactory->CreateFileConflictResolver(*serverAction, NoChange)
            ->Resolve(server, server, localTree, configTree, serverTree, serverChange, localChange,
                      depot);
    }
}

void SynchronizeRunner::_ProcessFolders(const FolderConfiguration& /*root*/,
                                        const TreePtr& localTree, const TreePtr& configTree,
                                        const TreePtr& serverTree, const ChangePtr& serverChange,
                                        const ChangePtr& localChange, SyncTaskDepot& depot) {
    const QList<QString> localKeys = localChange->_folderActionMap.keys();
    const QList<QString> serverKeys = serverChange->_folderActionMap.keys();
    QSet<QString> paired;

    for (const QString& key : localKeys) {
        const auto localAction = localChange->_folderActionMap.constFind(key);
        if (localAction == localChange->_folderActionMap.constEnd()) continue;
        const EntryAction la = *localAction;
        FolderConfiguration& local = localChange->_folderMap[key];
        const auto serverAction = serverChange->_folderActionMap.constFind(key);
        if (serverAction == serverChange->_folderActionMap.constEnd()) {
            _resolverFactory->CreateFolderConflictResolver(NoChange, la)
                ->Resolve(local, local, localTree, configTree, serverTree, serverChange,
                          localChange, depot);
            continue;
        }
        const EntryAction sa = *serverAction;
        paired.insert(key);
        FolderConfiguration& server = serverChange->_folderMap[key];
        _resolverFactory->CreateFolderConflictResolver(sa, la)->Resolve(
            server, local, localTree, configTree, serverTree, serverChange, localChange, depot);
    }

    for (const QString& key : serverKeys) {
        if (paired.contains(key)) continue;
        const auto serverAction = serverChange->_folderActionMap.constFind(key);
        if (serverAction == serverChange->_folderActionMap.constEnd()) continue;
        FolderConfiguration& server = serverChange->_folderMap[key];
        _resolverFactory->CreateFolderConflictResolver(*serverAction, NoChange)
            ->Resolve(server, server, localTree, configTree, serverTree, serverChange, localChange,
                      depot);
    }
}

}  // namespace syncService
}  // namespace sync
