#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QtGlobal>
#include <utility>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"

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
};

}  // namespace syncService
}  // namespace sync
