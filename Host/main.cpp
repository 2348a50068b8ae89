// foldersync: keeps local folders in step with server folders.
#include <fcntl.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <unistd.h>
#include <log4cplus/config.hxx>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>
#include <atomic>
#include <cstdio>
#include <functional>

#include "ActionLogWording.h"
#include "ConsoleReporter.h"
#include "ControlChannel.h"
#include "CoreFactory.h"
#include "DatabaseActionLog.h"
#include "DatabaseLock.h"
#include "DryRunRemote.h"
#include "HostApplication.h"
#include "HostLogging.h"
#include "HostSetup.h"
#include "ProgressLine.h"
#include "Registration.h"
#include "ScheduleEntryManager.h"
#include "SyncIgnoreFilter.h"
#include "SyncLog.h"
#include "SyncMetaTypes.h"
#include "SyncScheduleManager.h"
#include "SynchronizationService.h"
#include "TreeRelease.h"

namespace {

using namespace sync::host;

// Exit statuses that scripts can test.
enum Exit { InStep = 0, Errors = 1, Usage = 2, HeldBack = 3 };

const char kUsage[] =
    "usage: foldersync [--db FILE] [-v|-vv] COMMAND [ARGS]\n"
    "\n"
    "Keeps local folders in step with server folders, both ways, without losing a file.\n"
    "A server folder is a folder on this machine (a path or a file:// URL: another disk, a\n"
    "mounted share, a USB drive) or a folder on a WebDAV server (an http(s):// URL).\n"
    "\n"
    "Commands:\n"
    "  sync LOCAL REMOTE   register the pair if it is new, sync it once and print a summary\n"
    "      --dry-run          print the plan and change nothing\n"
    "      --allow-mass-delete  carry out a plan that deletes more than half of the files\n"
    "      --wait             wait for another process that holds the database\n"
    "      --user NAME        the WebDAV user (else the one in the URL)\n"
    "      --password-file F  a file whose first line is the WebDAV password\n"
    "      --ca-file F        the certificate authority of a private https server\n"
    "  sync                sync every registered folder once\n"
    "  add LOCAL REMOTE    register a pair without syncing it\n"
    "  remove LOCAL        stop syncing a folder (its files stay on both sides)\n"
    "  list [--json]       the registered folders\n"
    "  status [--json] [PATH]  per folder its status, last sync and counts; or one entry's\n"
    "  log [-n N]          what was done, newest first\n"
    "  run                 keep every registered folder in step, following the schedule, until\n"
    "                      stopped (Ctrl-C or SIGTERM)\n"
    "  schedule continuous|periodic SECONDS|daily HH:MM|manual\n"
    "                      when run syncs; a running service picks the change up\n"
    "  now                 ask the running service for a sync now (or send it SIGUSR1)\n"
    "\n"
    "Options:\n"
    "  --db FILE   the configuration database (default: $FOLDERSYNC_DB, else\n"
    "              ~/.local/share/foldersync/sync.db)\n"
    "  -v, -vv     more detail on the terminal (INFO, DEBUG); the log file is under\n"
    "              ~/.local/state/foldersync\n"
    "\n"
    "A WebDAV password is read from $FOLDERSYNC_PASSWORD or the --password-file given when\n"
    "the server was registered (only its path is kept), never from the command line.\n"
    "A WebDAV request that moves nothing for 120 seconds is given up; $FOLDERSYNC_HTTP_TIMEOUT\n"
    "sets that limit in seconds.\n"
    "Exit status: 0 in step, 1 errors, 2 usage or configuration, 3 held back by the\n"
    "mass-deletion guard.\n";

QTextStream& Out() {
    static QTextStream out(stdout);
    return out;
}

QTextStream& Err() {
    static QTextStream err(stderr);
    return err;
}

int Fail(const QString& message, int status = Usage) {
    Err() << "foldersync: " << message << "\n";
    Err().flush();
    return status;
}

struct Arguments {
    QString command;
    QStringList positional;
    QString db;
    int verbosity = 0;
    bool dryRun = false;
    bool allowMassDelete = false;
    bool wait = false;
    bool json = false;
    Registration::Credentials credentials;
    int count = 50;
    QString error;
};

Arguments Parse(const QStringList& args) {
    Arguments a;
    for (int i = 0; i < args.size(); ++i) {
        const QString& arg = args[i];
        if (arg == QLatin1String("--user") || arg == QLatin1String("--password-file") ||
            arg == QLatin1String("--ca-file")) {
            if (i + 1 >= args.size()) {
                a.error = QStringLiteral("%1 needs a value").arg(arg);
                return a;
            }
            QString& value = arg == QLatin1String("--user")            ? a.credentials.user
                             : arg == QLatin1String("--password-file") ? a.credentials.passwordFile
                                                                       : a.credentials.caFile;
            value = args[++i];
        } else if (arg == QLatin1String("--db") || arg == QLatin1String("-n")) {
            if (i + 1 >= args.size()) {
                a.error = QStringLiteral("%1 needs a value").arg(arg);
                return a;
            }
            if (arg == QLatin1String("--db")) {
                a.db = args[++i];
            } else {
                bool ok = false;
                a.count = args[++i].toInt(&ok);
                if (!ok || a.count <= 0) a.error = QStringLiteral("-n needs a positive number");
            }
        } else if (arg.startsWith(QLatin1String("--db="))) {
            a.db = arg.mid(5);
        } else if (arg == QLatin1String("-v")) {
            a.verbosity = std::max(a.verbosity, 1);
        } else if (arg == QLatin1String("-vv")) {
            a.verbosity = 2;
        } else if (arg == QLatin1String("--dry-run")) {
            a.dryRun = true;
        } else if (arg == QLatin1String("--allow-mass-delete")) {
            a.allowMassDelete = true;
        } else if (arg == QLatin1String("--wait")) {
            a.wait = true;
        } else if (arg == QLatin1String("--json")) {
            a.json = true;
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            a.command = QStringLiteral("help");
        } else if (arg.startsWith(QLatin1Char('-')) && arg.size() > 1) {
            a.error = QStringLiteral("unknown option %1").arg(arg);
            return a;
        } else if (a.command.isEmpty()) {
            a.command = arg;
        } else {
            a.positional << arg;
        }
    }
    return a;
}

// SIGINT and SIGTERM ask the cycle to stop after the entry it is working on; they reach the
// event loop through a pipe, since a signal handler may do next to nothing.
int g_signalPipe[2] = {-1, -1};
constexpr char kStopByte = 1;
constexpr char kWakeByte = 2;

void OnStopSignal(int) {
    if (::write(g_signalPipe[1], &kStopByte, 1) < 0) {
        // Nothing a signal handler can do about it.
    }
}

void OnWakeSignal(int) {
    if (::write(g_signalPipe[1], &kWakeByte, 1) < 0) {
    }
}

// wake (when given) runs at SIGUSR1: a script's way to ask the running service for a cycle.
void InstallStopSignals(QObject* parent, std::function<void()> wake = {}) {
    if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, parent);
    QObject::connect(notifier, &QSocketNotifier::activated, parent, [wake] {
        bool stop = false, woken = false;
        char byte;
        while (::read(g_signalPipe[0], &byte, 1) > 0) {
            stop = stop || byte == kStopByte;
            woken = woken || byte == kWakeByte;
        }
        if (woken && wake && !stop) wake();
        if (!stop) return;
        Err() << "foldersync: stopping after the current file (press Ctrl-C again to "
                 "abort)\n";
        Err().flush();
        sync::factory::CoreFactory::ExitChecker()->RequestExit();
        // A second signal ends the process at once; every write is atomic, so nothing is torn.
        ::signal(SIGINT, SIG_DFL);
        ::signal(SIGTERM, SIG_DFL);
    });
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    if (wake) {
        action.sa_handler = OnWakeSignal;
        sigaction(SIGUSR1, &action, nullptr);
    }
}

