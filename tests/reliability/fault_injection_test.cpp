// The program against a real WebDAV server (a private Apache) behind a proxy that refuses,
// stalls, cuts and garbles chosen requests: every cycle with a fault must end with the counts,
// codes and log entries of that failure, lose nothing and leave nothing half-written on either
// side, and the next cycle without the fault must bring both sides into step.
//
// SYNC_RELIABILITY_LONG=1 runs every fault against every kind of request and more seeds;
// SYNC_RELIABILITY_SEED=N replays the contents, sizes and choices of a failing case.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <iostream>
#include <memory>

#include "ApacheServer.h"
#include "ConfigDatabase.h"
#include "DatabaseActionLog.h"
#include "FaultProxy.h"
#include "HostSetup.h"
#include "ProgramStatus.h"
#include "SyncCodes.h"

namespace {

using sync::test::ApacheServer;
using sync::test::FaultProxy;
using Fault = FaultProxy::Fault;

// The client gives up on a request that moves nothing for this long; a delay outlasts it. The
// client judges the speed over the last five seconds, so a request that sent a body gives up
// only that much later.
constexpr int kTimeoutSeconds = 3;
constexpr int kDelayMs = kTimeoutSeconds * 1000 + 2500;
constexpr int kDelayAfterBodyMs = kDelayMs + 6000;

bool LongRun() {
    return qEnvironmentVariableIntValue("SYNC_RELIABILITY_LONG") == 1;
}

quint32 BaseSeed() {
    static const quint32 seed = [] {
        bool ok = false;
        const uint given = qEnvironmentVariable("SYNC_RELIABILITY_SEED").toUInt(&ok);
        return ok ? quint32(given) : QRandomGenerator::system()->generate();
    }();
    return seed;
}

struct Figures {
    int cases = 0;
    int runs = 0;
    int faultsInjected = 0;
    int requestsSeen = 0;
    int filesChecked = 0;
    int filesLost = 0;
    int filesCorrupted = 0;
};
Figures g_figures;

class FiguresPrinter : public ::testing::Environment {
public:
    void TearDown() override {
        std::cout << "fault_injection figures: seed " << BaseSeed() << ", cases " << g_figures.cases
                  << ", program runs " << g_figures.runs << ", faults injected "
                  << g_figures.faultsInjected << ", requests seen " << g_figures.requestsSeen
                  << ", files checked " << g_figures.filesChecked << ", files lost "
                  << g_figures.filesLost << ", files corrupted " << g_figures.filesCorrupted
                  << std::endl;
    }
};
::testing::Environment* const g_printer = ::testing::AddGlobalTestEnvironment(new FiguresPrinter);

// One Apache for the program, stopped with the static's destruction.
ApacheServer& Apache() {
    static const std::unique_ptr<ApacheServer> apache = [] {
        auto server = std::make_unique<ApacheServer>();
        QString error;
        if (!server->Start(&error)) ADD_FAILURE() << error.toStdString();
        return server;
    }();
    return *apache;
}

struct Outcome {
    int status = -1;
    QString out;
    QString err;
};

enum class Side { Local, Server };

// One user's machine: its own home, database and local folder, and its own folder on the
// server, reached through the proxy.
class Machine {
public:
    explicit Machine(const FaultProxy& proxy) {
        const QString own = QFileInfo(_dir.path()).fileName();
        _serverTop = Apache().DocumentRoot() + QLatin1Char('/') + own;
        _remote = proxy.Url() + QLatin1Char('/') + own + QStringLiteral("/Docs");
        QDir().mkpath(Local());
        QDir().mkpath(_serverTop);
        Apache().HandOver(_serverTop);
    }
    ~Machine() { QDir(_serverTop).removeRecursively(); }

    QString Local(const QString& below = QString()) const {
        return _dir.filePath(QStringLiteral("local/Docs")) + Below(below);
    }
    QString Server(const QString& below = QString()) const {
        return _serverTop + QStringLiteral("/Docs") + Below(below);
    }
    QString Remote() const { return _remote; }
    QString Database() const { return _dir.filePath(QStringLiteral("sync.db")); }
    QString LogFile() const {
        return _dir.filePath(QStringLiteral("state/foldersync/foldersync.log"));
    }

