#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QDateTime>
#include <QSharedPointer>
#include <QThread>
#include <QTimerEvent>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "ISyncHostApplication.h"
#include "ISyncSignalsAndSlots.h"
#include "ISynchronizationServiceFactory.h"
#include "ISynchronizer.h"
#include "LogCapture.h"
#include "ScheduleEntry.h"
#include "SyncScheduleManager.h"
#include "SynchronizationService.h"

// Readable failure messages for Qt strings.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

using namespace sync::test;
using sync::core::SyncResults;
using sync::syncService::SynchronizationService;
using sync::syncService::SyncScheduleManager;
using Clock = std::chrono::steady_clock;

namespace {

const auto TRACE = log4cplus::TRACE_LOG_LEVEL;
const auto INFO = log4cplus::INFO_LOG_LEVEL;
const auto ERROR = log4cplus::ERROR_LOG_LEVEL;

constexpr int kContinuous = 0, kDaily = 1, kManual = 2, kPeriodic = 3;
constexpr int kWaitMs = 10000;

class FakeSignals : public sync::interf::ISyncSignalsAndSlots {
public:
    void HandleConnectionError(int) override {}
    void HandleSyncingFolders() override {}
    void HandleFolderSyncError(QString, long, int) override {}
    void HandleFolderAuthenticationError(long) override {}
    void HandleFinishedSyncingFolders(bool) override {}
    void HandleBeginSyncingRootFolder(long, SyncResults, bool) override {}
    void HandleFinishedSyncingRootFolder(long, SyncResults, bool) override {}
    void HandleSubFolderNameNotAllowed(QString) override {}
};

class FakeHost : public sync::interf::ISyncHostApplication {
public:
    explicit FakeHost(bool allowed) : _allowed(allowed) {}
    QString GetRootFolderText() override { return QString(); }
    bool IsSyncAllowed() override { return _allowed; }
    void SyncStarted() override {}
    bool PreProcessFiles(const sync::config::FolderConfiguration&,
                         std::shared_ptr<sync::syncService::SyncTaskDepot>) override {
        return true;
    }
    void PostProcessFiles(const sync::config::FolderConfiguration&,
                          std::shared_ptr<sync::syncService::SyncTaskDepot>,
                          SyncResults&) override {}
    void SyncFinished() override {}

private:
    const bool _allowed;  // set before the service thread starts, never changed
};

// Hands out synchronizers that run the test's cycle body on the service thread and records
// when each cycle began and how deeply cycles were nested.
class CycleFactory : public sync::interf::factory::ISynchronizationServiceFactory {
public:
    // Runs on the service thread; the argument counts cycles from 1.
    std::function<SyncResults(int)> body = [](int) { return SyncResults(); };

    std::shared_ptr<sync::interf::ISynchronizer> CreateSynchronizer(
        QWeakPointer<sync::interf::ISyncSignalsAndSlots>,
        std::shared_ptr<sync::interf::ISyncConfiguration>) override {
        return std::make_shared<Synchronizer>(*this);
    }

    bool WaitForFinishedCycles(int n) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                 [&] { return _finished >= n; });
    }
    int Started() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return int(_starts.size());
    }
    int MaxDepth() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _maxDepth;
    }
    std::vector<Clock::time_point> Starts() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _starts;
    }

private:
    class Synchronizer : public sync::interf::ISynchronizer {
    public:
        explicit Synchronizer(CycleFactory& factory) : _factory(factory) {}
        SyncResults Synchronize() override {
            int cycle = 0;
            {
                std::lock_guard<std::mutex> lock(_factory._mutex);
                _factory._starts.push_back(Clock::now());
                cycle = int(_factory._starts.size());
                _factory._maxDepth = std::max(_factory._maxDepth, ++_factory._depth);
            }
            struct Leave {
                CycleFactory& f;
                ~Leave() {
                    std::lock_guard<std::mutex> lock(f._mutex);
                    --f._depth;
                    ++f._finished;
                    f._changed.notify_all();
                }
            } leave{_factory};
            return _factory.body(cycle);
        }

    private:
        CycleFactory& _factory;
    };

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<Clock::time_point> _starts;
    int _finished = 0;
    int _depth = 0;
    int _maxDepth = 0;
};

class ServiceWithClock : public SynchronizationService {
public:
    using SynchronizationService::SynchronizationService;
    QDateTime now;  // set before the service thread starts

protected:
    QDateTime CurrentDateTime() const override {
        return now.isValid() ? now : SynchronizationService::CurrentDateTime();
    }
};

// One service on a real thread with its own event loop, over the fake stores, with the real
// schedule manager. Stops the thread when it goes.
struct Harness {
    explicit Harness(int syncType, int intervalSeconds = 3600,
                     const QDateTime& syncTime = QDateTime()) {
        sync::config::ScheduleEntry entry;
        entry.syncType = syncType;
        entry.syncInterval = intervalSeconds;
        entry.syncTime = syncTime;
        store->UpdateScheduleEntry(entry);
        store->SetSyncInterval(intervalSeconds);
    }

