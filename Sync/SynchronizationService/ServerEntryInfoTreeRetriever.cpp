#include "ServerEntryInfoTreeRetriever.h"

#include "HttpException.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

QString WithRootPath(const char* text, const FolderConfiguration& root) {
    return QString::fromLatin1(text).replace(QLatin1String("%0"), root.serverPath);
}

}  // namespace

ServerEntryInfoTreeRetriever::ServerEntryInfoTreeRetriever(
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> remoteFolderManagerFactory,
    std::shared_ptr<sync::interf::factory::IRemoteFileManagerFactory> remoteFileManagerFactory,
    std::shared_ptr<sync::interf::ISyncFilter> fileFilter,
    std::shared_ptr<sync::interf::ISyncFilter> folderFilter)
    : _folderConfigManager(std::move(folderConfigManager)),
      _fileConfigManager(std::move(fileConfigManager)),
      _coreFactory(std::move(coreFactory)),
      _remoteFolderManagerFactory(std::move(remoteFolderManagerFactory)),
      _remoteFileManagerFactory(std::move(remoteFileManagerFactory)),
      _fileFilter(std::move(fileFilter)),
      _folderFilter(std::move(folderFilter)) {}

std::shared_ptr<EntryInfoTree> ServerEntryInfoTreeRetriever::GetEntryInfoTree(
    FolderConfiguration& root) {
    auto tree = std::make_shared<EntryInfoTree>();
    if (root.syncScope == sync::config::SyncScopeWholeTree)
        _GetEntryInfoTree(root, *tree);
    else if (root.syncScope == sync::config::SyncScopeRootOnly)
        _GetRootEntryInfo(root, *tree);
    return tree;
}

void ServerEntryInfoTreeRetriever::_GetEntryInfoTree(FolderConfiguration& root,
                                                     EntryInfoTree& tree) {
    treeModified = true;
    auto folders = std::make_shared<QVector<FolderConfiguration>>();
    auto files = std::make_shared<QVector<FileConfiguration>>();
    const int result = _remoteFolderManagerFactory->CreateRemoteFolderManager(root.authenticationId)
                           ->GetFolderTree(root, folders, files);
    if (result == sync::http::NotModified) {
        treeModified = false;
        return;
    }
    if (result == sync::http::NotFound) {
        // A root that was never synchronised may not have reached the server yet.
        if (root.getSyncStatus() == FolderSynchronizationStatus::NotSynchronized) return;
        throw sync::http::HttpException(
            sync::http::NotFound,
            WithRootPath("The root folder: %0 doesn't exist on the server.", root));
    }
    if (result != sync::http::Success) {
        throw sync::http::HttpException(
            result, WithRootPath("Failed to get server folder tree for root folder %0", root));
    }

    auto checkForExit = _coreFactory->CreateCheckForExit();
    int filteredFiles = 0;
    int filteredFolders = 0;
    // An exit request leaves the tree incomplete and without its root record; the runner
    // checks for exit itself right after this call.
    if (!_AddFiles(*files, tree, *checkForExit, filteredFiles)) return;
    if (!_AddFolders(*folders, tree, *checkForExit, filteredFolders)) return;
    if (filteredFiles > 0 || filteredFolders > 0)
        SYNC_LOG_INFO("Filtered out %1 server file(s) and %2 folder(s)", filteredFiles,
                      filteredFolders);
    tree.folderMap.insert(EntryInfoTree::KeyOf(root.serverPath), root);
}

void ServerEntryInfoTreeRetriever::_GetRootEntryInfo(FolderConfiguration& root,
                                                     EntryInfoTree& tree) {
    treeModified = true;
    auto files = std::make_shared<QVector<FileConfiguration>>();
    const int result = _remoteFileManagerFactory->CreateRemoteFileManager(root.authenticationId)
                           ->GetRootFiles(root, files);
    if (result == sync::http::NotModified) {
        treeModified = false;
        return;
    }
    if (result == sync::http::NotFound) {
        // A root that was never synchronised may not have reached the server yet.
        if (root.getSyncStatus() != FolderSynchronizationStatus::NotSynchronized)
            throw sync::http::HttpException(
                sync::http::NotFound,
                WithRootPath("The root folder: %0 doesn't exist in server.", root));
    } else if (result != sync::http::Success) {
        // A tree without the root's files would make every one of them look deleted on the
        // server, and their local copies would go to the trash.
        throw sync::http::HttpException(
            result, WithRootPath("Failed to get server folder tree for root folder %0", root));
    } else {
        // The root's files belong in the tree: the server rules count every database file
        // missing from it as deleted on the server.
        auto checkForExit = _coreFactory->CreateCheckForExit();
        int filteredFiles = 0;
        if (!_AddFiles(*files, tree, *checkForExit, filteredFiles)) return;
        if (filteredFiles > 0)
            SYNC_LOG_INFO("Filtered out %1 server file(s) and %2 folder(s)", filteredFiles, 0);
    }
    tree.folderMap.insert(EntryInfoTree::KeyOf(root.serverPath), root);
}