    QProcess* Start(const QStringList& args) {
        auto* process = new QProcess();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), _dir.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), _dir.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_STATE_HOME"), _dir.filePath(QStringLiteral("state")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), _dir.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("FOLDERSYNC_HTTP_TIMEOUT"), QString::number(kTimeoutSeconds));
        env.remove(QStringLiteral("FOLDERSYNC_DB"));
        process->setProcessEnvironment(env);
        process->start(QStringLiteral(FOLDERSYNC_PROGRAM),
                       QStringList{QStringLiteral("--db"), Database()} + args);
        process->waitForStarted();
        ++g_figures.runs;
        return process;
    }
    static Outcome Finish(QProcess* process) {
        Outcome run;
        process->waitForFinished(180000);
        run.out = QString::fromUtf8(process->readAllStandardOutput());
        run.err = QString::fromUtf8(process->readAllStandardError());
        run.status = sync::test::ProgramStatus(*process, run.err);
        delete process;
        return run;
    }
    Outcome Run(const QStringList& args) { return Finish(Start(args)); }

    QVector<sync::database::ActionLogEntry> ActionLog() const {
        auto database = sync::database::ConfigDatabase::Open(
            Database(), sync::database::ConfigDatabase::Mode::ReadOnly);
        return sync::database::DatabaseActionLog(database).Entries();
    }

private:
    static QString Below(const QString& below) {
        return below.isEmpty() ? QString() : QLatin1Char('/') + below;
    }
    QTemporaryDir _dir;
    QString _serverTop;
    QString _remote;
};

// Every file below a folder by its path below it, with its content. Names of the program's
// own bookkeeping are set apart, and so are the server's (mod_dav's property and temporary
// files), which no client lists.
struct Snapshot {
    QMap<QString, QByteArray> files;
    QStringList folders;
    QStringList transferLitter;  // files in the program's temporary folder

    static Snapshot Of(const QString& top) {
        Snapshot s;
        QDirIterator it(top, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QString below = path.mid(top.size() + 1);
            if (below.startsWith(QLatin1String(".DAV")) || below.contains(QLatin1String("/.DAV")) ||
                QFileInfo(path).fileName().startsWith(QLatin1String(".davfs")))
                continue;
            if (below.startsWith(QLatin1String(".{SyncBackup}"))) continue;
            if (below.startsWith(QLatin1String(".{SyncTemp}"))) {
                if (it.fileInfo().isFile()) s.transferLitter << below;
                continue;
            }
            if (it.fileInfo().isDir()) {
                s.folders << below;
            } else {
                QFile file(path);
                file.open(QIODevice::ReadOnly);
                s.files.insert(below, file.readAll());
            }
        }
        s.folders.sort();
        return s;
    }
    bool operator==(const Snapshot& o) const { return files == o.files && folders == o.folders; }
};

// What the user wrote where: every version of every path, and the latest of each file still
// wanted.
class Story {
public:
    Story(Machine& m, QRandomGenerator& random) : _m(m), _random(random) {}

    QByteArray Content(const QString& path, int minimum, int spread) {
        const int size = minimum + int(_random.bounded(spread + 1));
        QByteArray content = path.toUtf8() + " v" + QByteArray::number(++_writes) + "\n";
        while (content.size() < size) content += char('a' + _random.bounded(26));
        return content;
    }
    void Write(Side side, const QString& path, const QByteArray& content) {
        if (side == Side::Local) {
            const QString full = _m.Local(path);
            QDir().mkpath(QFileInfo(full).absolutePath());
            QFile file(full);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            ASSERT_EQ(file.write(content), content.size());
        } else {
            ASSERT_TRUE(Apache().Put(_m.Server(path), content)) << path.toStdString();
        }
        _versions[path] << content;
        _live[path] = content;
        _writer[path] = side;
    }
    void Delete(Side side, const QString& path, bool folder = false) {
        const QString full = side == Side::Local ? _m.Local(path) : _m.Server(path);
        if (folder) {
            ASSERT_TRUE(QDir(full).removeRecursively());
        } else {
            ASSERT_TRUE(QFile::remove(full));
        }
        const QString prefix = path + QLatin1Char('/');
        for (const QString& key : _live.keys())
            if (key == path || (folder && key.startsWith(prefix))) _live.remove(key);
    }

