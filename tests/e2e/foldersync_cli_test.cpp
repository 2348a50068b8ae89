// The command-line program driven as a user drives it: real folders, a real database, the
// local-folder server, and the exit statuses and messages a script would test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <memory>
#include "ApacheServer.h"
#include "ProgramStatus.h"

// Failures show lists as text, one entry per line (found by argument-dependent lookup).
QT_BEGIN_NAMESPACE
static void PrintTo(const QStringList& list, std::ostream* os) {
    *os << "\n  " << list.join(QStringLiteral("\n  ")).toStdString();
}
QT_END_NAMESPACE

namespace {

struct Outcome {
    int status = -1;
    QString out;
    QString err;
};

// One user's machine: a home with its own data, state and trash folders, a database, a local
// folder and a folder playing the server.
//
// The server is a folder on this machine, or a WebDAV server (a private Apache) whose document
// root holds that folder; Server() is the folder on the disk either way, Remote() what the
// user types.
enum class ServerKind { LocalFolder, WebDav };

class Machine {
public:
    explicit Machine(ServerKind kind = ServerKind::LocalFolder) : _kind(kind) {
        QDir().mkpath(Local());
        if (kind == ServerKind::LocalFolder) {
            _serverTop = _dir.filePath(QStringLiteral("server"));
            _remoteTop = _serverTop;
        } else {
            // One Apache for the program; each machine gets a folder of its own in it.
            const QString own = QFileInfo(_dir.path()).fileName();
            _serverTop = Apache().DocumentRoot() + QLatin1Char('/') + own;
            _remoteTop = Apache().Url() + QLatin1Char('/') + own;
        }
        QDir().mkpath(_serverTop);
        if (kind == ServerKind::WebDav) Apache().HandOver(_serverTop);
    }
    ~Machine() {
        if (_kind == ServerKind::WebDav) QDir(_serverTop).removeRecursively();
    }
    // Empty when this machine can have a WebDAV server; else why not.
    static QString WebDavUnavailable() { return sync::test::ApacheServer::Unavailable(); }

    QString Local(const QString& below = QString()) const {
        return _dir.filePath(QStringLiteral("local/Docs")) + Below(below);
    }
    QString Server(const QString& below = QString()) const {
        return _serverTop + QStringLiteral("/Docs") + Below(below);
    }
    QString Remote() const { return _remoteTop + QStringLiteral("/Docs"); }
    // A change on the server made by someone else.
    void WriteServer(const QString& below, const QByteArray& content) {
        if (_kind == ServerKind::LocalFolder) {
            Write(Server(below), content);
        } else {
            // Written the way another client's upload would have landed a moment ago.
            ASSERT_TRUE(Apache().Put(Server(below), content));
        }
    }
    QString Database() const { return _dir.filePath(QStringLiteral("sync.db")); }
    QString Trash() const { return _dir.filePath(QStringLiteral("data/Trash/files")); }

    QProcess* Start(const QStringList& args) {
        auto* process = new QProcess();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), _dir.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), _dir.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_STATE_HOME"), _dir.filePath(QStringLiteral("state")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), _dir.filePath(QStringLiteral("config")));
        env.remove(QStringLiteral("FOLDERSYNC_DB"));
        process->setProcessEnvironment(env);
        process->start(QStringLiteral(FOLDERSYNC_PROGRAM),
                       QStringList{QStringLiteral("--db"), Database()} + args);
        process->waitForStarted();
        return process;
    }
    static Outcome Finish(QProcess* process) {
        Outcome run;
        process->waitForFinished(120000);
        run.out = QString::fromUtf8(process->readAllStandardOutput());
        run.err = QString::fromUtf8(process->readAllStandardError());
        run.status = sync::test::ProgramStatus(*process, run.err);
        delete process;
        return run;
    }
    Outcome operator()(const QStringList& args) { return Finish(Start(args)); }
    Outcome Sync(const QStringList& extra = QStringList()) {
        return (*this)(QStringList{QStringLiteral("sync"), Local(), Remote()} + extra);
    }

    // "path content" lines of every file and "path/" of every folder below a folder, sorted.
    static QStringList Tree(const QString& folder) {
        QStringList lines;
        QDirIterator it(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QString below = path.mid(folder.size());
            if (below.contains(QLatin1String("/.{"))) continue;
            if (it.fileInfo().isDir()) {
                lines << below + QLatin1Char('/');
            } else {
                QFile file(path);
                file.open(QIODevice::ReadOnly);
                lines << below + QLatin1Char(' ') + QString::fromUtf8(file.readAll());
            }
        }
        lines.sort();
        return lines;
    }
    static void Write(const QString& path, const QByteArray& content) {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
        file.write(content);
    }