bool ServerEntryInfoTreeRetriever::_AddFiles(QVector<FileConfiguration>& files, EntryInfoTree& tree,
                                             sync::interf::ICheckForExit& checkForExit,
                                             int& filteredCount) {
    // The listing is ours and becomes the tree's own storage: its records stay where they are.
    return EntryInfoTree::AdoptEach(tree.fileMap, std::move(files), [&](FileConfiguration& file) {
        if (checkForExit.ShouldExit()) return false;
        const QString key = EntryInfoTree::SharedKeyOf(file);
        if (_FilterFile(file) || _FilterFileNameByMaxLength(file)) {
            ++filteredCount;
            tree.excludedFileKeys.insert(key);
            SYNC_LOG_DEBUG("Filtered out server file %1", file.serverPath);
            tree.fileMap.Leave();
            return true;
        }
        const QStringList clash =
            tree.SettleWalked(tree.fileMap, tree.excludedFileKeys, tree.clashingFileKeys, key,
                              &FileConfiguration::serverPath);
        filteredCount += clash.size();
        _ReportClash(clash, /*folders=*/false);
        return true;
    });
}

bool ServerEntryInfoTreeRetriever::_AddFolders(const QVector<FolderConfiguration>& folders,
                                               EntryInfoTree& tree,
                                               sync::interf::ICheckForExit& checkForExit,
                                               int& filteredCount) {
    for (const FolderConfiguration& folder : folders) {
        if (checkForExit.ShouldExit()) return false;
        QString key = EntryInfoTree::KeyOf(folder.serverPath);
        // A folder left out keeps its content out of planning too (each file is still judged
        // on its own by the filters).
        if (_FilterFolder(folder.serverPath) || _FilterFolderNameByMaxLength(folder)) {
            ++filteredCount;
            tree.excludedFolderKeys.insert(key);
            SYNC_LOG_DEBUG("Filtered out server folder %1", folder.serverPath);
            continue;
        }
        FolderConfiguration record(folder);
        EntryInfoTree::ShareTexts(key, record);
        const QStringList clash =
            tree.PutWalked(tree.folderMap, tree.excludedFolderKeys, tree.clashingFolderKeys, key,
                           std::move(record), &FolderConfiguration::serverPath);
        filteredCount += clash.size();
        _ReportClash(clash, /*folders=*/true);
    }
    return true;
}

void ServerEntryInfoTreeRetriever::_ReportClash(const QStringList& paths, bool folders) {
    for (const QString& path : paths)
        folders ? Q_EMIT FolderFilteredOut(path) : Q_EMIT FileFilteredOut(path);
}

bool ServerEntryInfoTreeRetriever::_FilterFile(const FileConfiguration& file) {
    if (_fileFilter->FilterFile(file.serverPath, file.size, true) == 0) return false;
    Q_EMIT FileFilteredOut(file.serverPath);
    return true;
}

bool ServerEntryInfoTreeRetriever::_FilterFolder(const QString& path) {
    if (_folderFilter->FilterFolder(path, true) == 0) return false;
    Q_EMIT FolderFilteredOut(path);
    return true;
}

bool ServerEntryInfoTreeRetriever::_FilterFileNameByMaxLength(const FileConfiguration& file) {
    if (file.localPath.length() < sync::core::consts::LOCAL_FILE_MAX_PATH) return false;
    // A file in a folder that is itself too long is reported once, through its folder.
    const int folderPathLength = file.localPath.length() - 1 - file.name.length();
    if (folderPathLength < sync::core::consts::LOCAL_FOLDER_MAX_PATH)
        Q_EMIT FileFilteredOut(file.serverPath);
    return true;
}

bool ServerEntryInfoTreeRetriever::_FilterFolderNameByMaxLength(const FolderConfiguration& folder) {
    if (folder.localPath.length() < sync::core::consts::LOCAL_FOLDER_MAX_PATH) return false;
    Q_EMIT FolderFilteredOut(folder.serverPath);
    return true;
}

}  // namespace syncService
}  // namespace sync
