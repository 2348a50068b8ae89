#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <memory>

#include "FolderConfiguration.h"
#include "ISyncTask.h"
#include "SyncEnums.h"
#include "SyncResults.h"

namespace sync {
namespace syncService {
class SyncStatusMonitor;
}
namespace interf {

// Executes the folder tasks of one type. Per-entry failures are counted, never thrown.
class IFolderTaskWorker : public QObject {
    Q_OBJECT
public:
    ~IFolderTaskWorker() override = default;
    virtual sync::core::SyncResults Work(const sync::config::FolderConfiguration& rootFolder,
                                         std::shared_ptr<QList<std::shared_ptr<ISyncTask>>> tasks,
                                         sync::syncService::SyncStatusMonitor& monitor) = 0;
    virtual sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<ISyncTask>>> tasks) = 0;

Q_SIGNALS:
    // Once per finished entry, with its localPath and new status.
    void Done(const QString& path, sync::config::FolderSynchronizationStatus status);
};

}  // namespace interf
}  // namespace sync