private:
    static QString Below(const QString& below) {
        return below.isEmpty() ? QString() : QLatin1Char('/') + below;
    }
    // Stopped when the program ends, with the static's destruction.
    static sync::test::ApacheServer& Apache() {
        static const std::unique_ptr<sync::test::ApacheServer> apache = [] {
            auto server = std::make_unique<sync::test::ApacheServer>();
            QString error;
            if (!server->Start(&error)) ADD_FAILURE() << error.toStdString();
            return server;
        }();
        return *apache;
    }
    ServerKind _kind;
    QTemporaryDir _dir;
    QString _serverTop;
    QString _remoteTop;
};

// The cases that run against both kinds of server.
class FoldersyncOnEitherServer : public ::testing::TestWithParam<ServerKind> {
protected:
    void SetUp() override {
        if (GetParam() == ServerKind::WebDav && !Machine::WebDavUnavailable().isEmpty())
            GTEST_SKIP() << Machine::WebDavUnavailable().toStdString();
    }
};

TEST_P(FoldersyncOnEitherServer, FirstSyncThenChangesOnBothSidesConverge) {
    Machine m(GetParam());
    Machine::Write(m.Local(QStringLiteral("a.txt")), "alpha");
    Machine::Write(m.Local(QStringLiteral("sub dir/Ünïcode € 😀.txt")), "unicode");
    Machine::Write(m.Local(QStringLiteral("sub dir/deep/100% #1?.txt")), "odd");
    Machine::Write(m.Local(QStringLiteral("gone-local.txt")), "1");
    Machine::Write(m.Local(QStringLiteral("gone-server.txt")), "2");
    QDir().mkpath(m.Local(QStringLiteral("empty")));

    Outcome first = m.Sync();
    ASSERT_EQ(first.status, 0) << first.err.toStdString();
    EXPECT_EQ(Machine::Tree(m.Server()), Machine::Tree(m.Local()));
    EXPECT_TRUE(first.out.contains(QLatin1String("5 uploaded"))) << first.out.toStdString();

    Outcome again = m.Sync();
    EXPECT_EQ(again.status, 0);
    EXPECT_TRUE(again.out.contains(QLatin1String("in step, nothing to do")))
        << again.out.toStdString();

    // Changes on both sides, none of them in conflict.
    Machine::Write(m.Local(QStringLiteral("a.txt")), "alpha, edited locally");
    m.WriteServer(QStringLiteral("sub dir/deep/100% #1?.txt"), "edited on the server");
    m.WriteServer(QStringLiteral("new on server/n.txt"), "new");
    Machine::Write(m.Local(QStringLiteral("new local.txt")), "local");
    QFile::remove(m.Local(QStringLiteral("gone-local.txt")));
    QFile::remove(m.Server(QStringLiteral("gone-server.txt")));
    Outcome changes = m(QStringList{QStringLiteral("sync")});
    ASSERT_EQ(changes.status, 0) << changes.err.toStdString();

    const QStringList expected = {
        "/a.txt alpha, edited locally",
        "/empty/",
        "/new local.txt local",
        "/new on server/",
        "/new on server/n.txt new",
        "/sub dir/",
        "/sub dir/deep/",
        "/sub dir/deep/100% #1?.txt edited on the server",
        "/sub dir/Ünïcode € 😀.txt unicode",
    };
    QStringList sortedExpected = expected;
    sortedExpected.sort();
    EXPECT_EQ(Machine::Tree(m.Local()), sortedExpected);
    EXPECT_EQ(Machine::Tree(m.Server()), sortedExpected);
    // The file deleted on the server was deleted locally into the trash, not destroyed.
    EXPECT_TRUE(QFileInfo::exists(m.Trash() + QStringLiteral("/gone-server.txt")));

    Outcome status = m(QStringList{QStringLiteral("status")});
    EXPECT_EQ(status.status, 0);
    EXPECT_TRUE(status.out.contains(m.Local() + QStringLiteral(": in step")))
        << status.out.toStdString();
    EXPECT_TRUE(status.out.contains(QLatin1String("5 in step"))) << status.out.toStdString();
    Outcome log = m(QStringList{QStringLiteral("log")});
    EXPECT_EQ(log.status, 0);
    EXPECT_GE(log.out.count(QLatin1String("was synchronised")), 2) << log.out.toStdString();
}