    // Problems with what the two sides hold now: a file whose content the user never wrote at
    // that path (half-written, or someone else's bytes), a file nobody wrote, transfer litter,
    // and a wanted file missing from the side that wrote it. A file the user deleted may be
    // gone or still there in a version the user wrote.
    QStringList Problems(const Snapshot& local, const Snapshot& server, int* lost,
                         int* corrupted) const {
        QStringList problems;
        const auto judge = [&](const Snapshot& s, const char* side) {
            for (auto it = s.files.cbegin(); it != s.files.cend(); ++it) {
                ++g_figures.filesChecked;
                const QString path = _BaseOf(it.key());
                if (!_versions.contains(path)) {
                    ++*corrupted;
                    problems << QStringLiteral("%1: %2 was never written by the user")
                                    .arg(QLatin1String(side), it.key());
                } else if (!_versions.value(path).contains(it.value())) {
                    ++*corrupted;
                    problems << QStringLiteral("%1: %2 holds %3 bytes the user never wrote there")
                                    .arg(QLatin1String(side), it.key())
                                    .arg(it.value().size());
                }
            }
            for (const QString& litter : s.transferLitter)
                problems
                    << QStringLiteral("%1: transfer litter %2").arg(QLatin1String(side), litter);
        };
        judge(local, "local");
        judge(server, "server");
        for (auto it = _live.cbegin(); it != _live.cend(); ++it) {
            const Snapshot& own = _writer.value(it.key()) == Side::Local ? local : server;
            if (own.files.value(it.key()) != it.value()) {
                ++*lost;
                problems << QStringLiteral(
                                "%1's latest version is gone from the side that wrote it")
                                .arg(it.key());
            }
        }
        return problems;
    }
    // Problems once both sides are in step: every wanted file in its latest version on both.
    QStringList NotConverged(const Snapshot& local, const Snapshot& server) const {
        QStringList problems;
        if (!(local == server))
            problems << QStringLiteral("the sides differ:\n  local %1\n  server %2")
                            .arg(QStringList(local.files.keys()).join(QLatin1Char(' ')),
                                 QStringList(server.files.keys()).join(QLatin1Char(' ')));
        for (auto it = _live.cbegin(); it != _live.cend(); ++it)
            if (local.files.value(it.key()) != it.value())
                problems << QStringLiteral("%1 is not in its latest version").arg(it.key());
        return problems;
    }

private:
    // A conflict copy holds a version of the file it was made from.
    static QString _BaseOf(const QString& path) {
        static const QRegularExpression copy(
            QStringLiteral(" \\(conflict \\d{4}-\\d\\d-\\d\\d \\d{6}( \\d+)?\\)"));
        return QString(path).remove(copy);
    }

    Machine& _m;
    QRandomGenerator& _random;
    int _writes = 0;
    QMap<QString, QList<QByteArray>> _versions;
    QMap<QString, QByteArray> _live;
    QMap<QString, Side> _writer;
};

// A tree with work in every direction once it has been synchronised: uploads and downloads of
// new and changed files, deletions on both sides, folders created and deleted on both sides.
void Prepare(Machine& m, Story& story) {
    const auto small = [&](const QString& path) { return story.Content(path, 20, 3000); };
    // Large enough that a cut falls inside the body whatever the fraction.
    const auto large = [&](const QString& path) { return story.Content(path, 96 << 10, 64 << 10); };
    for (const char* path : {"keep.txt", "edit-local.txt", "edit-server.txt", "gone-local.txt",
                             "gone-server.txt", "old-local/x.txt", "old-server/y.txt"})
        story.Write(Side::Local, path, small(path));
    for (const char* path : {"big-local.bin", "big-server.bin"})
        story.Write(Side::Local, path, large(path));
    const Outcome first = m.Run({QStringLiteral("sync"), m.Local(), m.Remote()});
    ASSERT_EQ(first.status, 0) << first.err.toStdString();

    // Every edit changes the size: an edit within the second of the last sync shows no other way.
    story.Write(Side::Local, "edit-local.txt", small("edit-local.txt") + "local edit");
    story.Write(Side::Local, "big-local.bin", large("big-local.bin") + "local edit");
    story.Write(Side::Local, "new-local.txt", small("new-local.txt"));
    story.Write(Side::Local, "new-local-dir/inner.txt", small("new-local-dir/inner.txt"));
    story.Delete(Side::Local, "gone-local.txt");
    story.Delete(Side::Local, "old-local", true);
    story.Write(Side::Server, "edit-server.txt", small("edit-server.txt") + "server edit");
    story.Write(Side::Server, "big-server.bin", large("big-server.bin") + "server edit");
    story.Write(Side::Server, "new-server.txt", small("new-server.txt"));
    story.Write(Side::Server, "new-server-dir/inner.txt", small("new-server-dir/inner.txt"));
    story.Delete(Side::Server, "gone-server.txt");
    story.Delete(Side::Server, "old-server", true);
}

// The kinds of request a fault is aimed at, as the proxy tells them apart.
enum class Target { Listing, Stat, Upload, Download, FileDelete, FolderDelete, MakeFolder };

