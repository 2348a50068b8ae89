#include <gtest/gtest.h>
#include <QDate>
#include <QDateTime>
#include <QTime>
#include <memory>

#include "FakeConfigStore.h"
#include "ScheduleEntry.h"
#include "SyncScheduleManager.h"
#include "SyncServiceException.h"

using sync::config::ScheduleEntry;
using sync::syncService::SyncScheduleManager;
using sync::syncService::SyncServiceException;
using sync::test::FakeConfigStore;

namespace {

constexpr int kDay = 24 * 60 * 60;
const QDate kToday(2026, 3, 10);

QDateTime At(const QTime& time, const QDate& date = kToday) {
    return QDateTime(date, time);
}

class ScheduleManagerTest : public ::testing::Test {
protected:
    void Store(int syncType, int storedInterval = 300, const QDateTime& syncTime = QDateTime()) {
        ScheduleEntry entry;
        entry.syncType = syncType;
        entry.syncInterval = storedInterval;
        entry.syncTime = syncTime;
        store->UpdateScheduleEntry(entry);
    }
    int Writes() const { return store->Calls(QStringLiteral("UpdateScheduleEntry")) - setupWrites; }

    std::shared_ptr<FakeConfigStore> store = std::make_shared<FakeConfigStore>();
    SyncScheduleManager manager{store, store};
    int setupWrites = 0;
};

// The wait until the next cycle, for every kind of schedule.
struct SleepRow {
    const char* name;
    int syncType;
    QDateTime syncTime;  // daily only; the date part must not matter
    QDateTime now;
    int configuredInterval;
    int storedInterval;
    int expectedSeconds;
};

TEST_F(ScheduleManagerTest, SleepDurationFollowsTheScheduleType) {
    const QDate otherDay(2020, 1, 1);
    const SleepRow rows[] = {
        {"daily a minute early", 1, At(QTime(2, 0), otherDay), At(QTime(1, 59)), 300, 300, 60},
        {"daily at the time itself", 1, At(QTime(2, 0), otherDay), At(QTime(2, 0)), 300, 300, 0},
        {"daily a second late waits for tomorrow", 1, At(QTime(2, 0), otherDay), At(QTime(2, 0, 1)),
         300, 300, kDay - 1},
        {"daily started an hour early", 1, At(QTime(2, 0)), At(QTime(1, 0)), 300, 300, 3600},
        {"daily across midnight", 1, At(QTime(0, 30)), At(QTime(23, 0)), 300, 300, 5400},
        {"daily without a time waits for midnight", 1, QDateTime(), At(QTime(23, 0)), 300, 300,
         3600},
        {"continuous waits the configured interval", 0, QDateTime(), At(QTime(9, 0)), 900, 600,
         900},
        {"periodic waits the configured interval", 3, QDateTime(), At(QTime(9, 0)), 900, 600, 900},
        {"unknown type behaves as periodic", 7, QDateTime(), At(QTime(9, 0)), 45, 45, 45},
    };
    for (const SleepRow& row : rows) {
        SCOPED_TRACE(row.name);
        store->SetSyncInterval(row.configuredInterval);
        Store(row.syncType, row.storedInterval, row.syncTime);
        EXPECT_EQ(manager.CalculateSleepDuration(row.now), row.expectedSeconds);
    }
}

// The record keeps a copy of the configured interval for whoever displays the schedule: it is
// written when it differs, and only then.
TEST_F(ScheduleManagerTest, IntervalIsWrittenBackOnceWhenItChanged) {
    for (int syncType : {0, 3, 7}) {
        SCOPED_TRACE(syncType);
        store->SetSyncInterval(900);
        Store(syncType, 600);
        setupWrites = store->Calls(QStringLiteral("UpdateScheduleEntry"));

        EXPECT_EQ(manager.CalculateSleepDuration(At(QTime(9, 0))), 900);
        EXPECT_EQ(Writes(), 1);
        const ScheduleEntry stored = store->GetScheduleEntry();
        EXPECT_EQ(stored.syncInterval, 900);
        EXPECT_EQ(stored.syncType, syncType);

        EXPECT_EQ(manager.CalculateSleepDuration(At(QTime(9, 5))), 900);
        EXPECT_EQ(Writes(), 1);
    }
}

TEST_F(ScheduleManagerTest, ManualScheduleHasNoSleepDuration) {
    Store(2);
    try {
        manager.CalculateSleepDuration(At(QTime(9, 0)));
        FAIL() << "a manual schedule has no next cycle";
    } catch (const SyncServiceException& e) {
        EXPECT_STREQ(e.what(), "Cannot calculate sleep duration for a manual sync.");
    }
}

}  // namespace