    ~Harness() {
        if (!thread.isRunning()) return;
        core->RequestStop();
        if (!thread.wait(kWaitMs)) {
            ADD_FAILURE() << "the service did not end on a stop request";
            thread.terminate();
            thread.wait();
        }
    }

    void Start() {
        if (withHost) host = std::make_shared<FakeHost>(hostAllows);
        service = new ServiceWithClock(
            store, host, core->CreateCheckForExit(), factory,
            withSignals ? signalsObject.toWeakRef() : QWeakPointer<FakeSignals>(),
            std::make_shared<SyncScheduleManager>(store, store));
        service->now = now;
        QObject::connect(service, &SynchronizationService::ServiceFailed,
                         [this](const QString& message) {
                             std::lock_guard<std::mutex> lock(failureMutex);
                             failures << message;
                         });
        service->moveToThread(&thread);
        // The service's timer belongs to its thread: it is deleted there.
        QObject::connect(&thread, &QThread::finished, service, &QObject::deleteLater);
        thread.start();
        ServiceWithClock* s = service;
        QMetaObject::invokeMethod(
            service, [s] { s->StartSyncService(); }, Qt::QueuedConnection);
    }

    // Runs after everything already queued to the service, so it also waits for a running
    // cycle to end.
    int Armed() {
        int ms = -2;
        ServiceWithClock* s = service;
        QMetaObject::invokeMethod(
            service, [s, &ms] { ms = s->ArmedIntervalMs(); }, Qt::BlockingQueuedConnection);
        return ms;
    }

    bool Ended() { return thread.wait(kWaitMs); }

    QStringList Failures() {
        std::lock_guard<std::mutex> lock(failureMutex);
        return failures;
    }

    std::shared_ptr<FakeCore> core = std::make_shared<FakeCore>();
    InstalledCore installed{core};
    LogCapture log;
    std::shared_ptr<FakeConfigStore> store = std::make_shared<FakeConfigStore>();
    std::shared_ptr<CycleFactory> factory = std::make_shared<CycleFactory>();
    QSharedPointer<FakeSignals> signalsObject = QSharedPointer<FakeSignals>::create();
    bool withHost = true;
    bool hostAllows = true;
    bool withSignals = true;
    QDateTime now;
    std::shared_ptr<FakeHost> host;
    QThread thread;
    ServiceWithClock* service = nullptr;
    std::mutex failureMutex;
    QStringList failures;
};

}  // namespace

