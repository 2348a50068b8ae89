#include "ExcludedEntryPruner.h"

#include <QStringList>
#include <QStringView>

#include "ParallelScan.h"
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
        if (!_files.isEmpty() && _files.contains(key)) return true;
        return _BelowRootExcluded(key, /*isFolder=*/false);
    }
    bool FolderExcluded(const QString& key) const {
        return _BelowRootExcluded(key, /*isFolder=*/true);
    }

private:
    // Walks the key's components below the root: a component that names an excluded folder,
    // a hidden entry or one of the engine's own folders excludes the key.
    bool _BelowRootExcluded(const QString& key, bool isFolder) const {
        // Every key of a root's trees starts with the root's key; only the root itself is short.
        if (key.size() <= _rootKey.size() + 1 || key.at(_rootKey.size()) != QLatin1Char('/'))
            return false;
        // Every key of every tree is checked on every cycle. Both name rules need a name that
        // starts with ".", so one search settles almost every key.
        const bool dotName = _HasNameStartingWithDot(key, _rootKey.size());
        if (_folders.isEmpty() && !dotName) return false;
        const bool nameRulesApply = dotName && (isFolder || !_localFiles.contains(key));
        if (nameRulesApply && _hidden) return true;
        if (_folders.isEmpty() && !(nameRulesApply && key.contains(QLatin1String(".{sync"))))
            return false;
        int start = _rootKey.size() + 1;
        while (start <= key.size()) {
            int end = key.indexOf(QLatin1Char('/'), start);
            if (end < 0) end = key.size();
            const bool last = end == key.size();
            if (nameRulesApply && (!last || isFolder) &&
                _IsEngineFolderName(key.mid(start, end - start)))
                return true;
            if ((!last || isFolder) && !_folders.isEmpty() && _folders.contains(key.left(end)))
                return true;
            start = end + 1;
        }
        return false;
    }

    // Runs for every key of the three trees. Qt's search for one character is vectorised,
    // and a name holds few dots: jumping from dot to dot beats a scan for "/." by far.
    static bool _HasNameStartingWithDot(const QString& key, int from) {
        const QStringView view(key);
        for (qsizetype dot = view.indexOf(QLatin1Char('.'), from + 1); dot > 0;
             dot = view.indexOf(QLatin1Char('.'), dot + 1))
            if (view.at(dot - 1) == QLatin1Char('/')) return true;
        return false;
    }

    static bool _IsEngineFolderName(const QString& lowerCaseName) {
        static const QString temp = sync::core::consts::TEMP_FOLDER_NAME.toLower();
        static const QString base = sync::core::consts::BASE_FOLDER_NAME.toLower();
        return lowerCaseName == temp || lowerCaseName == base;
    }

    QString _rootKey;
    bool _hidden;
    const decltype(EntryInfoTree::fileMap)& _localFiles;
    QSet<QString> _folders;
    QSet<QString> _files;
};

// Finds before it removes: a map shared with another tree is copied only when something goes.
template <typename Map, typename Excluded>
int RemoveIf(Map& map, Excluded excluded) {
    QStringList doomed;
    for (const auto& it : ParallelScan(
             map, [&](typename Map::const_iterator entry) { return excluded(entry.key()); }))
        doomed.append(it.key());
    for (const QString& key : doomed) map.remove(key);
    return doomed.size();
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
