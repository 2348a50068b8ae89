#pragma once

// One user's machine driving the real foldersync program: a home with its own data, state and
// trash folders, a database, a local folder and a server folder (a folder on this machine or a
// private Apache with WebDAV), and runs of "foldersync sync" that can be killed at any moment
// while the program's own log tells how far the run had come.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <functional>
#include <memory>

#include "ApacheServer.h"
#include "ProgramStatus.h"

namespace sync {
namespace test {

enum class ServerKind { LocalFolder, WebDav };

// The stages of a run in the order the program goes through them, told by its log lines.
enum class RunPhase {
    StartUp,  // database, lock, registration: no cycle yet
    Planning,
    LocalFolderCreation,
    ServerFolderCreation,
    Upload,
    Download,
    ServerFileDeletion,
    LocalFileDeletion,
    ServerFolderDeletion,
    LocalFolderDeletion,
    WrapUp,
};

inline const char* PhaseName(RunPhase phase) {
    static const char* const names[] = {
        "start-up",
        "planning",
        "local folder creation",
        "server folder creation",
        "upload",
        "download",
        "server file deletion",
        "local file deletion",
        "server folder deletion",
        "local folder deletion",
        "wrap-up",
    };
    return names[int(phase)];
}

// The log line that shows a run has reached a phase (the workers log nothing for an empty
// list, so a run may skip phases).
inline bool PhaseOfLogLine(const QString& line, RunPhase& phase) {
    static const struct {
        const char* fragment;
        RunPhase phase;
    } table[] = {
        {"Sync beginning", RunPhase::Planning},
        {"LocalFolderCreationWorker: performing", RunPhase::LocalFolderCreation},
        {"ServerFolderCreationWorker: performing", RunPhase::ServerFolderCreation},
        {"ServerFileCreationWorker: performing", RunPhase::Upload},
        {"LocalFileCreationWorker: performing", RunPhase::Download},
        {"ServerFileDeletionWorker: performing", RunPhase::ServerFileDeletion},
        {"LocalFileDeletionWorker: performing", RunPhase::LocalFileDeletion},
        {"ServerFolderDeletionWorker: performing", RunPhase::ServerFolderDeletion},
        {"LocalFolderDeletionWorker: performing", RunPhase::LocalFolderDeletion},
        {"Sync finished", RunPhase::WrapUp},
        {"Sync canceled", RunPhase::WrapUp},
    };
    for (const auto& row : table)
        if (line.contains(QLatin1String(row.fragment))) {
            phase = row.phase;
            return true;
        }
    return false;
}

// Counts what lands in and leaves folder trees while a run works, through inotify: a file or
// folder renamed in or out (an upload or download put in place, a file moved to the trash), a
// folder made, an entry deleted. Temporary files coming and going are not counted. It tells a
// run's progress whatever the machine's load, so that a kill can land after the n-th change.
class ChangeCounter {
public:
    explicit ChangeCounter(const QStringList& tops)
        : _fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        for (const QString& top : tops) _WatchTree(top);
    }
    ~ChangeCounter() {
        if (_fd >= 0) ::close(_fd);
    }
    ChangeCounter(const ChangeCounter&) = delete;
    ChangeCounter& operator=(const ChangeCounter&) = delete;

    // Whether this machine lets a process watch folders (a container may not).
    static bool Available() {
        const int fd = ::inotify_init1(IN_CLOEXEC);
        if (fd < 0) return false;
        ::close(fd);
        return true;
    }