// OpenSSL (the hashes, and libcurl's) and log4cplus free what they keep per thread only once
// the thread has ended, after QThread::wait() has returned; a process that exits right then
// runs their exit cleanup, or unloads them, under that release and crashes or corrupts its
// heap. A thread of ours frees both itself, before it reports itself finished, and logs
// nothing after.
void ReleaseThreadState() {
    OPENSSL_thread_stop();
    log4cplus::threadCleanup();
}

// QThread::wait() returns once run() has returned, yet the thread still runs the per-thread
// clean-ups of every library it used (C++ thread-local objects too) after that. A process that
// exits meanwhile runs the libraries' exit clean-ups, or unloads them, under those and may
// crash. A thread of ours notes its kernel id as it starts; the program waits until that
// thread is gone from the process before it goes on to end.
class ThreadEnd {
public:
    // On the thread itself.
    void Note() { _id = ::gettid(); }
    void WaitUntilGone() const {
        const pid_t id = _id;
        if (id <= 0) return;
        const QByteArray task = "/proc/self/task/" + QByteArray::number(id);
        // Gone within microseconds; the bound only keeps a surprise from hanging the program.
        for (int waited = 0; waited < 5000 && ::access(task.constData(), F_OK) == 0; ++waited)
            ::usleep(200);
    }

private:
    std::atomic<pid_t> _id{0};
};

