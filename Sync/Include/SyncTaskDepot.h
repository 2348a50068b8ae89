#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <map>
#include <memory>

#include "ISyncTaskDepot.h"
#include "SyncTask.h"

namespace sync {
namespace syncService {

// All tasks of one root folder, grouped by type and keyed by the entry's serverPath (case
// kept). Lives for the planning and execution of one root folder.
class SyncTaskDepot : public sync::interf::ISyncTaskDepot {
public:
    using TaskHash = QHash<QString, std::shared_ptr<sync::interf::ISyncTask>>;

    SyncTaskDepot() = default;
    ~SyncTaskDepot() override = default;

    void AddSyncTask(sync::interf::ISyncTask& task) override;
    void RemoveSyncTask(sync::interf::ISyncTask& task) override;
    void RemoveSyncTask(SyncTaskType type, const QString& key) override;
    std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> GetSyncTaskList(
        SyncTaskType type) const override;
    std::shared_ptr<QList<QString>> GetSyncTaskListKeys(SyncTaskType type) const override;
    void RemoveConflictAndDuplicateTask() override;

private:
    std::map<SyncTaskType, std::shared_ptr<TaskHash>> _tasks;
};

}  // namespace syncService
}  // namespace sync
