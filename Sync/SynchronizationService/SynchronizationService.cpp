#include "SynchronizationService.h"

#include <QThread>
#include <QTimerEvent>
#include <algorithm>
#include <exception>
#include <functional>
#include <limits>

#include "CoreFactory.h"
#include "ISynchronizer.h"
#include "SyncCodes.h"
#include "SyncLog.h"
#include "SyncResults.h"

namespace sync {
namespace syncService {

using sync::core::SyncResults;

namespace {

const char* const kUnknownExceptionMessage =
    "Caught unknown, unexpected exception.  Swallowing exception.";

// Runs step; an exception that escapes it is logged and its text returned in failure. Nothing
// may escape into the event loop: Qt cannot unwind through it.
bool RunCatching(const std::function<void()>& step, QString& failure) {
    try {
        step();
        return true;
    } catch (const std::exception& e) {
        failure = QString::fromUtf8(e.what());
        SYNC_LOG_ERROR(failure);
    } catch (...) {
        failure = QString::fromUtf8(kUnknownExceptionMessage);
        SYNC_LOG_ERROR(failure);
    }
    return false;
}

int TotalErrors(const SyncResults& results) {
    int total = 0;
    for (int c = 0; c < SyncResults::CategoryCount; ++c)
        total += results.errors(static_cast<SyncResults::Category>(c));
    return total;
}

}  // namespace

SynchronizationService::SynchronizationService(
    std::shared_ptr<sync::interf::ISyncConfiguration> configuration,
    std::shared_ptr<sync::interf::ISyncHostApplication> hostApplication,
    std::shared_ptr<sync::interf::ICheckForExit> checkForExit,
    std::shared_ptr<sync::interf::factory::ISynchronizationServiceFactory> serviceFactory,
    QWeakPointer<sync::interf::ISyncSignalsAndSlots> signalsAndSlots,
    std::shared_ptr<sync::interf::ISyncScheduleManager> scheduleManager)
    : _configuration(std::move(configuration)),
      _hostApplication(std::move(hostApplication)),
      _checkForExit(std::move(checkForExit)),
      _serviceFactory(std::move(serviceFactory)),
      _signalsAndSlots(std::move(signalsAndSlots)),
      _scheduleManager(std::move(scheduleManager)) {
    _scheduleManager->Initialize();
    _ConnectSignals();
}

SynchronizationService::~SynchronizationService() {
    _StopSyncTimer();
}

void SynchronizationService::_ConnectSignals() {
    // Queued even when sender and service share a thread: a request must never start a cycle
    // inside the code that made it.
    if (_hostApplication)
        connect(_hostApplication.get(), SIGNAL(SyncNowInvoked()), this, SLOT(_Wakeup()),
                Qt::QueuedConnection);
    if (_checkForExit)
        connect(_checkForExit.get(), SIGNAL(PrepareToQuit()), this, SLOT(_Wakeup()),
                Qt::QueuedConnection);
    const QSharedPointer<sync::interf::ISyncSignalsAndSlots> host = _signalsAndSlots.toStrongRef();
    if (host) {
        connect(host.data(), SIGNAL(SyncNow()), this, SLOT(_Wakeup()), Qt::QueuedConnection);
        connect(host.data(), SIGNAL(ScheduleChanged()), this, SLOT(_ScheduleChanged()),
                Qt::QueuedConnection);
        connect(this, SIGNAL(FinishedSyncingFolders(bool)), host.data(),
                SLOT(HandleFinishedSyncingFolders(bool)), Qt::QueuedConnection);
    }
}

void SynchronizationService::StartSyncService() {
    sync::factory::CoreFactory::ActionLog()->Initialize(0);
    QString failure;
    if (!RunCatching([this] { _ScheduleNextSync(); }, failure)) _Fail(failure);
}

int SynchronizationService::ArmedIntervalMs() const {
    return _syncTimer.isActive() ? _armedIntervalMs : -1;
}

QDateTime SynchronizationService::CurrentDateTime() const {
    return QDateTime::currentDateTime();
}

void SynchronizationService::timerEvent(QTimerEvent* event) {
    if (_ShouldExitThread()) return;
    if (_checkForExit->ShouldExit()) return;

    if (!event || event->timerId() == _syncTimer.timerId()) {
        _Synchronize();
    } else {
        SYNC_LOG_ERROR("Unknown timer ID   expected:  %0  actual:  %1", _syncTimer.timerId(),
                       event->timerId());
    }

    _ShouldExitThread();
}

void SynchronizationService::_Synchronize() {
    _StopSyncTimer();
    // A cycle that waits on a nested event loop (network replies) can see a wake-up arrive; it
    // is dropped, since the running cycle reschedules when it ends.
    if (_syncing) return;

    QString failure;
    if (!RunCatching([this] { _RunCycle(); }, failure)) _Fail(failure);
}

void SynchronizationService::_RunCycle() {
    bool hold = false;
    if (_hostApplication && !_hostApplication->IsSyncAllowed()) {
        SYNC_LOG_TRACE("Skipping sync cycle due to host app request");
    } else {
        if (!sync::factory::CoreFactory().CreateConnectedToNetwork()->IsConnected()) {
            // The cycle runs anyway: the synchronizer reports the connection error itself.
            auto actionLog = sync::factory::CoreFactory::ActionLog();
            actionLog->AddEntry(sync::core::actionlog::ConnectionProblem,
                                actionLog->CreateDetails(sync::core::actionlog::NoNetwork));
        }

        std::shared_ptr<sync::interf::ISynchronizer> synchronizer =
            _serviceFactory->CreateSynchronizer(_signalsAndSlots, _configuration);
        _syncing = true;
        const SyncResults total = synchronizer->Synchronize();
        synchronizer.reset();

        if (total.anyWorkDone()) {
            SYNC_LOG_INFO(
                "%0 file(s) downloaded, %1 file(s) uploaded, %2 file(s) deleted in server, %3 "
                "file(s) deleted locally, %4 folder(s) created and %5 folder(s) deleted in "
                "server, %6 folder(s) created and %7 folder(s) deleted locally, %8 total error(s)",
                total.FileLocalCreations, total.FileServerCreations, total.FileServerDeletions,
                total.FileLocalDeletions, total.FolderServerCreations, total.FolderServerDeletions,
                total.FolderLocalCreations, total.FolderLocalDeletions, TotalErrors(total));
        }

        sync::factory::CoreFactory::ActionLog()->Flush();
        _syncing = false;

        if (total.errorCodes.value(sync::core::consts::HTTP_TOO_MANY_REQUESTS) > 0) {
            hold = true;
            const int holdSeconds = _configuration->GetTooManyRequestsHoldSeconds();
            SYNC_LOG_INFO(
                "Server returned 429 (Too Many Requests). Putting sync on hold for %1 minutes.",
                holdSeconds / 60);
        }
    }

    if (!_scheduleManager->CurrentSyncTypeIsManual()) _SleepTillScheduled(hold);
}

void SynchronizationService::_Fail(const QString& message) {
    _syncing = false;
    emit ServiceFailed(message);
    QThread::currentThread()->quit();
}

void SynchronizationService::_ScheduleNextSync() {
    if (_scheduleManager->CurrentSyncTypeIsManual()) {
        _StopSyncTimer();
    } else if (_scheduleManager->CurrentSyncTypeIsContinuous()) {
        timerEvent(nullptr);
    } else {
        _SleepTillScheduled(false);
    }
}

void SynchronizationService::_SleepTillScheduled(bool holdForTooManyRequests) {
    int seconds = _scheduleManager->CalculateSleepDuration(CurrentDateTime());
    if (holdForTooManyRequests)
        seconds = std::max(seconds, _configuration->GetTooManyRequestsHoldSeconds());
    // The timer counts int milliseconds: a daily wait (86,400,000 at most) fits, but a silly
    // configured interval would overflow. Such a wait is cut to the longest the timer holds
    // (about 24 days); the cycle at its end computes the next wait afresh. A negative wait
    // means the cycle is due now.
    const qint64 milliseconds = std::min<qint64>(std::max<qint64>(qint64(seconds) * 1000, 0),
                                                 std::numeric_limits<int>::max());
    _StartSyncTimer(static_cast<int>(milliseconds));
}

void SynchronizationService::_StartSyncTimer(int milliseconds) {
    _StopSyncTimer();
    _syncTimer.start(milliseconds, this);
    _armedIntervalMs = milliseconds;
}

void SynchronizationService::_StopSyncTimer() {
    if (_syncTimer.isActive()) _syncTimer.stop();
    _armedIntervalMs = -1;
}

void SynchronizationService::_Sleep(int milliseconds) {
    _StartSyncTimer(milliseconds);
}

bool SynchronizationService::_ShouldExitThread() {
    if (!_checkForExit->ShouldExitThread()) return false;
    QThread::currentThread()->quit();
    return true;
}

void SynchronizationService::_Wakeup() {
    timerEvent(nullptr);
}

void SynchronizationService::_ScheduleChanged() {
    // During a cycle the timer stays stopped: the cycle's end reads the schedule anyway.
    if (_syncing) return;
    QString failure;
    if (!RunCatching([this] { _ScheduleNextSync(); }, failure)) _Fail(failure);
}

}  // namespace syncService
}  // namespace sync
