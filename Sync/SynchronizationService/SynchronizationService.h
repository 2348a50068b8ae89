#pragma once

#include <QBasicTimer>
#include <QDateTime>
#include <QString>
#include <QWeakPointer>
#include <memory>

#include "ICheckForExit.h"
#include "ISyncConfiguration.h"
#include "ISyncHostApplication.h"
#include "ISyncScheduleManager.h"
#include "ISyncSignalsAndSlots.h"
#include "ISynchronizationService.h"
#include "ISynchronizationServiceFactory.h"

class QTimerEvent;

namespace sync {
namespace syncService {

// Runs synchronisation cycles on the thread it lives in: one timer armed from the schedule,
// immediate cycles on request, a hold after the server answered 429. Every request reaches it
// by a queued connection, so all of its code runs on its own thread and needs no locks.
//
// The host moves it into a thread with an event loop, calls StartSyncService() there, and
// deletes it on that thread too (QThread::finished connected to deleteLater), since its timer
// belongs to that thread. The service ends by quitting the thread's event loop: when the exit
// checker says the thread should exit, or after an exception escaped a cycle, in which case
// ServiceFailed is emitted first.
class SynchronizationService : public sync::interf::ISynchronizationService {
    Q_OBJECT
public:
    SynchronizationService(
        std::shared_ptr<sync::interf::ISyncConfiguration> configuration,
        std::shared_ptr<sync::interf::ISyncHostApplication> hostApplication,
        std::shared_ptr<sync::interf::ICheckForExit> checkForExit,
        std::shared_ptr<sync::interf::factory::ISynchronizationServiceFactory> serviceFactory,
        QWeakPointer<sync::interf::ISyncSignalsAndSlots> signalsAndSlots,
        std::shared_ptr<sync::interf::ISyncScheduleManager> scheduleManager);
    ~SynchronizationService() override;

    void StartSyncService() override;

    // The interval the sync timer runs with, in milliseconds, or -1 while it is stopped (during
    // a cycle, under manual synchronisation). For status displays; call it on the service's
    // thread.
    int ArmedIntervalMs() const;

Q_SIGNALS:
    void FinishedSyncingFolders(bool wasError);
    // The service stopped because an exception escaped; message is the exception's text. Emitted
    // on the service's thread just before its event loop is quit.
    void ServiceFailed(QString message);

protected:
    void timerEvent(QTimerEvent* event) override;
    // The clock the schedule is measured against.
    virtual QDateTime CurrentDateTime() const;

private Q_SLOTS:
    void _Wakeup();
    void _ScheduleChanged();

private:
    void _ConnectSignals();
    void _Synchronize();
    void _RunCycle();
    void _ScheduleNextSync();
    void _SleepTillScheduled(bool holdForTooManyRequests);
    void _StartSyncTimer(int milliseconds);
    void _StopSyncTimer();
    void _Sleep(int milliseconds);
    bool _ShouldExitThread();
    void _Fail(const QString& message);

    std::shared_ptr<sync::interf::ISyncConfiguration> _configuration;
    std::shared_ptr<sync::interf::ISyncHostApplication> _hostApplication;
    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
    std::shared_ptr<sync::interf::factory::ISynchronizationServiceFactory> _serviceFactory;
    QWeakPointer<sync::interf::ISyncSignalsAndSlots> _signalsAndSlots;
    std::shared_ptr<sync::interf::ISyncScheduleManager> _scheduleManager;
    QBasicTimer _syncTimer;
    bool _syncing = false;
    int _armedIntervalMs = -1;
};

}  // namespace syncService
}  // namespace sync
