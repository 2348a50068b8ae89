#pragma once

#include <QObject>

namespace sync {
namespace interf {

// The long-lived service that runs cycles on its own thread.
class ISynchronizationService : public QObject {
    Q_OBJECT
public:
    ~ISynchronizationService() override = default;
    // Called once on the service's thread after the object was moved there.
    virtual void StartSyncService() = 0;
};

}  // namespace interf
}  // namespace sync
