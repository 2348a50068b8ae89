#include "SyncTaskDepot.h"

#include <QDir>
#include <QSet>

namespace sync {
namespace syncService {

namespace {

// A path in the form FolderUtilities::IsParent compares, letter case folded; "" for "/".
QString Normalized(const QString& path) {
    QString cleaned = QDir::cleanPath(path).toLower();
    if (cleaned.endsWith(QLatin1Char('/'))) cleaned.chop(1);
    return cleaned;
}

// True when one of the folders is an ancestor of path at any depth, as IsParent decides it
// without regard to case.
bool HasAncestorIn(const QSet<QString>& folders, const QString& path) {
    const QString child = QDir::cleanPath(path).toLower();
    for (int slash = child.indexOf(QLatin1Char('/')); slash >= 0 && slash < child.size() - 1;
         slash = child.indexOf(QLatin1Char('/'), slash + 1)) {
        if (folders.contains(child.left(slash))) return true;
    }
    return false;
}

}  // namespace

void SyncTaskDepot::AddSyncTask(sync::interf::ISyncTask& task) {
    std::shared_ptr<TaskHash>& hash = _tasks[task.GetSyncTaskType()];
    if (!hash) hash = std::make_shared<TaskHash>();
    std::shared_ptr<sync::interf::ISyncTask> copy;
    if (task.IsFileTask())
        copy = std::make_shared<FileSyncTask>(task);
    else
        copy = std::make_shared<FolderSyncTask>(task);
    hash->insert(task.GetKey(), copy);
}

void SyncTaskDepot::RemoveSyncTask(sync::interf::ISyncTask& task) {
    RemoveSyncTask(task.GetSyncTaskType(), task.GetKey());
}

void SyncTaskDepot::RemoveSyncTask(SyncTaskType type, const QString& key) {
    auto it = _tasks.find(type);
    if (it == _tasks.end() || !it->second) return;
    it->second->remove(key);
}

std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> SyncTaskDepot::GetSyncTaskList(
    SyncTaskType type) const {
    auto it = _tasks.find(type);
    if (it == _tasks.end() || !it->second) return nullptr;
    auto list = std::make_shared<QList<std::shared_ptr<sync::interf::ISyncTask>>>();
    list->reserve(it->second->size());
    for (auto t = it->second->constBegin(); t != it->second->constEnd(); ++t)
        list->append(t.value());
    return list;
}

std::shared_ptr<QList<QString>> SyncTaskDepot::GetSyncTaskListKeys(SyncTaskType type) const {
    auto it = _tasks.find(type);
    if (it == _tasks.end() || !it->second) return nullptr;
    return std::make_shared<QList<QString>>(it->second->keys());
}

void SyncTaskDepot::RemoveConflictAndDuplicateTask() {
    // A file being marked as a conflict is neither transferred nor deleted in this cycle.
    if (auto conflicts = GetSyncTaskListKeys(FileConflictMarking)) {
        for (const QString& key : *conflicts) {
            for (SyncTaskType type :
                 {ServerFileCreation, ServerFileDeletion, LocalFileCreation, LocalFileDeletion})
                RemoveSyncTask(type, key);
        }
    }

    // Only the topmost folder of a subtree deleted on the server is sent as a deletion. Each
    // key's ancestors are probed in a set of the deleted folders: comparing every pair would
    // cost a hundred million comparisons for a deleted tree of ten thousand entries.
    auto folderKeys = GetSyncTaskListKeys(ServerFolderDeletion);
    if (!folderKeys) return;
    auto fileKeys = GetSyncTaskListKeys(ServerFileDeletion);
    QSet<QString> deletedFolders;
    for (const QString& folder : *folderKeys) deletedFolders.insert(Normalized(folder));
    QList<QString> foldersToDrop;
    for (const QString& folder : *folderKeys)
        if (HasAncestorIn(deletedFolders, folder)) foldersToDrop.append(folder);
    QList<QString> filesToDrop;
    if (fileKeys) {
        for (const QString& file : *fileKeys)
            if (HasAncestorIn(deletedFolders, file)) filesToDrop.append(file);
    }
    for (const QString& key : foldersToDrop) RemoveSyncTask(ServerFolderDeletion, key);
    for (const QString& key : filesToDrop) RemoveSyncTask(ServerFileDeletion, key);
}

}  // namespace syncService
}  // namespace sync
