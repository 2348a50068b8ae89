#pragma once

#include <QObject>
#include <QString>

#include "SyncResults.h"

namespace sync {
namespace interf {

// The host's receiver of the engine's reports, living on the host's thread. The engine
// reaches it by queued connections only.
class ISyncSignalsAndSlots : public QObject {
    Q_OBJECT
public:
    ~ISyncSignalsAndSlots() override = default;

public Q_SLOTS:
    virtual void HandleConnectionError(int errorCode) = 0;
    virtual void HandleSyncingFolders() = 0;
    virtual void HandleFolderSyncError(QString folderAbsolutePath, long folderId,
                                       int httpErrorCode) = 0;
    virtual void HandleFolderAuthenticationError(long folderId) = 0;
    virtual void HandleFinishedSyncingFolders(bool wasError) = 0;
    virtual void HandleBeginSyncingRootFolder(long folderId, sync::core::SyncResults results,
                                              bool isFirstSync) = 0;
    virtual void HandleFinishedSyncingRootFolder(long folderId, sync::core::SyncResults results,
                                                 bool isFirstSync) = 0;
    virtual void HandleSubFolderNameNotAllowed(QString path) = 0;

Q_SIGNALS:
    // Requests from the host to the service.
    void SyncNow();
    void ScheduleChanged();
};

}  // namespace interf
}  // namespace sync