    // The changes seen so far.
    int Poll() {
        alignas(struct inotify_event) char buffer[64 * 1024];
        for (;;) {
            const ssize_t n = _fd < 0 ? -1 : ::read(_fd, buffer, sizeof buffer);
            if (n <= 0) return _changes;
            for (ssize_t at = 0; at < n;) {
                const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + at);
                at += ssize_t(sizeof(struct inotify_event) + event->len);
                const QString name = event->len ? QString::fromUtf8(event->name) : QString();
                if (name.isEmpty() || _Temporary(name)) continue;
                const bool folder = event->mask & IN_ISDIR;
                if (event->mask & (IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) ||
                    (folder && (event->mask & IN_CREATE)))
                    ++_changes;
                if (folder && (event->mask & (IN_CREATE | IN_MOVED_TO)))
                    _WatchTree(_watched.value(event->wd) + QLatin1Char('/') + name);
            }
        }
    }

private:
    static bool _Temporary(const QString& name) {
        return name.startsWith(QLatin1String(".{")) ||
               name.contains(QLatin1String(".{SyncUpload}")) ||
               name.startsWith(QLatin1String(".davfs.tmp"));
    }
    void _WatchTree(const QString& top) {
        if (_fd < 0 || !QFileInfo(top).isDir()) return;
        _Watch(top);
        QDirIterator it(top, QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString folder = it.next();
            if (!folder.contains(QLatin1String("/.{"))) _Watch(folder);
        }
    }
    void _Watch(const QString& folder) {
        const int wd =
            ::inotify_add_watch(_fd, QFile::encodeName(folder).constData(),
                                IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ONLYDIR);
        if (wd >= 0) _watched.insert(wd, folder);
    }

    int _fd;
    int _changes = 0;
    QHash<int, QString> _watched;
};

struct ProgramOutcome {
    int status = -1;  // exit status; -1 when it did not end normally
    QString out;
    QString err;
};

// What became of one run that was to be killed.
struct KilledRun {
    bool killed = false;  // false: it ended on its own first (outcome tells how)
    ProgramOutcome outcome;
    RunPhase phase = RunPhase::StartUp;
    QString lastLogLine;
    qint64 elapsedMs = 0;
    int changes = 0;  // on the disk, as ChangeCounter counts them
    bool sawMarker = false;
};

class KillableSyncMachine {
public:
    // Trees live on a memory file system where there is one: a kill is no power cut, and a
    // disk's flushes would make every run ten times as long.
    static QString WorkFolder() {
        const QString shm = QStringLiteral("/dev/shm");
        return QFileInfo(shm).isDir() && QFileInfo(shm).isWritable() ? shm : QDir::tempPath();
    }

    explicit KillableSyncMachine(ServerKind kind)
        : _kind(kind), _dir(WorkFolder() + QStringLiteral("/crash-XXXXXX")) {
        QDir().mkpath(Local());
        if (kind == ServerKind::LocalFolder) {
            _serverTop = _dir.filePath(QStringLiteral("server"));
            _remoteTop = _serverTop;
        } else {
            const QString own = QFileInfo(_dir.path()).fileName();
            _serverTop = Apache().DocumentRoot() + QLatin1Char('/') + own;
            _remoteTop = Apache().Url() + QLatin1Char('/') + own;
        }
        QDir().mkpath(_serverTop);
        if (kind == ServerKind::WebDav) Apache().HandOver(_serverTop);
    }
    ~KillableSyncMachine() {
        if (_kind == ServerKind::WebDav) QDir(_serverTop).removeRecursively();
    }
    KillableSyncMachine(const KillableSyncMachine&) = delete;
    KillableSyncMachine& operator=(const KillableSyncMachine&) = delete;

    // Empty when this machine can have a WebDAV server; else why not.
    static QString WebDavUnavailable() { return ApacheServer::Unavailable(); }

    bool Valid() const { return _dir.isValid(); }
    // Leaves the machine's folders on the disk for a look after a failure; their path.
    QString KeepForInspection() {
        _dir.setAutoRemove(false);
        // Apache's folder goes with the program: a copy of the server folder stays instead.
        if (_kind == ServerKind::WebDav)
            QProcess::execute(QStringLiteral("cp"),
                              {QStringLiteral("-a"), _serverTop, _dir.filePath("server")});
        return _dir.path();
    }
    ServerKind Kind() const { return _kind; }
    QString Local(const QString& below = QString()) const {
        return _dir.filePath(QStringLiteral("local/Docs")) + Below(below);
    }
    QString Server(const QString& below = QString()) const {
        return _serverTop + QStringLiteral("/Docs") + Below(below);
    }
    QString Remote() const { return _remoteTop + QStringLiteral("/Docs"); }
    QString Database() const { return _dir.filePath(QStringLiteral("sync.db")); }
    QString Trash() const { return _dir.filePath(QStringLiteral("data/Trash/files")); }
    QString LogFile() const {
        return _dir.filePath(QStringLiteral("state/foldersync/foldersync.log"));
    }