// Only the chosen root folders take part in the cycle.
class SelectedRoots : public sync::interf::IFolderFilter {
public:
    // next, when given, is asked about the chosen roots only, right before each is synced.
    SelectedRoots(QSet<int> ids, std::shared_ptr<sync::interf::IFolderFilter> next)
        : _ids(std::move(ids)), _next(std::move(next)) {}
    bool IsRootFolderIncluded(const sync::config::FolderConfiguration& root) override {
        return _ids.contains(root.id) && (!_next || _next->IsRootFolderIncluded(root));
    }

private:
    QSet<int> _ids;
    std::shared_ptr<sync::interf::IFolderFilter> _next;
};

// Runs one cycle of the engine on its own thread, as the service would.
class CycleThread : public QThread {
public:
    CycleThread(std::shared_ptr<sync::interf::factory::ISynchronizationServiceFactory> factory,
                QWeakPointer<sync::interf::ISyncSignalsAndSlots> reporter,
                std::shared_ptr<sync::interf::ISyncConfiguration> configuration)
        : _factory(std::move(factory)),
          _reporter(std::move(reporter)),
          _configuration(std::move(configuration)) {}
    QString error;
    ThreadEnd end;

protected:
    void run() override {
        end.Note();
        try {
            auto synchronizer = _factory->CreateSynchronizer(_reporter, _configuration);
            synchronizer->Synchronize();
            sync::factory::CoreFactory::ActionLog()->Flush();
        } catch (const std::exception& e) {
            error = QString::fromUtf8(e.what());
        } catch (...) {
            error = QStringLiteral("unexpected failure");
        }
        ReleaseThreadState();
    }

private:
    std::shared_ptr<sync::interf::factory::ISynchronizationServiceFactory> _factory;
    QWeakPointer<sync::interf::ISyncSignalsAndSlots> _reporter;
    std::shared_ptr<sync::interf::ISyncConfiguration> _configuration;
};

QString AccountUrl(HostSetup& setup, int authenticationId) {
    for (const auto& account : setup.accounts->GetAccounts())
        if (account.id == authenticationId) return Registration::Shown(account.baseUrl);
    return QString();
}

QString StatusName(int status) {
    switch (status) {
        case 0:
            return QStringLiteral("in step");
        case 1:
            return QStringLiteral("syncing");
        case 2:
            return QStringLiteral("out of sync");
        default:
            return QStringLiteral("not synced yet");
    }
}

// A live line of the transfers on a terminal; plain reports only otherwise.
ProgressLine* ShowProgress(HostSetup& setup, ConsoleReporter& reporter) {
    if (!ProgressLine::OutputIsTerminal()) return nullptr;
    auto* line = new ProgressLine(Out(), QCoreApplication::instance());
    setup.remote->SetProgressListener([line](const QString& path, qint64 done, qint64 total) {
        line->Report(path, done, total);
    });
    reporter.SetBeforeOutput([line] { line->Clear(); });
    return line;
}

