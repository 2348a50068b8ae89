#pragma once

#include <QObject>
#include <memory>

#include "IFileTaskWorker.h"
#include "IFolderTaskWorker.h"
#include "SyncTaskType.h"

namespace sync {
namespace interf {

// Builds a fresh worker per task type.
class ITaskWorkerManager : public QObject {
    Q_OBJECT
public:
    ~ITaskWorkerManager() override = default;
    // Throws SyncServiceException "No FileTaskWorker matched" for a folder type.
    virtual std::shared_ptr<IFileTaskWorker> GetFileTaskWorker(
        sync::syncService::SyncTaskType type) = 0;
    // Null for FileConflictMarking; throws "No FolderTaskWorker matched" for other file types.
    virtual std::shared_ptr<IFolderTaskWorker> GetFolderTaskWorker(
        sync::syncService::SyncTaskType type) = 0;
};

}  // namespace interf
}  // namespace sync
