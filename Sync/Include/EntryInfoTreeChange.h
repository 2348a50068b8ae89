#pragma once

#include <QHash>
#include <QObject>
#include <QString>

#include "EntryAction.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"

namespace sync {
namespace syncService {

// One side's detected actions, keyed like the trees. An action and its record are always
// added and removed together.
class EntryInfoTreeChange : public QObject {
public:
    EntryInfoTreeChange();
    EntryInfoTreeChange(const EntryInfoTreeChange& other);
    EntryInfoTreeChange& operator=(const EntryInfoTreeChange& other);
    ~EntryInfoTreeChange() override;

    void AddFileAction(EntryAction action, sync::config::FileConfiguration& file);
    void AddFolderAction(EntryAction action, sync::config::FolderConfiguration& folder);

    QHash<QString, EntryAction> getFolderActionMap() const { return _folderActionMap; }
    QHash<QString, EntryAction> getFileActionMap() const { return _fileActionMap; }
    QHash<QString, sync::config::FolderConfiguration> getFolderMap() const { return _folderMap; }
    QHash<QString, sync::config::FileConfiguration> getFileMap() const { return _fileMap; }

    // The runner and the resolvers work on these directly.
    QHash<QString, EntryAction> _folderActionMap;
    QHash<QString, EntryAction> _fileActionMap;
    QHash<QString, sync::config::FolderConfiguration> _folderMap;
    QHash<QString, sync::config::FileConfiguration> _fileMap;

private:
    void _CopyMembers(const EntryInfoTreeChange& other);
};

}  // namespace syncService
}  // namespace sync