const char* NameOf(Target target) {
    switch (target) {
        case Target::Listing:
            return "listing";
        case Target::Stat:
            return "stat before an upload";
        case Target::Upload:
            return "upload";
        case Target::Download:
            return "download";
        case Target::FileDelete:
            return "file deletion";
        case Target::FolderDelete:
            return "folder deletion";
        case Target::MakeFolder:
            return "folder creation";
    }
    return "?";
}

// The rule that aims at one request of the kind; which one of several is the seed's choice.
FaultProxy::Rule Aim(Target target, Fault fault, QRandomGenerator& random) {
    FaultProxy::Rule rule;
    rule.fault = fault;
    rule.keep = 0.1 + 0.8 * random.generateDouble();
    const bool needsBody = fault == Fault::CutRequest || fault == Fault::CutResponse;
    switch (target) {
        case Target::Listing:
            rule.method = "PROPFIND";
            rule.headerContains = "Depth: infinity";
            break;
        case Target::Stat:
            // A file the server has: the look before its upload is answered with a listing.
            rule.method = "PROPFIND";
            rule.headerContains = "Depth: 0";
            rule.pathContains = "edit-local.txt";
            break;
        case Target::Upload:
            rule.method = "PUT";
            if (needsBody) {
                rule.pathContains = "big-local.bin";
                // The client sends a request again on a new connection when a kept-alive one
                // dies under it: only a cut of every attempt fails the upload.
                rule.occurrence = 0;
            } else {
                rule.occurrence = 1 + int(random.bounded(4));
            }
            break;
        case Target::Download:
            rule.method = "GET";
            if (needsBody)
                rule.pathContains = "big-server.bin";
            else
                rule.occurrence = 1 + int(random.bounded(4));
            break;
        case Target::FileDelete:
            rule.method = "DELETE";
            rule.pathContains = "gone-local.txt";
            break;
        case Target::FolderDelete:
            rule.method = "DELETE";
            rule.headerContains = "old-local/ HTTP";
            break;
        case Target::MakeFolder:
            rule.method = "MKCOL";
            rule.pathContains = "new-local-dir";
            break;
    }
    return rule;
}

// Where a failure shows: the root folder fails as a whole (the listing), or one task's
// category counts it and the rest of the work goes on.
enum class Scope { Root, Task, None };

struct Expectation {
    int exitStatus;
    int code;  // the error code reported; 0 for none
    Scope scope;
    int category;  // index among the eight error counts of the action log, for Task
    // Failures the one fault brings about, when nothing pauses: a folder not created on the
    // server takes the upload of its file with it.
    int errors;
    // Whether the cycle has requests left to send after the aimed-at one.
    bool requestsFollow;
};

Expectation Expect(Target target, Fault fault, int status) {
    int code = status;
    if (fault == Fault::Delay) code = sync::http::ServiceUnavailable;
    if (fault != Fault::Status && fault != Fault::Delay) code = sync::http::BadGateway;
    // A 404 says the entry is gone: its deletion is done, and a changed file is not uploaded
    // into a place the server says is empty.
    const bool gone = fault == Fault::Status && status == sync::http::NotFound;
    switch (target) {
        case Target::Listing:
            return {1, code, Scope::Root, -1, 0, false};
        case Target::Stat:
            // A file the server no longer has is not brought back by an upload.
            if (gone) return {1, sync::http::PreconditionFailed, Scope::Task, 0, 1, true};
            return {1, code, Scope::Task, 0, 1, true};
        case Target::Upload:
            return {1, code, Scope::Task, 0, 1, true};
        case Target::Download:
            return {1, code, Scope::Task, 1, 1, true};
        case Target::FileDelete:
            if (gone) return {0, 0, Scope::None, -1, 0, true};
            return {1, code, Scope::Task, 2, 1, true};
        case Target::MakeFolder:
            return {1, code, Scope::Task, 4, 2, true};
        case Target::FolderDelete:
            if (gone) return {0, 0, Scope::None, -1, 0, false};
            return {1, code, Scope::Task, 6, 1, false};
    }
    return {};
}

enum class Pause { Expected, NotExpected, Either };

struct FaultRow {
    const char* name;
    Fault fault;
    int status;
    const char* retryAfter;
    QList<Target> targets;         // aimed at in every run
    QList<Target> alsoInLongRuns;  // aimed at only with SYNC_RELIABILITY_LONG=1
    Pause pause;
};

const QList<Target> kAll = {Target::Listing,   Target::Stat,       Target::Upload,
                            Target::Download,  Target::FileDelete, Target::FolderDelete,
                            Target::MakeFolder};
using T = Target;