TEST_P(FoldersyncOnEitherServer, AFileChangedOnBothSidesKeepsBothVersions) {
    Machine m(GetParam());
    Machine::Write(m.Local(QStringLiteral("report.txt")), "base");
    Machine::Write(m.Local(QStringLiteral("same.txt")), "base");
    ASSERT_EQ(m.Sync().status, 0);
    Machine::Write(m.Local(QStringLiteral("report.txt")), "mine");
    m.WriteServer(QStringLiteral("report.txt"), "theirs");
    Machine::Write(m.Local(QStringLiteral("same.txt")), "same change");
    m.WriteServer(QStringLiteral("same.txt"), "same change");

    // The local edit has the size of the old content and usually the second of the last sync:
    // its time stamp cannot show it. The first run then refuses to overwrite it (status 1)
    // rather than lose it, and the next run uploads it, keeping the server's version.
    const int first = m.Sync().status;
    EXPECT_TRUE(first == 0 || first == 1) << first;
    ASSERT_EQ(m.Sync().status, 0);
    ASSERT_EQ(m.Sync().status, 0);
    const QStringList local = Machine::Tree(m.Local());
    EXPECT_EQ(Machine::Tree(m.Server()), local);
    ASSERT_EQ(local.size(), 3) << local.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(local[1].toStdString(), "/report.txt mine");
    EXPECT_TRUE(
        QRegularExpression(
            QStringLiteral("^/report \\(conflict \\d{4}-\\d\\d-\\d\\d \\d{6}\\)\\.txt theirs$"))
            .match(local[0])
            .hasMatch())
        << local[0].toStdString();
    EXPECT_EQ(local[2].toStdString(), "/same.txt same change");
    EXPECT_TRUE(m.Sync().out.contains(QLatin1String("in step, nothing to do")));
}

TEST(FoldersyncCli, BadInputGetsOneLineAndChangesNothing) {
    Machine m;
    Machine::Write(m.Local(QStringLiteral("file.txt")), "x");
    ASSERT_EQ(m.Sync().status, 0);
    const QStringList registered = Machine::Tree(m.Server());

    struct Case {
        const char* name;
        QStringList args;
        const char* message;
    };
    const QString other = QFileInfo(m.Server()).absolutePath() + QStringLiteral("/Other");
    const QList<Case> cases = {
        {"missing local folder", {"sync", m.Local("nope"), other}, "does not exist"},
        {"local path is a file", {"sync", m.Local("file.txt"), other}, "is not a folder"},
        {"unknown scheme", {"sync", m.Local(), "ftp://example.org/x"}, "names no server folder"},
        {"server inside local", {"add", m.Local(), m.Local("inner")}, "overlap"},
        {"local already synced elsewhere", {"add", m.Local(), other}, "is already synced with"},
        {"nested local root", {"add", m.Local("sub"), other}, "overlaps the synced folder"},
        {"nested server root",
         {"add", QFileInfo(m.Local()).absolutePath(), m.Server("in")},
         "overlaps"},
        {"unknown command", {"frobnicate"}, "unknown command"},
    };
    QDir().mkpath(m.Local(QStringLiteral("sub")));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome run = m(c.args);
        EXPECT_EQ(run.status, 2);
        EXPECT_TRUE(run.err.contains(QLatin1String(c.message))) << run.err.toStdString();
        EXPECT_EQ(run.err.trimmed().count(QLatin1Char('\n')), 0) << run.err.toStdString();
    }
    Outcome list = m(QStringList{QStringLiteral("list")});
    EXPECT_EQ(list.out.count(QLatin1Char('\n')), 1) << list.out.toStdString();
    EXPECT_FALSE(QFileInfo::exists(other));
    EXPECT_EQ(Machine::Tree(m.Server()), registered);
}

TEST_P(FoldersyncOnEitherServer, MassDeletionIsHeldBackUntilAllowed) {
    Machine m(GetParam());
    for (int i = 0; i < 20; ++i)
        Machine::Write(m.Local(QStringLiteral("f%1.txt").arg(i)), QByteArray::number(i));
    ASSERT_EQ(m.Sync().status, 0);
    for (int i = 0; i < 15; ++i) QFile::remove(m.Local(QStringLiteral("f%1.txt").arg(i)));

    Outcome held = m.Sync();
    EXPECT_EQ(held.status, 3);
    EXPECT_TRUE(held.err.contains(QLatin1String("would delete 15 of its 20 files")))
        << held.err.toStdString();
    EXPECT_EQ(QDir(m.Server()).entryList(QDir::Files).size(), 20);

    Outcome allowed = m.Sync({QStringLiteral("--allow-mass-delete")});
    EXPECT_EQ(allowed.status, 0) << allowed.err.toStdString();
    EXPECT_EQ(QDir(m.Server()).entryList(QDir::Files).size(), 5);
}

