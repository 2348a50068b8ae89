#include "SyncScheduleManager.h"

#include <QTime>

#include "ScheduleEntry.h"
#include "SyncServiceException.h"

namespace sync {
namespace syncService {

using sync::config::ScheduleEntry;

SyncScheduleManager::SyncScheduleManager(
    std::shared_ptr<sync::interf::ISyncConfiguration> configuration,
    std::shared_ptr<sync::interf::IScheduleEntryManager> scheduleEntryManager)
    : _configuration(std::move(configuration)),
      _scheduleEntryManager(std::move(scheduleEntryManager)) {}

SyncScheduleManager::~SyncScheduleManager() = default;

void SyncScheduleManager::Initialize() {}

bool SyncScheduleManager::CurrentSyncTypeIsManual() {
    return _scheduleEntryManager->GetScheduleEntry().syncType == sync::config::Manual;
}

bool SyncScheduleManager::CurrentSyncTypeIsContinuous() {
    return _scheduleEntryManager->GetScheduleEntry().syncType == sync::config::Continuous;
}

int SyncScheduleManager::CalculateSleepDuration(const QDateTime& now) const {
    ScheduleEntry entry = _scheduleEntryManager->GetScheduleEntry();

    switch (entry.syncType) {
        case sync::config::Daily: {
            // A record stored without a time (null) waits for midnight: Qt takes a null time of
            // day as the start of the day.
            const QTime syncTime = entry.syncTime.time();
            QDateTime next = now;
            next.setTime(syncTime);
            if (now.time() > syncTime) next.setDate(now.date().addDays(1));
            return static_cast<int>(now.secsTo(next));
        }
        case sync::config::Manual:
            throw SyncServiceException(
                QStringLiteral("Cannot calculate sleep duration for a manual sync."));
        default: {
            // Continuous, periodic and any unknown type wait the configured interval; the
            // record's copy of it is kept in step for whoever displays the schedule.
            const int interval = _configuration->GetSyncInterval();
            if (entry.syncInterval != interval) {
                entry.syncInterval = interval;
                _scheduleEntryManager->UpdateScheduleEntry(entry);
            }
            return interval;
        }
    }
}

}  // namespace syncService
}  // namespace sync
