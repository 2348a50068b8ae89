#include "ExcludedEntryPruner.h"

#include "SyncConsts.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

namespace {

class Exclusions {
public:
    Exclusions(const QString& rootServerPath, const EntryInfoTree& local,
               const EntryInfoTree& server)
        : _rootKey(EntryInfoTree::KeyOf(rootServerPath)),
          _hidden(local.hiddenEntriesExcluded || server.hiddenEntriesExcluded),
          _localFiles(local.fileMap) {
        while (_rootKey.endsWith(QLatin1Char('/'))) _rootKey.chop(1);
        _folders = local.excludedFolderKeys;
        _folders.unite(server.excludedFolderKeys);
        _files = local.excludedFileKeys;
        _files.unite(server.excludedFileKeys);
    }

    // The local tree holds a hidden file or one inside the engine's own folders only on
    // purpose: a generated file that the database records. Those rules spare it.
    bool FileExcluded(const QString& key) const {
        return _files.contains(key) ||
               _BelowRootExcluded(key, /*isFolder=*/false, !_localFiles.contains(key));
    }
    bool FolderExcluded(const QString& key) const {
        return _BelowRootExcluded(key, /*isFolder=*/true, /*nameRulesApply=*/true);
    }

private:
    // Walks the key's components below the root: a component that names an excluded folder,
    // a hidden entry or one of the engine's own folders excludes the key.
    bool _BelowRootExcluded(const QString& key, bool isFolder, bool nameRulesApply) const {
        if (!key.startsWith(_rootKey) || key.size() <= _rootKey.size() + 1 ||
            key.at(_rootKey.size()) != QLatin1Char('/'))
            return false;  // the root itself, or an entry outside it
        // Most cycles exclude nothing; a tree of 100,000 keys is checked on every cycle.
        if (_folders.isEmpty() &&
            (!nameRulesApply || (!_hidden && !key.contains(QLatin1String(".{sync")))))
            return false;
        int start = _rootKey.size() + 1;
        while (start <= key.size()) {
            int end = key.indexOf(QLatin1Char('/'), start);
            if (end < 0) end = key.size();
            const bool last = end == key.size();
            const QString component = key.mid(start, end - start);
            if (nameRulesApply) {
                if (_hidden && component.startsWith(QLatin1Char('.'))) return true;
                if ((!last || isFolder) && _IsEngineFolderName(component)) return true;
            }
            if ((!last || isFolder) && !_folders.isEmpty() && _folders.contains(key.left(end)))
                return true;
            start = end + 1;
        }
        return false;
    }

    static bool _IsEngineFolderName(const QString& lowerCaseName) {
        static const QString temp = sync::core::consts::TEMP_FOLDER_NAME.toLower();
        static const QString base = sync::core::consts::BASE_FOLDER_NAME.toLower();
        return lowerCaseName == temp || lowerCaseName == base;
    }

    QString _rootKey;
    bool _hidden;
    const QHash<QString, sync::config::FileConfiguration>& _localFiles;
    QSet<QString> _folders;
    QSet<QString> _files;
};

template <typename Map, typename Excluded>
int RemoveIf(Map& map, Excluded excluded) {
    int removed = 0;
    for (auto it = map.begin(); it != map.end();) {
        if (excluded(it.key())) {
            it = map.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed;
}

}  // namespace

int ExcludedEntryPruner::Prune(const QString& rootServerPath, EntryInfoTree& configTree,
                               EntryInfoTree& localTree, EntryInfoTree& serverTree) {
    const Exclusions exclusions(rootServerPath, localTree, serverTree);
    int removed = 0;
    // The local tree last: the exclusions read its files.
    for (EntryInfoTree* tree : {&configTree, &serverTree, &localTree}) {
        removed += RemoveIf(tree->fileMap,
                            [&](const QString& key) { return exclusions.FileExcluded(key); });
        removed += RemoveIf(tree->folderMap,
                            [&](const QString& key) { return exclusions.FolderExcluded(key); });
    }
    if (removed > 0)
        SYNC_LOG_DEBUG("Left %1 excluded entries of root folder %2 out of planning", removed,
                       rootServerPath);
    return removed;
}

}  // namespace syncService
}  // namespace sync