std::shared_ptr<HostApplication> MakeHost(const Arguments& a, HostSetup& setup) {
    HostApplication::Options options;
    options.dryRun = a.dryRun;
    options.allowMassDelete = a.allowMassDelete;
    return std::make_shared<HostApplication>(options, setup.files);
}

sync::syncService::SynchronizationServiceFactory::Companions MakeCompanions(
    HostSetup& setup, std::shared_ptr<HostApplication> host) {
    auto companions = setup.Companions();
    auto filter = std::make_shared<SyncIgnoreFilter>();
    companions.fileFilter = filter;
    companions.folderFilter = filter;
    // Asked about each root right before it is synced: that is how the filter learns whose
    // .syncignore applies.
    companions.rootFolderFilter = filter;
    companions.hostApplication = std::move(host);
    return companions;
}

QHash<long, QString> RootPaths(HostSetup& setup) {
    QHash<long, QString> rootPaths;
    for (const auto& root : setup.folders->GetRootFolders())
        rootPaths.insert(root.id, root.localPath);
    return rootPaths;
}

int RunSync(const Arguments& a, HostSetup& setup) {
    QSet<int> ids;
    if (a.positional.size() == 2) {
        Registration registration(setup, a.dryRun);
        const int id = registration.Register(a.positional[0], a.positional[1], a.credentials);
        if (id < 0) return Fail(registration.Error());
        if (registration.Added() && !a.dryRun)
            Out() << "registered " << QDir::cleanPath(QFileInfo(a.positional[0]).absoluteFilePath())
                  << "\n";
        ids.insert(id);
    } else if (a.positional.isEmpty()) {
        for (const auto& root : setup.folders->GetRootFolders()) ids.insert(root.id);
        if (ids.isEmpty())
            return Fail(
                QStringLiteral("no folder is registered; use: foldersync sync LOCAL REMOTE"));
    } else {
        return Fail(QStringLiteral("sync takes LOCAL and REMOTE, or nothing"));
    }

    const QHash<long, QString> rootPaths = RootPaths(setup);
    auto host = MakeHost(a, setup);
    auto companions = MakeCompanions(setup, host);
    companions.rootFolderFilter = std::make_shared<SelectedRoots>(ids, companions.rootFolderFilter);
    if (a.dryRun) {
        // Reads the real server, writes nothing to it.
        auto remote = std::make_shared<DryRunRemote>(setup.remote);
        companions.remoteFolderManagerFactory = remote;
        companions.remoteFileManagerFactory = remote;
        companions.uploadClient = remote;
        companions.downloadClient = remote;
        companions.deleteClient = remote;
        companions.urlBuilder = remote;
    }
    auto factory = std::make_shared<sync::syncService::SynchronizationServiceFactory>(companions);
    // The process ends with the cycle: freeing the last root's trees would only delay that.
    sync::syncService::TreeRelease::SetLastTrees(
        sync::syncService::TreeRelease::LastTrees::LeftToProcessExit);

    QSharedPointer<ConsoleReporter> reporter(new ConsoleReporter(rootPaths, Out(), Err()));
    reporter->SetPlanOnly(a.dryRun);
    ProgressLine* progress = ShowProgress(setup, *reporter);
    CycleThread thread(factory, reporter, setup.engineConfiguration);
    // The host application answers the engine on the cycle's thread.
    host->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    InstallStopSignals(QCoreApplication::instance());
    thread.start();
    QCoreApplication::exec();
    thread.wait();
    thread.end.WaitUntilGone();
    QCoreApplication::sendPostedEvents();
    if (progress) progress->Clear();

    if (!thread.error.isEmpty()) return Fail(thread.error, Errors);
    if (a.dryRun) {
        const QStringList plan = host->PlanLines();
        if (plan.isEmpty()) Out() << "nothing to do\n";
        for (const QString& line : plan) Out() << line << "\n";
        Out() << "(dry run: nothing was changed)\n";
        Out().flush();
        return reporter->AnyError() ? Errors : InStep;
    }
    const QStringList heldBack = host->HeldBack();
    for (const QString& message : heldBack) Err() << "foldersync: held back: " << message << "\n";
    Err().flush();
    if (sync::factory::CoreFactory::ExitChecker()->ShouldExit()) {
        Err() << "foldersync: stopped; run again to finish\n";
        Err().flush();
        return Errors;
    }
    if (reporter->AnyError()) return Errors;
    if (!heldBack.isEmpty()) return HeldBack;
    if (!reporter->Total().anyWorkDone()) Out() << "in step, nothing to do\n";
    Out().flush();
    return InStep;
}

