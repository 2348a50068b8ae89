#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "FolderConfiguration.h"
#include "SyncResults.h"

namespace sync {
namespace syncService {
class SyncTaskDepot;
}
namespace interf {

// The application that embeds the engine.
class ISyncHostApplication : public QObject {
    Q_OBJECT
public:
    ~ISyncHostApplication() override = default;
    // Text for a root folder record whose privilegeInfo is empty.
    virtual QString GetRootFolderText() = 0;
    // False skips a scheduled cycle.
    virtual bool IsSyncAllowed() = 0;
    virtual void SyncStarted() = 0;
    // Called with a root folder's plan before it runs; false cancels the root folder.
    virtual bool PreProcessFiles(const sync::config::FolderConfiguration& root,
                                 std::shared_ptr<sync::syncService::SyncTaskDepot> depot) = 0;
    // Called with a root folder's plan and outcome after it ran.
    virtual void PostProcessFiles(const sync::config::FolderConfiguration& root,
                                  std::shared_ptr<sync::syncService::SyncTaskDepot> depot,
                                  sync::core::SyncResults& results) = 0;
    virtual void SyncFinished() = 0;

Q_SIGNALS:
    // The user asked for a cycle now.
    void SyncNowInvoked();
};

}  // namespace interf
}  // namespace sync
