#include "EntryInfoTreeChange.h"

namespace sync {
namespace syncService {

EntryInfoTreeChange::EntryInfoTreeChange() : QObject(nullptr) {}

EntryInfoTreeChange::EntryInfoTreeChange(const EntryInfoTreeChange& other) : QObject(nullptr) {
    _CopyMembers(other);
}

EntryInfoTreeChange& EntryInfoTreeChange::operator=(const EntryInfoTreeChange& other) {
    if (this != &other) _CopyMembers(other);
    return *this;
}

EntryInfoTreeChange::~EntryInfoTreeChange() = default;

void EntryInfoTreeChange::_CopyMembers(const EntryInfoTreeChange& other) {
    _fileActionMap.clear();
    _folderActionMap.clear();
    _fileMap.clear();
    _folderMap.clear();
    for (auto it = other._fileActionMap.constBegin(); it != other._fileActionMap.constEnd(); ++it)
        _fileActionMap.insert(it.key(), it.value());
    for (auto it = other._folderActionMap.constBegin(); it != other._folderActionMap.constEnd();
         ++it)
        _folderActionMap.insert(it.key(), it.value());
    for (auto it = other._fileMap.constBegin(); it != other._fileMap.constEnd(); ++it)
        _fileMap.insert(it.key(), it.value());
    for (auto it = other._folderMap.constBegin(); it != other._folderMap.constEnd(); ++it)
        _folderMap.insert(it.key(), it.value());
}

void EntryInfoTreeChange::AddFileAction(EntryAction action, sync::config::FileConfiguration& file) {
    const QString key = file.serverPath.toLower();
    _fileActionMap.insert(key, action);
    auto it = _fileMap.find(key);
    if (it == _fileMap.end())
        _fileMap.insert(key, file);
    else if (&it.value() != &file)
        it.value() = file;
}

void EntryInfoTreeChange::AddFolderAction(EntryAction action,
                                          sync::config::FolderConfiguration& folder) {
    const QString key = folder.serverPath.toLower();
    _folderActionMap.insert(key, action);
    auto it = _folderMap.find(key);
    if (it == _folderMap.end())
        _folderMap.insert(key, folder);
    else if (&it.value() != &folder)
        it.value() = folder;
}

}  // namespace syncService
}  // namespace sync
