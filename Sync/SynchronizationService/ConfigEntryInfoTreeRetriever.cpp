#include "ConfigEntryInfoTreeRetriever.h"

#include <algorithm>

#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;

ConfigEntryInfoTreeRetriever::ConfigEntryInfoTreeRetriever(
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager)
    : _fileConfigManager(std::move(fileConfigManager)),
      _folderConfigManager(std::move(folderConfigManager)) {}

std::shared_ptr<EntryInfoTree> ConfigEntryInfoTreeRetriever::GetEntryInfoTree(
    FolderConfiguration& root) {
    auto tree = std::make_shared<EntryInfoTree>();

    QVector<FileConfiguration> files = _fileConfigManager->GetFilesByRootId(root.id, false);
    const QVector<FolderConfiguration> folders = _folderConfigManager->GetFoldersByRootId(root.id);

    // Later records replace earlier ones under the same key: the last one returned is kept.
    tree->folderMap.reserve(folders.size());
    for (const FolderConfiguration& folder : folders) {
        QString key = EntryInfoTree::KeyOf(folder.serverPath);
        FolderConfiguration record(folder);
        EntryInfoTree::ShareTexts(key, record);
        tree->folderMap.insert(key, record);
    }
    // The query result becomes the tree's own storage: its records stay where they are.
    QVector<ReplacedFile> replaced;
    int duplicates = 0;
    EntryInfoTree::AdoptEach(tree->fileMap, std::move(files), [&](FileConfiguration& file) {
        const QString key = EntryInfoTree::SharedKeyOf(file);
        const auto held = tree->fileMap.constFind(key);
        if (held != tree->fileMap.constEnd()) {
            ++duplicates;
            if (held->id != file.id) replaced.append(ReplacedFile{held->id, held->localPath});
        }
        tree->fileMap.Settle(key);
        return true;
    });

    if (duplicates > 0) _RemoveDuplicateFiles(duplicates, replaced);
    if (folders.size() != tree->folderMap.size()) _RemoveDuplicateFolders(folders, *tree);

    // The tree already holds exactly the records that stay in the database.
    return tree;
}

void ConfigEntryInfoTreeRetriever::_RemoveDuplicateFiles(int duplicates,
                                                         QVector<ReplacedFile>& replaced) {
    SYNC_LOG_WARN("%1 duplicate file(s) found in sync database. Removing duplicate files.",
                  duplicates);
    // In the order the records were read (by id), not the order they were replaced in.
    std::stable_sort(replaced.begin(), replaced.end(),
                     [](const ReplacedFile& a, const ReplacedFile& b) { return a.id < b.id; });
    // The scope runs out without commit(): it keeps the removals unless an exception unwinds.
    sync::database::TransactionalScope scope;
    for (const ReplacedFile& file : replaced) {
        SYNC_LOG_WARN("Removing duplicate file from database: %1", file.localPath);
        _fileConfigManager->RemoveFile(file.id);
    }
}

void ConfigEntryInfoTreeRetriever::_RemoveDuplicateFolders(
    const QVector<FolderConfiguration>& folders, const EntryInfoTree& tree) {
    SYNC_LOG_WARN("%1 duplicate folder(s) found in sync database. Removing duplicate folders.",
                  folders.size() - tree.folderMap.size());
    sync::database::TransactionalScope scope;
    for (const FolderConfiguration& folder : folders) {
        const auto kept = tree.folderMap.constFind(EntryInfoTree::KeyOf(folder.serverPath));
        if (kept == tree.folderMap.constEnd() || kept->id == folder.id) continue;
        SYNC_LOG_WARN("Removing duplicate folder from database: %1", folder.localPath);
        _folderConfigManager->RemoveFolder(folder.id);
    }
}

}  // namespace syncService
}  // namespace sync