TEST_P(FoldersyncOnEitherServer, DryRunPrintsThePlanAndChangesNothing) {
    Machine m(GetParam());
    Machine::Write(m.Local(QStringLiteral("a.txt")), "a");
    // A new pair: not even the database or the server folder appears.
    Outcome trial = m.Sync({QStringLiteral("--dry-run")});
    EXPECT_EQ(trial.status, 0) << trial.err.toStdString();
    EXPECT_TRUE(trial.out.contains(QStringLiteral("upload %1").arg(m.Local("a.txt"))))
        << trial.out.toStdString();
    EXPECT_FALSE(QFileInfo::exists(m.Server()));
    EXPECT_FALSE(QFileInfo::exists(m.Database()));

    ASSERT_EQ(m.Sync().status, 0);
    m.WriteServer(QStringLiteral("b.txt"), "b");
    QFile::remove(m.Local(QStringLiteral("a.txt")));
    const QStringList local = Machine::Tree(m.Local());
    const QStringList server = Machine::Tree(m.Server());
    QFile db(m.Database());
    ASSERT_TRUE(db.open(QIODevice::ReadOnly));
    const QByteArray before = db.readAll();
    db.close();

    trial = m(QStringList{QStringLiteral("sync"), QStringLiteral("--dry-run")});
    EXPECT_EQ(trial.status, 0) << trial.err.toStdString();
    EXPECT_TRUE(trial.out.contains(QStringLiteral("download %1").arg(m.Local("b.txt"))));
    EXPECT_TRUE(trial.out.contains(QStringLiteral("delete on server %1").arg(m.Local("a.txt"))));
    EXPECT_EQ(Machine::Tree(m.Local()), local);
    EXPECT_EQ(Machine::Tree(m.Server()), server);
    ASSERT_TRUE(db.open(QIODevice::ReadOnly));
    EXPECT_TRUE(db.readAll() == before);
}

TEST(FoldersyncCli, LitterAndHiddenFilesStayLocal) {
    Machine m;
    Machine::Write(m.Local(QStringLiteral("notes.txt")), "n");
    Machine::Write(m.Local(QStringLiteral("notes.txt~")), "backup");
    Machine::Write(m.Local(QStringLiteral(".notes.txt.swp")), "swap");
    Machine::Write(m.Local(QStringLiteral("Thumbs.db")), "thumbs");
    ASSERT_EQ(m.Sync().status, 0);
    EXPECT_EQ(Machine::Tree(m.Server()), QStringList{"/notes.txt n"});
    // And they are not deleted locally for being absent on the server.
    ASSERT_EQ(m.Sync().status, 0);
    EXPECT_EQ(Machine::Tree(m.Local()).size(), 4);
}

TEST_P(FoldersyncOnEitherServer, SyncIgnorePatternsKeepEntriesOnTheirSide) {
    Machine m(GetParam());
    Machine::Write(m.Local(QStringLiteral(".syncignore")), "# scratch\n*.tmp\nbuild/\n");
    Machine::Write(m.Local(QStringLiteral("a.txt")), "a");
    Machine::Write(m.Local(QStringLiteral("scratch.tmp")), "local scratch");
    Machine::Write(m.Local(QStringLiteral("build/out.o")), "object");
    m.WriteServer(QStringLiteral("sub/server.tmp"), "server scratch");
    ASSERT_EQ(m.Sync().status, 0);
    EXPECT_EQ(Machine::Tree(m.Server()),
              (QStringList{"/a.txt a", "/sub/", "/sub/server.tmp server scratch"}));
    EXPECT_FALSE(QFileInfo::exists(m.Local(QStringLiteral("sub/server.tmp"))));

    // Left out is left alone: deleting an ignored file on one side deletes nothing on the other.
    QFile::remove(m.Local(QStringLiteral("scratch.tmp")));
    Machine::Write(m.Local(QStringLiteral("scratch.tmp")), "again");
    QFile::remove(m.Server(QStringLiteral("sub/server.tmp")));
    m.WriteServer(QStringLiteral("sub/server.tmp"), "again");
    ASSERT_EQ(m.Sync().status, 0);

    // A pattern taken out lets its entries sync from the next run on.
    Machine::Write(m.Local(QStringLiteral(".syncignore")), "build/\n");
    ASSERT_EQ(m.Sync().status, 0);
    EXPECT_EQ(Machine::Tree(m.Server()),
              (QStringList{"/a.txt a", "/scratch.tmp again", "/sub/", "/sub/server.tmp again"}));
    EXPECT_EQ(Machine::Tree(m.Local()),
              (QStringList{"/.syncignore build/\n", "/a.txt a", "/build/", "/build/out.o object",
                           "/scratch.tmp again", "/sub/", "/sub/server.tmp again"}));
}

