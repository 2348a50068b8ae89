#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "FolderConfiguration.h"
#include "ISyncTaskDepot.h"
#include "SyncEnums.h"
#include "SyncResults.h"

namespace sync {
namespace interf {

// Executes one root folder's depot in the fixed order of task types.
class ISyncTaskEngine : public QObject {
    Q_OBJECT
public:
    ~ISyncTaskEngine() override = default;
    virtual sync::core::SyncResults Process(const sync::config::FolderConfiguration& rootFolder,
                                            std::shared_ptr<ISyncTaskDepot> depot) = 0;
    // Each adds n to its counter.
    virtual void SetFilteredLocalFolderCount(int n) = 0;
    virtual void SetFilteredLocalFileCount(int n) = 0;
    virtual void SetFilteredServerFolderCount(int n) = 0;
    virtual void SetFilteredServerFileCount(int n) = 0;
    // Sets all four counters to 0.
    virtual void InitFilteredCount() = 0;

Q_SIGNALS:
    void LocalOrServerFolderCreated(QString path);

public Q_SLOTS:
    virtual void TransferLocalOrServerFolderCreated(
        const QString& path, sync::config::FolderSynchronizationStatus status) = 0;
    virtual void HandleSubFolderFilteredOut(QString path) = 0;
    virtual void HandleFileFilteredOut(QString path) = 0;
};

}  // namespace interf
}  // namespace sync