// clang-format off
const FaultRow kFaults[] = {
    {"401 Unauthorized", Fault::Status, 401, "", {T::Upload}, kAll, Pause::NotExpected},
    {"403 Forbidden", Fault::Status, 403, "", {T::FileDelete}, kAll, Pause::NotExpected},
    {"404 Not Found", Fault::Status, 404, "", {T::Listing}, kAll, Pause::NotExpected},
    {"423 Locked", Fault::Status, 423, "", {T::FolderDelete}, kAll, Pause::NotExpected},
    {"429 with Retry-After", Fault::Status, 429, "60", {T::Upload}, kAll, Pause::Expected},
    {"429 without Retry-After", Fault::Status, 429, "", {T::Download}, kAll, Pause::Expected},
    {"500 Internal Server Error", Fault::Status, 500, "", {T::MakeFolder}, kAll,
     Pause::NotExpected},
    {"503 with Retry-After", Fault::Status, 503, "60", {T::Download}, kAll, Pause::Expected},
    {"503 without Retry-After", Fault::Status, 503, "", {T::Upload}, kAll, Pause::NotExpected},
    {"507 Insufficient Storage", Fault::Status, 507, "", {T::Upload}, {T::Stat, T::MakeFolder},
     Pause::NotExpected},
    {"delay past the timeout", Fault::Delay, 0, "", {T::Download},
     {T::Listing, T::Upload, T::FileDelete, T::MakeFolder}, Pause::Either},
    {"connection cut in the request body", Fault::CutRequest, 0, "", {T::Upload}, {},
     Pause::NotExpected},
    {"connection cut in the answer body", Fault::CutResponse, 0, "", {T::Download},
     {T::Listing, T::Stat}, Pause::NotExpected},
    {"truncated listing XML", Fault::TruncateXml, 0, "", {T::Listing}, {T::Stat},
     Pause::NotExpected},
    {"malformed listing XML", Fault::MalformXml, 0, "", {T::Listing, T::Stat}, {},
     Pause::NotExpected},
    {"listing that lists nothing", Fault::EmptyMultistatus, 0, "", {T::Listing}, {},
     Pause::NotExpected},
};
// clang-format on

// The last failure entry the cycle wrote to the action log.
const sync::database::ActionLogEntry* LastFailure(
    const QVector<sync::database::ActionLogEntry>& log) {
    for (int i = log.size() - 1; i >= 0; --i)
        if (log[i].type == sync::core::actionlog::RootFolderFailed) return &log[i];
    return nullptr;
}

// The seed of one case, from the run's seed, the fault, the target and the repetition.
quint32 CaseSeed(const FaultRow& row, Target target, int repetition) {
    quint32 h = 2166136261u;  // FNV-1a of the fault's name
    for (const char* c = row.name; *c; ++c) h = (h ^ quint8(*c)) * 16777619u;
    return BaseSeed() ^ h ^ (quint32(target) * 104729u) ^ (quint32(repetition) * 7919u);
}