    // --- The user's changes ---------------------------------------------------------------

    static bool Write(const QString& path, const QByteArray& content) {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
               file.write(content) == content.size();
    }
    bool WriteServer(const QString& below, const QByteArray& content) {
        if (_kind == ServerKind::LocalFolder) return Write(Server(below), content);
        // As another client's upload would have landed a moment ago.
        return Apache().Put(Server(below), content);
    }
    bool MakeServerFolder(const QString& below) {
        const bool made = QDir().mkpath(Server(below));
        if (_kind == ServerKind::WebDav) Apache().HandOver(Server(below));
        return made;
    }
    // A file or a whole folder.
    static bool Remove(const QString& path) {
        return QFileInfo(path).isDir() ? QDir(path).removeRecursively() : QFile::remove(path);
    }
    bool RenameServer(const QString& from, const QString& to) {
        QDir().mkpath(QFileInfo(Server(to)).absolutePath());
        const bool renamed = QDir().rename(Server(from), Server(to));
        if (_kind == ServerKind::WebDav) Apache().HandOver(Server(to));
        return renamed;
    }
    static bool Rename(const QString& from, const QString& to) {
        QDir().mkpath(QFileInfo(to).absolutePath());
        return QDir().rename(from, to);
    }

    // --- Runs -----------------------------------------------------------------------------

