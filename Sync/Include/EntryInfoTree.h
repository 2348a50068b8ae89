#pragma once

#include <QHash>
#include <QObject>
#include <QString>

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

    QHash<QString, sync::config::FolderConfiguration> folderMap;
    QHash<QString, sync::config::FileConfiguration> fileMap;
};

}  // namespace syncService
}  // namespace sync