TEST(FoldersyncCli, AServerThatDoesNotAnswerOrRefusesTheCredentialsChangesNothing) {
    if (!Machine::WebDavUnavailable().isEmpty())
        GTEST_SKIP() << Machine::WebDavUnavailable().toStdString();
    sync::test::ApacheServer::Options options;
    options.user = QStringLiteral("alice");
    options.password = QStringLiteral("s3cret-Pa55");
    sync::test::ApacheServer apache(options);
    QString error;
    ASSERT_TRUE(apache.Start(&error)) << error.toStdString();
    Machine m;
    Machine::Write(m.Local(QStringLiteral("a.txt")), "a");
    QTemporaryDir secrets;
    const QString wrong = secrets.filePath(QStringLiteral("wrong")),
                  right = secrets.filePath(QStringLiteral("right"));
    Machine::Write(wrong, "not-the-password\n");
    Machine::Write(right, options.password.toUtf8() + "\n");
    const QString remote = apache.Url() + QStringLiteral("/Docs");
    const QStringList sync = {QStringLiteral("sync"),
                              m.Local(),
                              remote,
                              QStringLiteral("--user"),
                              QStringLiteral("alice"),
                              QStringLiteral("--password-file")};

    const struct {
        const char* name;
        QStringList args;
        const char* message;
    } refused[] = {
        {"nobody listens", {"sync", m.Local(), "http://127.0.0.1:1/dav/Docs"}, "does not answer"},
        {"wrong password", sync + QStringList{wrong}, "refused the credentials (401)"},
        {"no password", {"sync", m.Local(), remote}, "refused the credentials (401)"},
    };
    for (const auto& row : refused) {
        SCOPED_TRACE(row.name);
        const Outcome run = m(row.args);
        EXPECT_EQ(run.status, 2);
        EXPECT_TRUE(run.err.contains(QLatin1String(row.message))) << run.err.toStdString();
    }
    EXPECT_TRUE(m(QStringList{QStringLiteral("list")}).out.contains(QLatin1String("no folder")));

    const Outcome accepted = m(sync + QStringList{right});
    ASSERT_EQ(accepted.status, 0) << accepted.err.toStdString();
    EXPECT_EQ(Machine::Tree(apache.DocumentRoot() + QStringLiteral("/Docs")),
              QStringList{"/a.txt a"});
    // The password is kept nowhere but in its own file.
    QFile db(m.Database());
    ASSERT_TRUE(db.open(QIODevice::ReadOnly));
    EXPECT_FALSE(db.readAll().contains(options.password.toUtf8()));
    EXPECT_FALSE((accepted.out + accepted.err).contains(options.password));
}