void RunCase(const FaultRow& row, Target target, int repetition) {
    const quint32 seed = CaseSeed(row, target, repetition);
    SCOPED_TRACE(
        QStringLiteral("%1 on the %2, repetition %3: replay with SYNC_RELIABILITY_SEED=%4%5")
            .arg(QLatin1String(row.name), QLatin1String(NameOf(target)))
            .arg(repetition)
            .arg(BaseSeed())
            .arg(LongRun() ? QStringLiteral(" SYNC_RELIABILITY_LONG=1") : QString())
            .toStdString());
    ++g_figures.cases;
    QRandomGenerator random(seed);
    FaultProxy proxy(QStringLiteral("127.0.0.1"), Apache().Port());
    Machine m(proxy);
    Story story(m, random);
    Prepare(m, story);
    if (::testing::Test::HasFatalFailure()) return;
    const Snapshot localBefore = Snapshot::Of(m.Local()), serverBefore = Snapshot::Of(m.Server());

    FaultProxy::Rule rule = Aim(target, row.fault, random);
    rule.status = row.status;
    rule.retryAfter = row.retryAfter;
    rule.delayMs = rule.method == "PROPFIND" || rule.method == "PUT" ? kDelayAfterBodyMs : kDelayMs;
    proxy.AddRule(rule);
    const int seenBefore = proxy.Log().size();
    const Outcome faulty = m.Run({QStringLiteral("sync")});
    EXPECT_TRUE(proxy.WaitIdle(30000));
    g_figures.faultsInjected += proxy.Injected();
    const std::string shown = faulty.out.toStdString() + faulty.err.toStdString();
    ASSERT_GE(proxy.Injected(), 1) << "the aimed-at request never came\n" << shown;

    const Expectation want = Expect(target, row.fault, row.status);
    EXPECT_EQ(faulty.status, want.exitStatus) << shown;
    const auto log = m.ActionLog();
    const auto* failure = LastFailure(log);
    if (want.scope == Scope::None) {
        EXPECT_TRUE(failure == nullptr) << shown;
    } else {
        ASSERT_TRUE(failure != nullptr) << shown;
        EXPECT_TRUE(faulty.err.contains(QStringLiteral("error: %1: ").arg(m.Local()))) << shown;
        EXPECT_TRUE(faulty.err.contains(QString::number(want.code))) << shown;
        // Only a failure with the one code 401 is an authentication failure of the root.
        if (want.errors <= 1) {
            EXPECT_EQ(faulty.err.contains(QLatin1String("check the account's password")),
                      want.code == sync::http::Unauthorized)
                << shown;
        }
    }
    if (want.scope == Scope::Root) {
        // The listing failed: no task ran, the whole root folder is reported with the code.
        EXPECT_EQ(failure->httpCode, want.code) << shown;
        EXPECT_TRUE(Snapshot::Of(m.Local()) == localBefore) << shown;
        EXPECT_TRUE(Snapshot::Of(m.Server()) == serverBefore) << shown;
    } else if (want.scope == Scope::Task) {
        // One task failed, counted in its category; the rest of the root folder went on.
        EXPECT_EQ(failure->details.kind, sync::core::actionlog::ErrorCounts) << shown;
        const QVector<QString>& counts = failure->details.arguments;
        ASSERT_EQ(counts.size(), 12) << shown;
        EXPECT_GE(counts[4 + want.category].toInt(), 1) << shown;
        if (row.pause != Pause::Expected) {
            int errors = 0, done = 0;
            for (int i = 0; i < 4; ++i) done += counts[i].toInt();
            for (int i = 4; i < 12; ++i) errors += counts[i].toInt();
            EXPECT_EQ(errors, want.errors) << shown;
            EXPECT_GT(done, 0) << shown;
        }
    }
    const int afterFault = proxy.ForwardedAfterFirstInjection();
    if (row.pause == Pause::Expected) {
        EXPECT_EQ(afterFault, 0) << "the server was asked again during its pause\n" << shown;
    } else if (row.pause == Pause::NotExpected && want.requestsFollow) {
        EXPECT_GT(afterFault, 0) << shown;
    }

    int lost = 0, corrupted = 0;
    const QStringList afterFaultProblems =
        story.Problems(Snapshot::Of(m.Local()), Snapshot::Of(m.Server()), &lost, &corrupted);
    EXPECT_TRUE(afterFaultProblems.isEmpty()) << afterFaultProblems.join('\n').toStdString();

    // Without the fault the two sides come into step, and stay there.
    proxy.ClearRules();
    const Outcome recovery = m.Run({QStringLiteral("sync")});
    EXPECT_TRUE(proxy.WaitIdle(30000));
    EXPECT_EQ(recovery.status, 0) << recovery.out.toStdString() << recovery.err.toStdString();
    const Snapshot local = Snapshot::Of(m.Local()), server = Snapshot::Of(m.Server());
    QStringList problems = story.Problems(local, server, &lost, &corrupted);
    problems += story.NotConverged(local, server);
    EXPECT_TRUE(problems.isEmpty()) << problems.join('\n').toStdString();
    const Outcome quiet = m.Run({QStringLiteral("sync")});
    EXPECT_EQ(quiet.status, 0) << quiet.err.toStdString();
    EXPECT_TRUE(quiet.out.contains(QLatin1String("in step, nothing to do")))
        << quiet.out.toStdString() << quiet.err.toStdString();
    g_figures.filesLost += lost;
    g_figures.filesCorrupted += corrupted;
    g_figures.requestsSeen += proxy.Log().size() - seenBefore;
}

// Failures name the row, not its bytes.
void PrintTo(const FaultRow& row, std::ostream* os) {
    *os << row.name;
}

class FaultInjection : public ::testing::TestWithParam<FaultRow> {
protected:
    void SetUp() override {
        if (!ApacheServer::Unavailable().isEmpty())
            GTEST_SKIP() << ApacheServer::Unavailable().toStdString();
    }
};

