#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <memory>

#include "ISyncTask.h"
#include "SyncTaskType.h"

namespace sync {
namespace interf {

// All tasks of one root folder, by type and by depot key.
class ISyncTaskDepot : public QObject {
    Q_OBJECT
public:
    ~ISyncTaskDepot() override = default;
    // Stores a copy; a task under the same type and key is replaced.
    virtual void AddSyncTask(ISyncTask& task) = 0;
    virtual void RemoveSyncTask(ISyncTask& task) = 0;
    virtual void RemoveSyncTask(sync::syncService::SyncTaskType type, const QString& key) = 0;
    // Null when the type never received a task.
    virtual std::shared_ptr<QList<std::shared_ptr<ISyncTask>>> GetSyncTaskList(
        sync::syncService::SyncTaskType type) const = 0;
    virtual std::shared_ptr<QList<QString>> GetSyncTaskListKeys(
        sync::syncService::SyncTaskType type) const = 0;
    // Drops transfers of files marked as conflicts and server deletions nested in a deleted
    // server folder.
    virtual void RemoveConflictAndDuplicateTask() = 0;
};

}  // namespace interf
}  // namespace sync