    QProcess* Start(const QStringList& args) const {
        auto* process = new QProcess();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), _dir.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), _dir.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_STATE_HOME"), _dir.filePath(QStringLiteral("state")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), _dir.filePath(QStringLiteral("config")));
        env.remove(QStringLiteral("FOLDERSYNC_DB"));
        process->setProcessEnvironment(env);
        QStringList options{QStringLiteral("--db"), Database()};
        // The plan of every run in the log, for a look after a failure.
        if (qEnvironmentVariableIsSet("SYNC_RELIABILITY_VERBOSE")) options << QStringLiteral("-vv");
        process->start(QStringLiteral(FOLDERSYNC_PROGRAM), options + args);
        process->waitForStarted();
        return process;
    }
    static ProgramOutcome Finish(QProcess* process) {
        ProgramOutcome run;
        process->waitForFinished(300000);
        run.out = QString::fromUtf8(process->readAllStandardOutput());
        run.err = QString::fromUtf8(process->readAllStandardError());
        run.status = sync::test::ProgramStatus(*process, run.err);
        delete process;
        // A memory error is a failure wherever it shows, also in a run that was killed later.
        for (const char* report : {"ERROR: AddressSanitizer", "runtime error: ", "malloc(): ",
                                   "free(): ", "malloc_consolidate(): ", "double free"})
            if (run.err.contains(QLatin1String(report)))
                ADD_FAILURE() << "the program reported a memory error:\n" << run.err.toStdString();
        return run;
    }
    QStringList SyncArguments(const QStringList& extra = QStringList()) const {
        return QStringList{QStringLiteral("sync"), Local(), Remote()} + extra;
    }
    ProgramOutcome Sync(const QStringList& extra = QStringList()) const {
        return Finish(Start(SyncArguments(extra)));
    }

    // Runs a sync and kills it with SIGKILL as soon as killNow says so. killNow is asked every
    // couple of milliseconds with the run so far: the phase the log shows, the time since the
    // start, the changes made on either side (ChangeCounter) and whether a log line held
    // marker.
    KilledRun SyncAndKill(const std::function<bool(const KilledRun&)>& killNow,
                          const QString& marker = QString()) const {
        // This run's lines: those after what the log holds now.
        qint64 offset = QFileInfo(LogFile()).size();
        // The server folder itself may be one of the changes.
        ChangeCounter changes({Local(), QFileInfo(Server()).absolutePath()});
        KilledRun run;
        QElapsedTimer clock;
        clock.start();
        QProcess* process = Start(SyncArguments());
        QByteArray partial;
        const auto readLog = [&] {
            QFile log(LogFile());
            if (!log.open(QIODevice::ReadOnly)) return;
            if (log.size() < offset) offset = 0;  // rolled over
            if (log.size() == offset) return;
            log.seek(offset);
            const QByteArray more = log.readAll();
            offset += more.size();
            partial += more;
            int newline;
            while ((newline = partial.indexOf('\n')) >= 0) {
                const QString line = QString::fromUtf8(partial.left(newline));
                partial.remove(0, newline + 1);
                RunPhase phase;
                if (PhaseOfLogLine(line, phase) && phase > run.phase) run.phase = phase;
                if (!marker.isEmpty() && line.contains(marker)) run.sawMarker = true;
                const int bracket = line.indexOf(QLatin1String("] "));
                run.lastLogLine = bracket >= 0 ? line.mid(bracket + 2) : line;
            }
        };
        for (;;) {
            readLog();
            if (process->state() == QProcess::NotRunning || process->waitForFinished(2)) break;
            run.changes = changes.Poll();
            run.elapsedMs = clock.elapsed();
            if (killNow(run)) {
                ::kill(pid_t(process->processId()), SIGKILL);
                run.killed = true;
                break;
            }
        }
        run.elapsedMs = clock.elapsed();
        run.outcome = Finish(process);
        readLog();
        run.changes = changes.Poll();
        if (run.killed) {
            // For whoever reads the log after a failure.
            QFile log(LogFile());
            if (log.open(QIODevice::Append)) log.write("---- killed here by the test ----\n");
        }
        return run;
    }

    // "ok" when the database opens and SQLite finds it sound; else what is wrong. Read-only,
    // so that the check does not replay a journal the program should replay itself.
    QString DatabaseVerdict() const {
        if (!QFileInfo::exists(Database())) return QStringLiteral("ok");
        sqlite3* db = nullptr;
        const QByteArray path = QFile::encodeName(Database());
        QString verdict;
        if (sqlite3_open_v2(path.constData(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            verdict = QStringLiteral("does not open: %1")
                          .arg(QString::fromUtf8(db ? sqlite3_errmsg(db) : "no memory"));
        } else {
            sqlite3_busy_timeout(db, 5000);
            sqlite3_stmt* statement = nullptr;
            if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &statement, nullptr) !=
                SQLITE_OK) {
                verdict = QStringLiteral("cannot be checked: %1")
                              .arg(QString::fromUtf8(sqlite3_errmsg(db)));
            } else {
                QStringList lines;
                int rc;
                while ((rc = sqlite3_step(statement)) == SQLITE_ROW)
                    lines << QString::fromUtf8(
                        reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
                if (rc != SQLITE_DONE)
                    lines << QStringLiteral("check broke off: %1")
                                 .arg(QString::fromUtf8(sqlite3_errmsg(db)));
                verdict = lines.join(QLatin1String("; "));
            }
            sqlite3_finalize(statement);
        }
        sqlite3_close(db);
        return verdict;
    }

private:
    static QString Below(const QString& below) {
        return below.isEmpty() ? QString() : QLatin1Char('/') + below;
    }
    // One Apache for the program, stopped when the program ends.
    static ApacheServer& Apache() {
        static const std::unique_ptr<ApacheServer> apache = [] {
            ApacheServer::Options options;
            options.parent = WorkFolder();
            auto server = std::make_unique<ApacheServer>(options);
            QString error;
            if (!server->Start(&error))
                qWarning("The WebDAV server did not start: %s", qPrintable(error));
            return server;
        }();
        return *apache;
    }

    ServerKind _kind;
    QTemporaryDir _dir;
    QString _serverTop;
    QString _remoteTop;
};

}  // namespace test
}  // namespace sync
