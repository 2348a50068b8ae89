#pragma once

#include <QDateTime>
#include <memory>

#include "IScheduleEntryManager.h"
#include "ISyncConfiguration.h"
#include "ISyncScheduleManager.h"

namespace sync {
namespace syncService {

// Answers the service's questions about the schedule. Reads the schedule record on every
// question, so a schedule changed in the database applies from the next question on.
class SyncScheduleManager : public sync::interf::ISyncScheduleManager {
    Q_OBJECT
public:
    SyncScheduleManager(std::shared_ptr<sync::interf::ISyncConfiguration> configuration,
                        std::shared_ptr<sync::interf::IScheduleEntryManager> scheduleEntryManager);
    ~SyncScheduleManager() override;

    void Initialize() override;
    bool CurrentSyncTypeIsManual() override;
    bool CurrentSyncTypeIsContinuous() override;
    // Seconds from now to the next cycle: to the next daily time (0 at the time itself), or
    // the configured interval for every other schedule but manual, which throws
    // SyncServiceException.
    int CalculateSleepDuration(const QDateTime& now) const override;

private:
    std::shared_ptr<sync::interf::ISyncConfiguration> _configuration;
    std::shared_ptr<sync::interf::IScheduleEntryManager> _scheduleEntryManager;
};

}  // namespace syncService
}  // namespace sync
