#include "ScheduleEntryManager.h"

#include "ConfigDatabaseImpl.h"

using sync::config::ScheduleEntry;

namespace sync {
namespace database {

namespace {
const char* const kSelect =
    "SELECT sync_time_ms, sync_time_zone, last_changed_ms, last_changed_zone, sync_type, "
    "sync_interval FROM schedule WHERE id = 1";
const char* const kStore =
    "INSERT OR REPLACE INTO schedule (id, sync_time_ms, sync_time_zone, last_changed_ms, "
    "last_changed_zone, sync_type, sync_interval) VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6)";
}  // namespace

ScheduleEntryManager::ScheduleEntryManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

ScheduleEntryManager::~ScheduleEntryManager() = default;

ScheduleEntry ScheduleEntryManager::GetScheduleEntry() {
    ScheduleEntry entry;
    Query q(_database->impl().Checked(), kSelect);
    if (q.Step()) {
        entry.syncTime = RecordCodec::ReadTime(q, 0);
        entry.lastChanged = RecordCodec::ReadTime(q, 2);
        entry.syncType = q.Int(4);
        entry.syncInterval = q.Int(5);
    }
    return entry;
}

void ScheduleEntryManager::UpdateScheduleEntry(ScheduleEntry& entry) {
    Query q(_database->impl().Checked(), kStore);
    RecordCodec::BindTime(q, 1, entry.syncTime);
    RecordCodec::BindTime(q, 3, entry.lastChanged);
    q.Bind(5, entry.syncType);
    q.Bind(6, entry.syncInterval);
    q.Run();
}

}  // namespace database
}  // namespace sync