int RunService(const Arguments& a, HostSetup& setup, const QString& dbPath) {
    if (!a.positional.isEmpty() || a.dryRun) return Fail(QStringLiteral("run takes no arguments"));
    if (setup.folders->GetRootFolders().isEmpty())
        return Fail(QStringLiteral("no folder is registered; use: foldersync add LOCAL REMOTE"));
    auto host = MakeHost(a, setup);
    auto factory = std::make_shared<sync::syncService::SynchronizationServiceFactory>(
        MakeCompanions(setup, host));
    QSharedPointer<ConsoleReporter> reporter(new ConsoleReporter(RootPaths(setup), Out(), Err()));
    ProgressLine* progress = ShowProgress(setup, *reporter);
    auto scheduleManager = std::make_shared<sync::syncService::SyncScheduleManager>(
        setup.engineConfiguration,
        std::make_shared<sync::database::ScheduleEntryManager>(setup.database));

    ControlChannel control(dbPath);
    if (!control.Listen()) return Fail(control.Error());
    QObject::connect(&control, &ControlChannel::SyncNowRequested, reporter.data(),
                     [&reporter] { emit reporter->SyncNow(); });
    QObject::connect(&control, &ControlChannel::ScheduleChangeRequested, reporter.data(),
                     [&reporter] { emit reporter->ScheduleChanged(); });

    QThread thread;
    ThreadEnd threadEnd;
    QObject::connect(
        &thread, &QThread::started, &thread, [&threadEnd] { threadEnd.Note(); },
        Qt::DirectConnection);
    auto* service = new sync::syncService::SynchronizationService(
        setup.engineConfiguration, host, sync::factory::CoreFactory::ExitChecker(), factory,
        reporter, scheduleManager);
    host->moveToThread(&thread);
    service->moveToThread(&thread);
    QString failure;
    QObject::connect(service, &sync::syncService::SynchronizationService::ServiceFailed,
                     QCoreApplication::instance(), [&failure](const QString& m) { failure = m; });
    QObject::connect(&thread, &QThread::started, service,
                     &sync::syncService::SynchronizationService::StartSyncService);
    // Its timer belongs to the service thread: it is deleted there, as the thread ends.
    QObject::connect(&thread, &QThread::finished, service, &QObject::deleteLater);
    // The service goes last of what runs on its thread, and it goes there.
    QObject::connect(service, &QObject::destroyed, &ReleaseThreadState);
    QObject::connect(&thread, &QThread::finished, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    // The host application is the one that says "the user asked for a cycle now".
    InstallStopSignals(QCoreApplication::instance(), [host] { emit host->SyncNowInvoked(); });
    Out() << "foldersync: keeping " << RootPaths(setup).size()
          << " folder(s) in step; Ctrl-C stops\n";
    Out().flush();
    thread.start();
    QCoreApplication::exec();
    thread.wait();
    threadEnd.WaitUntilGone();
    QCoreApplication::sendPostedEvents();
    if (progress) progress->Clear();
    if (!failure.isEmpty())
        return Fail(QStringLiteral("the service stopped: %1").arg(failure), Errors);
    Out() << "foldersync: stopped\n";
    return InStep;
}

int RunSchedule(const Arguments& a, HostSetup& setup, const QString& dbPath) {
    const QString kind = a.positional.value(0);
    sync::database::ScheduleEntryManager schedules(setup.database);
    sync::config::ScheduleEntry entry = schedules.GetScheduleEntry();
    int seconds = -1;
    if (kind == QLatin1String("manual") && a.positional.size() == 1) {
        entry.syncType = sync::config::Manual;
    } else if ((kind == QLatin1String("continuous") || kind == QLatin1String("periodic")) &&
               a.positional.size() <= 2) {
        entry.syncType =
            kind == QLatin1String("continuous") ? sync::config::Continuous : sync::config::Periodic;
        if (a.positional.size() == 2) {
            bool ok = false;
            seconds = a.positional[1].toInt(&ok);
            if (!ok || seconds < 1)
                return Fail(QStringLiteral("SECONDS must be a positive number"));
        } else if (kind == QLatin1String("periodic")) {
            return Fail(QStringLiteral("periodic takes SECONDS"));
        }
    } else if (kind == QLatin1String("daily") && a.positional.size() == 2) {
        const QTime time = QTime::fromString(a.positional[1], QStringLiteral("H:mm"));
        if (!time.isValid()) return Fail(QStringLiteral("daily takes a time of day as HH:MM"));
        entry.syncType = sync::config::Daily;
        entry.syncTime = QDateTime(QDate::currentDate(), time);
    } else {
        return Fail(QStringLiteral(
            "schedule takes continuous [SECONDS], periodic SECONDS, daily HH:MM or manual"));
    }
    if (seconds > 0) {
        setup.configuration->SetSyncInterval(seconds);
        entry.syncInterval = seconds;
    }
    entry.lastChanged = QDateTime::currentDateTimeUtc();
    schedules.UpdateScheduleEntry(entry);
    const bool told = ControlChannel::Send(dbPath, ControlChannel::Request::ScheduleChanged);
    Out() << "schedule: " << a.positional.join(QLatin1Char(' '))
          << (told ? " (the running service follows it now)\n"
                   : " (from the next start of foldersync run)\n");
    return InStep;
}

int RunNow(const Arguments& a, const QString& dbPath) {
    if (!a.positional.isEmpty()) return Fail(QStringLiteral("now takes no arguments"));
    if (!ControlChannel::Send(dbPath, ControlChannel::Request::SyncNow))
        return Fail(QStringLiteral("no service is running on %1 (start one with foldersync run)")
                        .arg(dbPath));
    Out() << "asked the running service to sync now\n";
    return InStep;
}

int RunAdd(const Arguments& a, HostSetup& setup) {
    if (a.positional.size() != 2) return Fail(QStringLiteral("add takes LOCAL and REMOTE"));
    Registration registration(setup);
    const int id = registration.Register(a.positional[0], a.positional[1], a.credentials);
    if (id < 0) return Fail(registration.Error());
    Out() << (registration.Added() ? "registered " : "already registered: ")
          << QDir::cleanPath(QFileInfo(a.positional[0]).absoluteFilePath()) << "\n";
    return InStep;
}

int RunRemove(const Arguments& a, HostSetup& setup) {
    if (a.positional.size() != 1) return Fail(QStringLiteral("remove takes LOCAL"));
    const QString local = QDir::cleanPath(QFileInfo(a.positional[0]).absoluteFilePath());
    for (const auto& root : setup.folders->GetRootFolders()) {
        if (root.localPath != local) continue;
        // Only the records go: the files stay where they are on both sides.
        if (!setup.folders->RemoveRootFolder(root.id))
            return Fail(QStringLiteral("cannot remove %1 from the database").arg(local), Errors);
        if (!setup.folders->IsAuthenticationInUse(root.authenticationId))
            setup.accounts->RemoveAuthentication(root.authenticationId);
        Out() << "no longer syncing " << local << " (its files stay on both sides)\n";
        return InStep;
    }
    return Fail(QStringLiteral("%1 is not registered").arg(local));
}

int RunList(const Arguments& a, HostSetup& setup) {
    QJsonArray array;
    const auto roots = setup.folders->GetRootFolders();
    if (roots.isEmpty() && !a.json) Out() << "no folder is registered\n";
    for (const auto& root : roots) {
        const QString server = AccountUrl(setup, root.authenticationId) + root.serverPath;
        if (a.json) {
            QJsonObject o;
            o.insert(QStringLiteral("id"), root.id);
            o.insert(QStringLiteral("local"), root.localPath);
            o.insert(QStringLiteral("server"), server);
            array.append(o);
        } else {
            Out() << root.localPath << "  <->  " << server << "\n";
        }
    }
    if (a.json) Out() << QJsonDocument(array).toJson(QJsonDocument::Indented);
    return InStep;
}

int RunStatus(const Arguments& a, HostSetup& setup) {
    if (a.positional.size() > 1) return Fail(QStringLiteral("status takes at most one PATH"));
    QJsonArray array;
    if (a.positional.size() == 1) {
        const QString path = QDir::cleanPath(QFileInfo(a.positional[0]).absoluteFilePath());
        for (const auto& root : setup.folders->GetRootFolders()) {
            if (path != root.localPath && !path.startsWith(root.localPath + QLatin1Char('/')))
                continue;
            const auto folder = setup.folders->GetFolderByPath(path, root.authenticationId);
            int status = -1;
            if (folder.id >= 0) {
                status = static_cast<int>(folder.getSyncStatus());
            } else {
                const auto file = setup.files->GetFileByPath(path, root.authenticationId);
                if (file.id >= 0) status = static_cast<int>(file.syncStatus);
            }
            if (status < 0) return Fail(QStringLiteral("%1 is not known yet").arg(path), Errors);
            if (a.json)
                Out() << QJsonDocument(QJsonObject{{QStringLiteral("path"), path},
                                                   {QStringLiteral("status"), StatusName(status)}})
                             .toJson(QJsonDocument::Indented);
            else
                Out() << path << ": " << StatusName(status) << "\n";
            return InStep;
        }
        return Fail(QStringLiteral("%1 is not in a synced folder").arg(path), Errors);
    }
    for (const auto& root : setup.folders->GetRootFolders()) {
        QMap<int, int> counts, folderCounts;
        for (const auto& file : setup.files->GetFilesByRootId(root.id))
            ++counts[static_cast<int>(file.syncStatus)];
        for (const auto& folder : setup.folders->GetFoldersByRootId(root.id))
            if (folder.id != root.id) ++folderCounts[static_cast<int>(folder.getSyncStatus())];
        const auto countsText = [](const QMap<int, int>& byStatus) {
            QStringList parts;
            for (auto it = byStatus.cbegin(); it != byStatus.cend(); ++it)
                parts << QStringLiteral("%1 %2").arg(it.value()).arg(StatusName(it.key()));
            return parts.isEmpty() ? QStringLiteral("none") : parts.join(QStringLiteral(", "));
        };
        const auto countsJson = [](const QMap<int, int>& byStatus) {
            QJsonObject object;
            for (auto it = byStatus.cbegin(); it != byStatus.cend(); ++it)
                object.insert(StatusName(it.key()), it.value());
            return object;
        };
        const QDateTime last = root.lastSyncTime;
        const QString lastText =
            last.isValid() ? last.toLocalTime().toString(Qt::ISODate) : QStringLiteral("never");
        const int status = static_cast<int>(root.getSyncStatus());
        if (a.json) {
            QJsonObject o;
            o.insert(QStringLiteral("local"), root.localPath);
            o.insert(QStringLiteral("status"), StatusName(status));
            o.insert(QStringLiteral("lastSync"),
                     last.isValid() ? last.toUTC().toString(Qt::ISODate) : QString());
            o.insert(QStringLiteral("files"), countsJson(counts));
            o.insert(QStringLiteral("folders"), countsJson(folderCounts));
            array.append(o);
        } else {
            Out() << root.localPath << ": " << StatusName(status) << ", last sync " << lastText
                  << ", files: " << countsText(counts) << "; folders: " << countsText(folderCounts)
                  << "\n";
        }
    }
    if (a.json) Out() << QJsonDocument(array).toJson(QJsonDocument::Indented);
    return InStep;
}

int RunLog(const Arguments& a, HostSetup& setup) {
    sync::database::DatabaseActionLog log(setup.database);
    QVector<sync::database::ActionLogEntry> entries = log.Entries();
    for (int i = entries.size() - 1, shown = 0; i >= 0 && shown < a.count; --i, ++shown)
        Out() << entries[i].time.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"))
              << "  " << sync::database::ActionLogWording::Describe(entries[i]) << "\n";
    return InStep;
}

}  // namespace

