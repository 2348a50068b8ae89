#pragma once

#include "ScheduleEntry.h"

namespace sync {
namespace interf {

// The one schedule record. A database failure throws std::runtime_error.
class IScheduleEntryManager {
public:
    virtual ~IScheduleEntryManager() = default;
    // The stored record, or the default schedule when none was stored yet.
    virtual sync::config::ScheduleEntry GetScheduleEntry() = 0;
    virtual void UpdateScheduleEntry(sync::config::ScheduleEntry& entry) = 0;
};

}  // namespace interf
}  // namespace sync
