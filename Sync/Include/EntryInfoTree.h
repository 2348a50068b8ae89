#pragma once

#include <QHash>
#include <QObject>
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
};

}  // namespace syncService
}  // namespace sync