TEST_P(FaultInjection, ACycleWithTheFaultLosesNothingAndTheNextConverges) {
    const FaultRow& row = GetParam();
    QList<Target> targets = row.targets;
    if (LongRun())
        for (Target t : row.alsoInLongRuns)
            if (!targets.contains(t)) targets << t;
    const int seeds = LongRun() ? 3 : 1;
    for (Target target : targets)
        for (int repetition = 0; repetition < seeds; ++repetition) RunCase(row, target, repetition);
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultInjection, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<FaultRow>& info) {
                             QString name = QString::fromLatin1(info.param.name);
                             name.replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9]")),
                                          QStringLiteral("_"));
                             return name.toStdString();
                         });

// Retry-After as the server may send it: seconds, or an HTTP date that many seconds ahead.
QByteArray RetryAfterValue(int seconds, bool asDate) {
    if (!asDate) return QByteArray::number(seconds);
    return QLocale::c()
        .toString(QDateTime::currentDateTimeUtc().addSecs(seconds),
                  QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"))
        .toLatin1();
}

// A server folder of its own in the shared Apache, with one file in it.
class ServerFolder {
public:
    ServerFolder() {
        _top = Apache().DocumentRoot() + QLatin1Char('/') + QFileInfo(_dir.path()).fileName();
        QDir().mkpath(_top);
        Apache().HandOver(_top);
        Apache().Put(_top + QStringLiteral("/Docs/a.txt"), "content of a");
    }
    ~ServerFolder() { QDir(_top).removeRecursively(); }
    QString Below(const FaultProxy& proxy) const {
        return proxy.Url() + QLatin1Char('/') + QFileInfo(_top).fileName();
    }
    QString Scratch() const { return _dir.path(); }

private:
    QTemporaryDir _dir;
    QString _top;
};

TEST(ServerPause, OneAnswerQuietsEveryBackendOfTheAccountForAsLongAsTheServerAsked) {
    if (!ApacheServer::Unavailable().isEmpty())
        GTEST_SKIP() << ApacheServer::Unavailable().toStdString();
    constexpr int kConfiguredHold = 5;
    const struct {
        const char* name;
        int status;
        int retryAfter;  // -1: no Retry-After
        bool asDate;
        bool pauses;
    } rows[] = {
        {"429 in seconds", 429, 120, false, true},    {"429 as an HTTP date", 429, 120, true, true},
        {"503 in seconds", 503, 120, false, true},    {"503 as an HTTP date", 503, 120, true, true},
        {"429 without a time", 429, -1, false, true}, {"503 without a time", 503, -1, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServerFolder folder;
        FaultProxy proxy(QStringLiteral("127.0.0.1"), Apache().Port());
        sync::host::HostSetup setup(folder.Scratch() + QStringLiteral("/sync.db"));
        setup.configuration->SetTooManyRequestsHoldSeconds(kConfiguredHold);
        sync::config::ServerConfiguration account;
        account.kind = QStringLiteral("webdav");
        account.baseUrl = account.name = folder.Below(proxy);
        setup.accounts->AddAccount(account);

        FaultProxy::Rule rule;
        rule.method = "PROPFIND";
        rule.status = row.status;
        if (row.retryAfter >= 0) rule.retryAfter = RetryAfterValue(row.retryAfter, row.asDate);
        proxy.AddRule(rule);
        ASSERT_EQ(setup.remote->ValidateCredentials(account.id), row.status);
        ++g_figures.faultsInjected;
        // The engine's hold after a 429 is at least what the server asked (a date is read a
        // moment after it was written).
        const int hold = setup.engineConfiguration->GetTooManyRequestsHoldSeconds();
        if (row.retryAfter >= 0)
            EXPECT_GE(hold, row.retryAfter - 2);
        else
            EXPECT_EQ(hold, kConfiguredHold);

        // Every way to the account: the same backend again, a backend made anew for a changed
        // account record, and a transfer.
        const int refused = row.pauses ? row.status : 0;
        EXPECT_EQ(setup.remote->ValidateCredentials(account.id), refused);
        const auto before = setup.remote->Backend(account.id);
        account.settings.insert(QStringLiteral("note"), QStringLiteral("changed"));
        ASSERT_TRUE(setup.accounts->UpdateAccount(account));
        ASSERT_NE(setup.remote->Backend(account.id), before);
        EXPECT_EQ(setup.remote->ValidateCredentials(account.id), refused);
        sync::config::FolderConfiguration root;
        root.id = root.rootId = 1;
        root.authenticationId = account.id;
        root.serverPath = QStringLiteral("/Docs");
        root.localPath = folder.Scratch() + QStringLiteral("/local");
        QDir().mkpath(root.localPath);
        sync::config::FileConfiguration file;
        file.serverPath = QStringLiteral("/Docs/a.txt");
        file.localPath = root.localPath + QStringLiteral("/a.txt");
        QList<sync::thread::SynchronizedFileConfiguration> batch{{file, file}};
        const auto results = setup.remote->DownloadFiles(account, root, batch);
        if (row.pauses) {
            EXPECT_EQ(results.errorCodes.value(row.status), 1);
            EXPECT_FALSE(QFileInfo::exists(file.localPath));
            EXPECT_EQ(proxy.ForwardedAfterFirstInjection(), 0)
                << "the server was asked again during its pause";
        } else {
            EXPECT_EQ(results.FileLocalCreations, 1);
            EXPECT_GT(proxy.ForwardedAfterFirstInjection(), 0);
        }
        g_figures.requestsSeen += proxy.Log().size();
    }
}

TEST(ServerPause, RequestsGoAgainOnceThePauseIsOver) {
    if (!ApacheServer::Unavailable().isEmpty())
        GTEST_SKIP() << ApacheServer::Unavailable().toStdString();
    ServerFolder folder;
    FaultProxy proxy(QStringLiteral("127.0.0.1"), Apache().Port());
    sync::host::HostSetup setup(folder.Scratch() + QStringLiteral("/sync.db"));
    sync::config::ServerConfiguration account;
    account.kind = QStringLiteral("webdav");
    account.baseUrl = account.name = folder.Below(proxy);
    setup.accounts->AddAccount(account);
    FaultProxy::Rule rule;
    rule.status = 429;
    rule.retryAfter = "1";
    proxy.AddRule(rule);
    ASSERT_EQ(setup.remote->ValidateCredentials(account.id), 429);
    ++g_figures.faultsInjected;
    EXPECT_EQ(setup.remote->ValidateCredentials(account.id), 429);
    QThread::msleep(1300);
    EXPECT_EQ(setup.remote->ValidateCredentials(account.id), 0);
    EXPECT_EQ(proxy.ForwardedAfterFirstInjection(), 1);
}

// The running service: after a 429 it holds its next cycle for as long as the server asked,
// past its own schedule; after a 503 with Retry-After its cycles go on but ask nothing of the
// server until the time has passed.
TEST(ServerPause, TheServiceAsksNothingOfAServerThatAskedForAPause) {
    if (!ApacheServer::Unavailable().isEmpty())
        GTEST_SKIP() << ApacheServer::Unavailable().toStdString();
    const struct {
        const char* name;
        int status;
        const char* waitFor;  // a line that shows the service has reacted
        int count;            // how often it must show
    } rows[] = {
        {"429", 429, "Putting sync on hold for 60 minutes", 1},
        {"503", 503, "Sync beginning", 3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FaultProxy proxy(QStringLiteral("127.0.0.1"), Apache().Port());
        Machine m(proxy);
        QDir().mkpath(m.Local());
        QFile seed(m.Local(QStringLiteral("a.txt")));
        ASSERT_TRUE(seed.open(QIODevice::WriteOnly));
        seed.write("a");
        seed.close();
        ASSERT_EQ(m.Run({QStringLiteral("sync"), m.Local(), m.Remote()}).status, 0);
        ASSERT_EQ(
            m.Run({QStringLiteral("schedule"), QStringLiteral("periodic"), QStringLiteral("1")})
                .status,
            0);
        FaultProxy::Rule rule;
        rule.method = "PROPFIND";
        rule.headerContains = "Depth: infinity";
        rule.occurrence = 0;
        rule.status = row.status;
        rule.retryAfter = "3600";
        proxy.AddRule(rule);

        QProcess* service = m.Start({QStringLiteral("-v"), QStringLiteral("run")});
        QString output;
        QElapsedTimer waited;
        waited.start();
        while (output.count(QLatin1String(row.waitFor)) < row.count && waited.elapsed() < 30000) {
            service->waitForReadyRead(200);
            output += QString::fromUtf8(service->readAllStandardError());
        }
        // Two more turns of the schedule.
        QThread::msleep(2500);
        ::kill(pid_t(service->processId()), SIGTERM);
        const Outcome stopped = Machine::Finish(service);
        output += stopped.err;
        EXPECT_GE(output.count(QLatin1String(row.waitFor)), row.count) << output.toStdString();
        EXPECT_EQ(stopped.status, 0) << output.toStdString();
        EXPECT_EQ(proxy.Injected(), 1) << output.toStdString();
        EXPECT_EQ(proxy.ForwardedAfterFirstInjection(), 0) << output.toStdString();
        g_figures.faultsInjected += proxy.Injected();
        g_figures.requestsSeen += proxy.Log().size();
    }
}

}  // namespace