namespace {

QDateTime Today(int hour) {
    return QDateTime(QDate::currentDate(), QTime(hour, 0));
}

// What the service does from StartSyncService until it first waits.
TEST(SynchronizationServiceTest, StartFollowsTheSchedule) {
    struct Row {
        const char* name;
        int syncType;
        int intervalSeconds;
        QDateTime syncTime;
        QDateTime now;
        int cyclesAtStart;
        int armedMs;
    };
    const Row rows[] = {
        {"continuous runs at once, then waits", kContinuous, 3600, {}, {}, 1, 3600000},
        {"periodic first waits the interval", kPeriodic, 3600, {}, {}, 0, 3600000},
        {"daily at 02:00 started at 01:00", kDaily, 300, Today(2), Today(1), 0, 3600000},
        {"manual waits for a request", kManual, 3600, {}, {}, 0, -1},
        {"a wait too long for the timer is cut, not wrapped",
         kPeriodic,
         5000000,
         {},
         {},
         0,
         std::numeric_limits<int>::max()},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Harness h(row.syncType, row.intervalSeconds, row.syncTime);
        h.now = row.now;
        h.Start();
        EXPECT_EQ(h.Armed(), row.armedMs);
        EXPECT_EQ(h.factory->Started(), row.cyclesAtStart);
    }
}

TEST(SynchronizationServiceTest, ContinuousRunsAgainAfterTheInterval) {
    Harness h(kContinuous, 1);
    h.Start();
    ASSERT_TRUE(h.factory->WaitForFinishedCycles(2));
    const std::vector<Clock::time_point> starts = h.factory->Starts();
    // A coarse timer may fire up to 5% early; a lower bound does not depend on the load.
    EXPECT_GE(starts[1] - starts[0], std::chrono::milliseconds(900));
    EXPECT_EQ(h.Armed(), 1000);
}

// Every way to ask for a cycle runs exactly one, and manual synchronisation is not rearmed.
// A missing host application or an expired receiver leaves those connections out.
TEST(SynchronizationServiceTest, ManualRunsOneCyclePerRequest) {
    enum Sender { Signals, Host, Direct };
    for (const Sender sender : {Signals, Host, Direct}) {
        SCOPED_TRACE(sender);
        Harness h(kManual);
        h.withHost = h.withSignals = sender != Direct;
        h.Start();
        if (sender == Signals) emit h.signalsObject->SyncNow();
        if (sender == Host) emit h.host->SyncNowInvoked();
        if (sender == Direct) QMetaObject::invokeMethod(h.service, "_Wakeup", Qt::QueuedConnection);
        ASSERT_TRUE(h.factory->WaitForFinishedCycles(1));
        EXPECT_EQ(h.Armed(), -1);
        EXPECT_EQ(h.factory->Started(), 1);
    }
}

// A cycle can spin a nested event loop (waiting on the network); requests that arrive then
// must neither start a second cycle inside the first nor arm the timer before the cycle ends.
TEST(SynchronizationServiceTest, RequestsDuringACycleWaitForItsEnd) {
    for (const bool scheduleChange : {false, true}) {
        SCOPED_TRACE(scheduleChange ? "ScheduleChanged" : "SyncNow");
        Harness h(kPeriodic, 3600);
        int armedDuringCycle = -2;
        h.factory->body = [&](int cycle) {
            if (cycle == 1) {
                h.store->SetSyncInterval(7200);
                if (scheduleChange)
                    emit h.signalsObject->ScheduleChanged();
                else
                    emit h.signalsObject->SyncNow();
                QCoreApplication::processEvents();
                armedDuringCycle = h.service->ArmedIntervalMs();
            }
            return SyncResults();
        };
        h.Start();
        emit h.signalsObject->SyncNow();
        ASSERT_TRUE(h.factory->WaitForFinishedCycles(1));
        EXPECT_EQ(h.Armed(), 7200000) << "the new schedule applies after the cycle";
        EXPECT_EQ(armedDuringCycle, -1);
        EXPECT_EQ(h.factory->MaxDepth(), 1);
        EXPECT_EQ(h.factory->Started(), 1);
    }
}

TEST(SynchronizationServiceTest, TooManyRequestsHoldsTheNextCycle) {
    struct Row {
        const char* name;
        int syncType;
        QMap<int, int> errorCodes;
        int holdSeconds;
        int intervalSeconds;
        int armedMs;
        int holdMinutes;  // -1: no hold
    };
    const Row rows[] = {
        {"the hold is longer than the schedule", kPeriodic, {{429, 2}}, 900, 60, 900000, 15},
        {"the schedule is longer than the hold", kPeriodic, {{429, 2}}, 900, 3600, 3600000, 15},
        {"minutes are whole", kPeriodic, {{429, 1}, {507, 1}}, 125, 60, 125000, 2},
        {"a zero count is no hold", kPeriodic, {{429, 0}}, 900, 60, 60000, -1},
        {"other errors are no hold", kPeriodic, {{503, 4}}, 900, 60, 60000, -1},
        {"manual stays stopped", kManual, {{429, 2}}, 900, 60, -1, 15},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Harness h(row.syncType, row.intervalSeconds);
        h.store->SetTooManyRequestsHoldSeconds(row.holdSeconds);
        h.factory->body = [&](int) {
            SyncResults total;
            total.FileServerCreationErrors = 1;
            total.errorCodes = row.errorCodes;
            return total;
        };
        h.Start();
        emit h.signalsObject->SyncNow();
        ASSERT_TRUE(h.factory->WaitForFinishedCycles(1));
        EXPECT_EQ(h.Armed(), row.armedMs);
        const QString hold = QStringLiteral(
            "Server returned 429 (Too Many Requests). Putting sync on hold for %1 minutes.");
        EXPECT_EQ(h.log.Messages(INFO).filter(QStringLiteral("429")),
                  row.holdMinutes < 0 ? QStringList() : QStringList{hold.arg(row.holdMinutes)});
    }
}

TEST(SynchronizationServiceTest, SummaryLineOnlyWhenSomethingHappened) {
    SyncResults everything;
    int* const counters[] = {&everything.FileLocalCreations,    &everything.FileServerCreations,
                             &everything.FileServerDeletions,   &everything.FileLocalDeletions,
                             &everything.FolderServerCreations, &everything.FolderServerDeletions,
                             &everything.FolderLocalCreations,  &everything.FolderLocalDeletions};
    for (int i = 0; i < 8; ++i) *counters[i] = i + 1;
    everything.FileLocalCreationErrors = 1;
    everything.FolderServerDeletionErrors = 2;
    everything.FolderLocalDeletionErrors = 10;
    SyncResults errorsOnly;
    errorsOnly.FileServerDeletionErrors = 1;
    SyncResults idle;  // lists and codes without counters are not work
    idle.FileLocalCreationPaths << QStringLiteral("/a");
    idle.errorCodes.insert(500, 1);

    const QString summary = QStringLiteral(
        "%1 file(s) downloaded, %2 file(s) uploaded, %3 file(s) deleted in server, %4 file(s) "
        "deleted locally, %5 folder(s) created and %6 folder(s) deleted in server, %7 folder(s) "
        "created and %8 folder(s) deleted locally, %9 total error(s)");
    const struct {
        const char* name;
        SyncResults total;
        QStringList expected;
    } rows[] = {
        {"every counter in its place",
         everything,
         {summary.arg(1).arg(2).arg(3).arg(4).arg(5).arg(6).arg(7).arg(8).arg(13)}},
        {"errors alone",
         errorsOnly,
         {summary.arg(0).arg(0).arg(0).arg(0).arg(0).arg(0).arg(0).arg(0).arg(1)}},
        {"idle cycle", idle, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Harness h(kManual);
        h.factory->body = [&](int) { return row.total; };
        h.Start();
        emit h.signalsObject->SyncNow();
        ASSERT_TRUE(h.factory->WaitForFinishedCycles(1));
        h.Armed();
        EXPECT_EQ(h.log.Messages(INFO).filter(QStringLiteral("total error")), row.expected);
    }
}

// The host's veto skips one cycle and the schedule goes on; a missing network is recorded and
// the cycle runs anyway, to report the connection error itself.
TEST(SynchronizationServiceTest, HostVetoAndMissingNetwork) {
    const struct {
        bool allowed;
        bool connected;
        int cycles;
        QStringList actionLog;
        bool vetoLogged;
    } rows[] = {
        {false, true, 0, {}, true},
        {true, false, 1, {QStringLiteral("4 1:")}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.allowed);
        Harness h(kPeriodic, 3600);
        h.hostAllows = row.allowed;
        h.core->SetConnected(row.connected);
        h.Start();
        emit h.signalsObject->SyncNow();
        EXPECT_EQ(h.Armed(), 3600000);
        EXPECT_EQ(h.factory->Started(), row.cycles);
        EXPECT_EQ(h.core->ActionLogLines(), row.actionLog);
        EXPECT_EQ(
            h.log.Contains(TRACE, QStringLiteral("Skipping sync cycle due to host app request")),
            row.vetoLogged);
    }
}

TEST(SynchronizationServiceTest, TimerEventOfAnotherTimerRunsNoCycle) {
    Harness h(kPeriodic, 3600);
    h.Start();
    QCoreApplication::postEvent(h.service, new QTimerEvent(987654));
    EXPECT_EQ(h.Armed(), 3600000);
    EXPECT_EQ(h.factory->Started(), 0);
    const QStringList errors = h.log.Messages(ERROR);
    ASSERT_EQ(errors.size(), 1);
    EXPECT_TRUE(errors[0].startsWith(QStringLiteral("Unknown timer ID   expected:  ")));
    EXPECT_TRUE(errors[0].endsWith(QStringLiteral("  actual:  987654")));
}

// The service thread ends on a stop request, quietly, and on anything that escapes, telling the
// host why.
TEST(SynchronizationServiceTest, ServiceEnds) {
    const QString any = QStringLiteral("*");
    const struct {
        const char* name;
        std::function<void(Harness&)> arrange;
        QString failure;  // empty: none; "*": any text
    } rows[] = {
        {"stop request", [](Harness& h) { h.core->RequestStop(); }, QString()},
        {"a standard exception from the cycle",
         [](Harness& h) {
             h.factory->body = [](int) -> SyncResults {
                 throw std::runtime_error("disk vanished");
             };
             emit h.signalsObject->SyncNow();
         },
         QStringLiteral("disk vanished")},
        {"anything else from the cycle",
         [](Harness& h) {
             h.factory->body = [](int) -> SyncResults { throw 42; };
             emit h.signalsObject->SyncNow();
         },
         QStringLiteral("Caught unknown, unexpected exception.  Swallowing exception.")},
        {"the schedule cannot be read after the cycle",
         [](Harness& h) {
             h.factory->body = [&h](int) {
                 h.store->FailOn(QStringLiteral("GetScheduleEntry"));
                 return SyncResults();
             };
             emit h.signalsObject->SyncNow();
         },
         any},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Harness h(kManual);
        h.Start();
        row.arrange(h);
        ASSERT_TRUE(h.Ended()) << "the service thread keeps running";
        const QStringList failures = h.Failures();
        ASSERT_EQ(failures.size(), row.failure.isEmpty() ? 0 : 1);
        if (row.failure.isEmpty()) continue;
        if (row.failure != any) {
            EXPECT_EQ(failures[0], row.failure);
        }
        EXPECT_FALSE(failures[0].isEmpty());
        EXPECT_TRUE(h.log.Contains(ERROR, failures[0]));
        EXPECT_EQ(h.factory->Started(), 1);
    }
}

}  // namespace
