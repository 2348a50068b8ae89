#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <utility>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

// One source's snapshot of a root folder: every folder and file under its key, the
// lower-case serverPath. Retrievers fill the maps directly; readers use value(), not [],
// so that a lookup never inserts a phantom entry.
class EntryInfoTree : public QObject {
public:
    EntryInfoTree() : QObject(nullptr) {}

    static QString KeyOf(const QString& serverPath) { return serverPath.toLower(); }

    // Inserts or replaces without copying the record where the Qt version allows it; trees of
    // 100,000 files are built on every cycle.
    template <typename Record>
    static void Put(QHash<QString, Record>& map, const QString& key, Record&& record) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        map.emplace(key, std::move(record));
#else
        map.insert(key, record);
#endif
    }

    // Puts an entry found by a walk under its key. Two names of one folder that differ only in
    // letter case map to one key, and neither could be synchronised without overwriting the
    // other: the key is then excluded and the entry already put is taken out again. Returns the
    // paths (field `path` of the records) that clash, to be reported as filtered out: both on the
    // first clash, which is logged, the newcomer's on any later one; empty when the entry was put.
    template <typename Record>
    QStringList PutWalked(QHash<QString, Record>& map, QSet<QString>& excludedKeys,
                          QSet<QString>& clashingKeys, const QString& key, Record&& record,
                          QString Record::*path) {
        if (clashingKeys.contains(key)) return {record.*path};
        const auto existing = map.constFind(key);
        // The same name listed twice is one entry, not a clash.
        if (existing == map.constEnd() || (*existing).*path == record.*path) {
            Put(map, key, std::move(record));
            return {};
        }
        const QStringList clash{(*existing).*path, record.*path};
        SYNC_LOG_WARN(
            "Leaving out %1 and %2: their names differ only in letter case, and one would "
            "overwrite the other. Rename one of them to synchronise both.",
            clash.at(0), clash.at(1));
        map.remove(key);
        clashingKeys.insert(key);
        excludedKeys.insert(key);
        return clash;
    }

    QHash<QString, sync::config::FolderConfiguration> folderMap;
    QHash<QString, sync::config::FileConfiguration> fileMap;

    // Keys of entries that the retriever left out by a rule (a filter, a length limit, two
    // names that differ only in letter case). Such an entry, and for a folder everything below
    // it, is not planned at all: an entry missing from a tree would otherwise look deleted.
    QSet<QString> excludedFolderKeys;
    QSet<QString> excludedFileKeys;
    // The walk never sees hidden entries when the root does not synchronise them, so it cannot
    // name them: every entry with a hidden name somewhere below the root counts as left out.
    bool hiddenEntriesExcluded = false;
    // The keys of excludedFolderKeys and excludedFileKeys that a letter-case clash put there.
    QSet<QString> clashingFolderKeys;
    QSet<QString> clashingFileKeys;
};

}  // namespace syncService
}  // namespace sync
