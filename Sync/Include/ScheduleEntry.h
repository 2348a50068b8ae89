#pragma once

#include <QDateTime>
#include <QObject>

namespace sync {
namespace config {

enum SyncType { Continuous = 0, Daily = 1, Manual = 2, Periodic = 3 };

// The one schedule record.
class ScheduleEntry : public QObject {
public:
    ScheduleEntry() : QObject(nullptr) {}
    ScheduleEntry(const ScheduleEntry& o) : QObject(nullptr) { _CopyMembers(o); }
    ScheduleEntry& operator=(const ScheduleEntry& o) {
        if (this != &o) _CopyMembers(o);
        return *this;
    }
    ~ScheduleEntry() override = default;

    QDateTime syncTime;  // only its time of day is used: the daily time
    QDateTime lastChanged;
    int syncType = Periodic;
    int syncInterval = 300;

private:
    void _CopyMembers(const ScheduleEntry& o) {
        syncTime = o.syncTime;
        lastChanged = o.lastChanged;
        syncType = o.syncType;
        syncInterval = o.syncInterval;
    }
};

}  // namespace config
}  // namespace sync
