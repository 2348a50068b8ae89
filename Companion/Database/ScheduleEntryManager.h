#pragma once

#include <memory>

#include "ConfigDatabase.h"
#include "IScheduleEntryManager.h"

namespace sync {
namespace database {

// The one schedule record.
class ScheduleEntryManager : public sync::interf::IScheduleEntryManager {
public:
    explicit ScheduleEntryManager(std::shared_ptr<ConfigDatabase> database);
    ~ScheduleEntryManager() override;

    sync::config::ScheduleEntry GetScheduleEntry() override;
    void UpdateScheduleEntry(sync::config::ScheduleEntry& entry) override;

private:
    std::shared_ptr<ConfigDatabase> _database;
};

}  // namespace database
}  // namespace sync
