#pragma once

#include <QDateTime>
#include <QObject>

namespace sync {
namespace interf {

// Answers the service's questions about the schedule.
class ISyncScheduleManager : public QObject {
    Q_OBJECT
public:
    ~ISyncScheduleManager() override = default;
    virtual void Initialize() = 0;
    virtual bool CurrentSyncTypeIsManual() = 0;
    virtual bool CurrentSyncTypeIsContinuous() = 0;
    // Seconds from now to the next cycle; throws SyncServiceException under manual schedule.
    virtual int CalculateSleepDuration(const QDateTime& now) const = 0;
};

}  // namespace interf
}  // namespace sync