int main(int argc, char* argv[]) {
    HostSetup::TuneAllocator();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("foldersync"));
    sync::core::RegisterSyncMetaTypes();
    const Arguments a = Parse(QCoreApplication::arguments().mid(1));
    if (!a.error.isEmpty()) return Fail(a.error + QStringLiteral(" (see foldersync --help)"));
    if (a.command.isEmpty() || a.command == QLatin1String("help")) {
        (a.command.isEmpty() ? Err() : Out()) << kUsage;
        return a.command.isEmpty() ? Usage : InStep;
    }
    static const QStringList known = {"sync", "add", "remove",   "list", "status",
                                      "log",  "run", "schedule", "now"};
    if (!known.contains(a.command))
        return Fail(QStringLiteral("unknown command %1 (see foldersync --help)").arg(a.command));

    // A dry run cancels every root folder on purpose; the engine's warnings about roots left
    // unsynchronised would only alarm.
    ConfigureHostLogging(a.verbosity, a.dryRun && a.command == QLatin1String("sync"));
    QString dbPath = HostSetup::DatabasePath(a.db);
    const bool dryRun = a.command == QLatin1String("sync") && a.dryRun;
    if (a.command == QLatin1String("now")) return RunNow(a, dbPath);
    // Readers, and the schedule (one small record), go alongside a running service.
    const bool reads = a.command == QLatin1String("list") || a.command == QLatin1String("status") ||
                       a.command == QLatin1String("log") || dryRun;
    const bool locks = !reads && a.command != QLatin1String("schedule");
    // A dry run works on a copy of the database: the engine's bookkeeping of the trial (root
    // folder records, statuses) must not reach the real one.
    QTemporaryDir trialDirectory;
    if (dryRun) {
        if (!trialDirectory.isValid())
            return Fail(QStringLiteral("no temporary folder for the dry run"));
        const QString copy = trialDirectory.filePath(QStringLiteral("trial.db"));
        try {
            if (QFileInfo::exists(dbPath))
                sync::database::ConfigDatabase::Open(dbPath,
                                                     sync::database::ConfigDatabase::Mode::ReadOnly)
                    ->CopyTo(copy);
        } catch (const std::exception& e) {
            return Fail(QString::fromUtf8(e.what()));
        }
        dbPath = copy;
    }
    if (reads && !dryRun && !QFileInfo::exists(dbPath)) {
        if (a.command == QLatin1String("list") || a.command == QLatin1String("status"))
            Out() << (a.json ? "[]\n" : "no folder is registered\n");
        return InStep;
    }
    if (!reads && !QDir().mkpath(QFileInfo(dbPath).absolutePath()))
        return Fail(QStringLiteral("cannot create the folder of %1").arg(dbPath));

    // Readers go alongside a running sync; writers take turns.
    DatabaseLock lock(dbPath);
    if (locks && !lock.Acquire(false)) {
        if (!lock.Error().isEmpty()) return Fail(lock.Error());
        const qint64 holder = lock.HolderPid();
        if (!a.wait)
            return Fail(QStringLiteral("%1 is in use by process %2 (use --wait to wait for it)")
                            .arg(dbPath)
                            .arg(holder));
        Err() << "foldersync: waiting for process " << holder << " to finish with " << dbPath
              << "\n";
        Err().flush();
        if (!lock.Acquire(true)) return Fail(lock.Error());
    }

    try {
        HostSetup setup(dbPath, reads && !dryRun);
        if (a.command == QLatin1String("sync")) return RunSync(a, setup);
        if (a.command == QLatin1String("add")) return RunAdd(a, setup);
        if (a.command == QLatin1String("remove")) return RunRemove(a, setup);
        if (a.command == QLatin1String("run")) return RunService(a, setup, dbPath);
        if (a.command == QLatin1String("schedule")) return RunSchedule(a, setup, dbPath);
        if (a.command == QLatin1String("list")) return RunList(a, setup);
        if (a.command == QLatin1String("status")) return RunStatus(a, setup);
        return RunLog(a, setup);
    } catch (const std::exception& e) {
        return Fail(QString::fromUtf8(e.what()));
    }
}