TEST(FoldersyncCli, ADatabaseInUseIsRefusedNamingItsHolder) {
    Machine m;
    ASSERT_EQ(m(QStringList{QStringLiteral("list")}).status, 0);
    const int fd =
        ::open(QFile::encodeName(m.Database() + ".lock").constData(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    const QByteArray pid = QByteArray::number(static_cast<qint64>(::getpid())) + '\n';
    ASSERT_EQ(::write(fd, pid.constData(), pid.size()), pid.size());

    Outcome busy = m.Sync();
    EXPECT_EQ(busy.status, 2);
    EXPECT_TRUE(busy.err.contains(QStringLiteral("in use by process %1").arg(::getpid())))
        << busy.err.toStdString();
    // Readers go alongside.
    EXPECT_EQ(m(QStringList{QStringLiteral("list")}).status, 0);
    ::close(fd);
    EXPECT_EQ(m.Sync().status, 0);
}

TEST_P(FoldersyncOnEitherServer, StoppedInTheMiddleAndRunAgainLosesNothing) {
    Machine m(GetParam());
    QStringList expected;
    for (int i = 0; i < 1500; ++i) {
        const QString below = QStringLiteral("d%1/f%2.txt").arg(i % 15).arg(i);
        Machine::Write(m.Local(below), QByteArray(2048, char('a' + i % 26)));
    }
    const QStringList before = Machine::Tree(m.Local());
    QProcess* process = m.Start(QStringList{QStringLiteral("sync"), m.Local(), m.Remote()});
    // Stopped once the uploads have begun.
    for (int i = 0; i < 2000 && process->state() == QProcess::Running; ++i) {
        if (QFileInfo::exists(m.Server(QStringLiteral("d0")))) break;
        QThread::msleep(5);
    }
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    Outcome stopped = Machine::Finish(process);
    EXPECT_EQ(stopped.status, 1) << stopped.out.toStdString() << stopped.err.toStdString();
    EXPECT_TRUE(stopped.err.contains(QLatin1String("stopped; run again to finish")));
    int uploaded = 0;
    for (QDirIterator it(m.Server(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();
         it.next())
        ++uploaded;
    EXPECT_LT(uploaded, 1500);

    Outcome rerun = m.Sync();
    EXPECT_EQ(rerun.status, 0) << rerun.err.toStdString();
    EXPECT_EQ(Machine::Tree(m.Local()), before);
    EXPECT_EQ(Machine::Tree(m.Server()), before);
    EXPECT_TRUE(m.Sync().out.contains(QLatin1String("in step, nothing to do")));
}

// Waits up to ten seconds for a file to appear.
bool Appears(const QString& path) {
    for (int i = 0; i < 1000; ++i) {
        if (QFileInfo::exists(path)) return true;
        QThread::msleep(10);
    }
    return false;
}

TEST(FoldersyncCli, TheServiceFollowsTheScheduleAndAnswersRequests) {
    Machine m;
    Machine::Write(m.Local(QStringLiteral("a.txt")), "a");
    ASSERT_EQ(m(QStringList{QStringLiteral("add"), m.Local(), m.Server()}).status, 0);
    ASSERT_EQ(
        m(QStringList{QStringLiteral("schedule"), QStringLiteral("periodic"), QStringLiteral("1")})
            .status,
        0);
    QProcess* service = m.Start(QStringList{QStringLiteral("run")});
    EXPECT_TRUE(Appears(m.Server(QStringLiteral("a.txt"))));
    Machine::Write(m.Local(QStringLiteral("b.txt")), "b");
    EXPECT_TRUE(Appears(m.Server(QStringLiteral("b.txt"))));

    // One process syncs a database at a time; it names the running one.
    Outcome busy = m.Sync();
    EXPECT_EQ(busy.status, 2);
    EXPECT_TRUE(busy.err.contains(QString::number(service->processId()))) << busy.err.toStdString();

    // Under a manual schedule only a request syncs.
    Outcome manual = m(QStringList{QStringLiteral("schedule"), QStringLiteral("manual")});
    EXPECT_TRUE(manual.out.contains(QLatin1String("the running service follows it now")));
    QThread::msleep(300);  // lets a cycle that was already due finish
    Machine::Write(m.Local(QStringLiteral("c.txt")), "c");
    QThread::msleep(2500);
    EXPECT_FALSE(QFileInfo::exists(m.Server(QStringLiteral("c.txt"))));
    EXPECT_EQ(m(QStringList{QStringLiteral("now")}).status, 0);
    EXPECT_TRUE(Appears(m.Server(QStringLiteral("c.txt"))));
    // A script's way to ask for a cycle.
    Machine::Write(m.Local(QStringLiteral("d.txt")), "d");
    ::kill(static_cast<pid_t>(service->processId()), SIGUSR1);
    EXPECT_TRUE(Appears(m.Server(QStringLiteral("d.txt"))));

    ::kill(static_cast<pid_t>(service->processId()), SIGTERM);
    Outcome stopped = Machine::Finish(service);
    EXPECT_EQ(stopped.status, 0) << stopped.err.toStdString();
    EXPECT_TRUE(stopped.out.contains(QLatin1String("foldersync: stopped")));
    Outcome now = m(QStringList{QStringLiteral("now")});
    EXPECT_EQ(now.status, 2);
    EXPECT_TRUE(now.err.contains(QLatin1String("no service is running")));
}

INSTANTIATE_TEST_SUITE_P(Servers, FoldersyncOnEitherServer,
                         ::testing::Values(ServerKind::LocalFolder, ServerKind::WebDav),
                         [](const ::testing::TestParamInfo<ServerKind>& info) {
                             return info.param == ServerKind::WebDav ? "WebDav" : "LocalFolder";
                         });

}  // namespace
