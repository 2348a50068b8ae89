#include "SyncTaskDepot.h"

#include "FolderUtilities.h"

namespace sync {
namespace syncService {

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

    // Only the topmost folder of a subtree deleted on the server is sent as a deletion.
    auto folderKeys = GetSyncTaskListKeys(ServerFolderDeletion);
    if (!folderKeys) return;
    auto fileKeys = GetSyncTaskListKeys(ServerFileDeletion);
    QList<QString> foldersToDrop;
    QList<QString> filesToDrop;
    for (int i = 0; i < folderKeys->size(); ++i) {
        const QString& folder = folderKeys->at(i);
        for (int j = 0; j < folderKeys->size(); ++j) {
            if (i == j) continue;
            const QString& other = folderKeys->at(j);
            if (sync::core::FolderUtilities::IsParent(other, folder, Qt::CaseInsensitive) &&
                !foldersToDrop.contains(other))
                foldersToDrop.append(other);
        }
        if (fileKeys) {
            for (const QString& file : *fileKeys)
                if (sync::core::FolderUtilities::IsParent(file, folder, Qt::CaseInsensitive))
                    filesToDrop.append(file);
        }
    }
    for (const QString& key : foldersToDrop) RemoveSyncTask(ServerFolderDeletion, key);
    for (const QString& key : filesToDrop) RemoveSyncTask(ServerFileDeletion, key);
}

}  // namespace syncService
}  // namespace sync
