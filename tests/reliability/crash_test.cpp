// The real program killed with SIGKILL at random moments of its runs, against the local-folder
// server and against WebDAV, and run again: no file the user wrote may be lost or left torn,
// the database must stay sound, and the next run must finish the work.
//
// Each case is a chain of rounds on one machine. A round is what a user does between two
// syncs (seed a tree, edit, delete, rename...); then the sync is started and killed again and
// again, each run a little further, until the kills are used up or a run finishes on its own;
// then it is run without a kill until it converges. After every kill nothing on either side or
// in the trash may be torn, and the database must pass SQLite's check; after the round every
// version the user wrote must still be somewhere, both sides must be equal, and one more run
// must find nothing to do.
//
// SYNC_RELIABILITY_LONG=1 makes the trees and the number of kills larger;
// SYNC_RELIABILITY_SEED=N replays the trees, the changes and the kill delays of a failed run
// (the moment a kill lands still depends on the machine's speed); SYNC_RELIABILITY_KEEP=1
// leaves a failed case's folders, database and log on the disk.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QMap>
#include <QRandomGenerator>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <random>

#include "KillableSyncMachine.h"
#include "SanitizedBuild.h"
#include "SelfCheckingContent.h"
#include "TreeCensus.h"

namespace {

using sync::test::Census;
using sync::test::CensusSide;
using sync::test::CensusTaker;
using sync::test::ContentReading;
using sync::test::ContentStamp;
using sync::test::KillableSyncMachine;
using sync::test::KilledRun;
using sync::test::ProgramOutcome;
using sync::test::RunPhase;
using sync::test::ServerKind;

// --- Size and seed ------------------------------------------------------------------------

struct Scale {
    int files;       // in the first tree
    int largeFiles;  // of a few MiB, so that kills land in the middle of a transfer
    int firstKills;  // at most, in the round that fills an empty side
    int laterKills;  // at most, in every later round
};

bool LongRun() {
    return qEnvironmentVariableIntValue("SYNC_RELIABILITY_LONG") == 1;
}

Scale CurrentScale() {
    Scale scale = LongRun() ? Scale{6000, 16, 100, 40} : Scale{1500, 6, 30, 15};
    // Under AddressSanitizer a third of the kills on a smaller tree; the other builds try
    // the full number of kill points.
    if (sync::test::kSanitizedBuild && !LongRun()) scale = Scale{600, 3, 10, 5};
    // 0 gives a control run: the same rounds without a kill.
    if (qEnvironmentVariableIsSet("SYNC_RELIABILITY_KILLS"))
        scale.firstKills = scale.laterKills =
            qEnvironmentVariableIntValue("SYNC_RELIABILITY_KILLS");
    return scale;
}

quint64 BaseSeed() {
    static const quint64 seed = [] {
        bool given = false;
        const quint64 value = qEnvironmentVariable("SYNC_RELIABILITY_SEED").toULongLong(&given);
        return given ? value : QRandomGenerator::system()->generate64();
    }();
    return seed;
}

// --- Figures for the report -----------------------------------------------------------------

struct Figures {
    int kills = 0;
    int killsMidTransfer = 0;  // a partial transfer was on the disk when the process died
    int rounds = 0;
    int runsEndedOnTheirOwn = 0;
    int extraRerunsToConverge = 0;
    int versionsChecked = 0;
    int versionsLost = 0;
    int filesDamaged = 0;
    int deletionsUndone = 0;
    int copiesMadeTwice = 0;
    int temporariesLeft = 0;
    QMap<QString, int> killsByPhase;
    QElapsedTimer clock;
};

Figures& Totals() {
    static Figures figures;
    return figures;
}

class FiguresReport : public ::testing::Environment {
public:
    void SetUp() override {
        Totals().clock.start();
        std::printf("crash_test: seed %llu (SYNC_RELIABILITY_SEED replays it), %s run\n",
                    static_cast<unsigned long long>(BaseSeed()), LongRun() ? "long" : "short");
        if (!sync::test::ChangeCounter::Available())
            std::printf("crash_test: no inotify here; every kill comes after a random delay\n");
    }
    void TearDown() override {
        const Figures& f = Totals();
        std::printf(
            "crash_test figures: seed %llu; %d faults injected (SIGKILL), %d kill points in %d "
            "sequences; %d with a partial transfer on the disk; %d runs ended before their "
            "kill; %d extra reruns to converge; %d user versions checked, %d lost, %d files "
            "torn or foreign; %d deleted files back; %d versions kept twice; %d temporary files "
            "left behind; %.1f s\n",
            static_cast<unsigned long long>(BaseSeed()), f.kills, f.kills, f.rounds,
            f.killsMidTransfer, f.runsEndedOnTheirOwn, f.extraRerunsToConverge, f.versionsChecked,
            f.versionsLost, f.filesDamaged, f.deletionsUndone, f.copiesMadeTwice, f.temporariesLeft,
            f.clock.elapsed() / 1000.0);
        std::printf("crash_test kill points by the last phase the log showed:");
        for (auto it = f.killsByPhase.cbegin(); it != f.killsByPhase.cend(); ++it)
            std::printf(" %s %d;", qPrintable(it.key()), it.value());
        std::printf("\n");
        std::fflush(stdout);
    }
};

::testing::Environment* const g_figures = ::testing::AddGlobalTestEnvironment(new FiguresReport);

// --- The user ---------------------------------------------------------------------------

enum class Side { Local, Server };

// One user's files on one machine, written as self-checking versions.
class User {
public:
    User(KillableSyncMachine& machine, quint64 seed) : _m(machine), _rng(seed) {}

    KillableSyncMachine& Machine() { return _m; }
    std::mt19937_64& Rng() { return _rng; }
    int Below(int n) { return n <= 0 ? 0 : int(_rng() % quint64(n)); }
    bool Chance(double p) { return std::uniform_real_distribution<double>(0, 1)(_rng) < p; }

    qint64 SmallOrMedium() {
        return Chance(0.95) ? 40 + Below(4000) : 16 * 1024 + Below(200 * 1024);
    }
    qint64 Large() { return 2 * 1024 * 1024 + Below(3 * 1024 * 1024); }

    QByteArray Fresh(qint64 size) {
        const ContentStamp stamp{QStringLiteral("f%1").arg(++_identities), 1};
        _versions.insert(stamp.identity, 1);
        return sync::test::MakeContent(stamp, size);
    }
    // A new version of the file whose content was read: another length, so that even a
    // change within the second of the last sync shows.
    QByteArray Next(const ContentReading& of) {
        const int version = _versions.value(of.stamp.identity, of.stamp.version) + 1;
        _versions.insert(of.stamp.identity, version);
        return sync::test::MakeContent({of.stamp.identity, version}, SmallOrMedium() + version);
    }

    QString PathOf(Side side, const QString& below) const {
        return side == Side::Local ? _m.Local(below) : _m.Server(below);
    }
    void Put(Side side, const QString& below, const QByteArray& content) {
        const bool written = side == Side::Local
                                 ? KillableSyncMachine::Write(_m.Local(below), content)
                                 : _m.WriteServer(below, content);
        ASSERT_TRUE(written) << below.toStdString();
    }
    void MakeFolder(Side side, const QString& below) {
        if (side == Side::Local)
            QDir().mkpath(_m.Local(below));
        else
            _m.MakeServerFolder(below);
    }
    void Delete(Side side, const QString& below) {
        ASSERT_TRUE(KillableSyncMachine::Remove(PathOf(side, below))) << below.toStdString();
    }
    // A name picked in an earlier round may be taken again by now (an edit that outlived the
    // move brought the old folder back), so the target gets a number until neither side has it.
    void Move(Side side, const QString& from, const QString& wanted) {
        QString to = wanted;
        for (int n = 2; QFileInfo::exists(_m.Local(to)) || QFileInfo::exists(_m.Server(to)); ++n)
            to = wanted + QStringLiteral(" %1").arg(n);
        const bool moved = side == Side::Local
                               ? KillableSyncMachine::Rename(_m.Local(from), _m.Local(to))
                               : _m.RenameServer(from, to);
        ASSERT_TRUE(moved) << from.toStdString() << " -> " << to.toStdString();
    }

    Census Look(Side side) {
        return side == Side::Local ? _census.Take(_m.Local(), CensusSide::Local)
                                   : _census.Take(_m.Server(), CensusSide::Server);
    }
    Census LookInTrash() { return _census.Take(_m.Trash(), CensusSide::Trash); }

private:
    KillableSyncMachine& _m;
    std::mt19937_64 _rng;
    int _identities = 0;
    QHash<QString, int> _versions;
    CensusTaker _census;
};

// --- What the user does between syncs -----------------------------------------------------

QStringList Shuffled(QStringList list, User& u) {
    std::shuffle(list.begin(), list.end(), u.Rng());
    return list;
}

QString Pop(QStringList& pool) {
    return pool.isEmpty() ? QString() : pool.takeLast();
}

// A name somewhere in the tree; now and then one that needs escaping in a URL or is not ASCII.
QString NewName(User& u, int n) {
    switch (u.Below(12)) {
        case 0:
            return QStringLiteral("Ünïcode € %1.txt").arg(n);
        case 1:
            return QStringLiteral("100% #%1?.txt").arg(n);
        case 2:
            return QStringLiteral("with space %1.txt").arg(n);
        default:
            return QStringLiteral("n%1.dat").arg(n, 5, 10, QLatin1Char('0'));
    }
}

QStringList LeafFolders(const Census& c) {
    QStringList leaves;
    for (const QString& folder : c.folders) {
        bool leaf = true;
        for (const QString& other : c.folders)
            if (other.startsWith(folder + QLatin1Char('/'))) leaf = false;
        if (leaf) leaves << folder;
    }
    leaves.sort();
    return leaves;
}

// The files of a census that are not inside one of the folders.
QStringList FilesOutside(const Census& c, const QStringList& folders) {
    QStringList files;
    for (auto it = c.files.cbegin(); it != c.files.cend(); ++it) {
        bool inside = false;
        for (const QString& folder : folders)
            if (it.key().startsWith(folder + QLatin1Char('/'))) inside = true;
        if (!inside) files << it.key();
    }
    return files;
}

void SeedTree(User& u, Side side) {
    const Scale scale = CurrentScale();
    QStringList folders;
    const int tops = std::max(4, scale.files / 125);
    for (int t = 0; t < tops; ++t) {
        const QString top = t % 7 == 3 ? QStringLiteral("Ünï côde %1").arg(t)
                                       : QStringLiteral("t%1").arg(t, 2, 10, QLatin1Char('0'));
        folders << top;
        for (int s = 0; s < 4; ++s) folders << top + QStringLiteral("/s%1").arg(s);
    }
    folders << QStringLiteral("with space/100% #odd?");
    for (int i = 0; i < scale.files; ++i) {
        const QString below = folders[u.Below(folders.size())] + QLatin1Char('/') + NewName(u, i);
        u.Put(side, below, u.Fresh(i < scale.largeFiles ? u.Large() : u.SmallOrMedium()));
    }
    u.MakeFolder(side, QStringLiteral("empty/also empty"));
}

void SeedLocal(User& u) {
    SeedTree(u, Side::Local);
}
void SeedServer(User& u) {
    SeedTree(u, Side::Server);
}

// New files on one side, in folders that exist and in a new tree, one of them large.
void AddFiles(User& u, Side side, const Census& now, int count, const QString& newTree) {
    const QStringList folders = now.folders.values();
    for (int i = 0; i < count; ++i) {
        const QString folder = i % 4 == 0 || folders.isEmpty()
                                   ? newTree + QStringLiteral("/deep %1").arg(i % 3)
                                   : folders[u.Below(folders.size())];
        u.Put(side, folder + QLatin1Char('/') + NewName(u, 50000 + u.Below(40000)),
              u.Fresh(i == 0 ? u.Large() : u.SmallOrMedium()));
    }
}

// What is the same on both sides now: the files and folders a change may pick.
Census InStep(User& u) {
    Census common = u.Look(Side::Local);
    const Census server = u.Look(Side::Server);
    for (auto it = common.files.begin(); it != common.files.end();) {
        const auto other = server.files.constFind(it.key());
        if (other == server.files.cend() || other->stamp.Key() != it->stamp.Key())
            it = common.files.erase(it);
        else
            ++it;
    }
    common.folders &= server.folders;
    return common;
}

void EditsAndConflicts(User& u) {
    const Census now = InStep(u);
    QStringList pool = Shuffled(now.files.keys(), u);
    const int n = pool.size();
    for (int i = 0; i < n * 6 / 100; ++i) {
        const QString f = Pop(pool);
        u.Put(Side::Local, f, u.Next(now.files[f]));
    }
    for (int i = 0; i < n * 6 / 100; ++i) {
        const QString f = Pop(pool);
        u.Put(Side::Server, f, u.Next(now.files[f]));
    }
    // Both sides changed it, each differently: both versions must survive.
    for (int i = 0; i < std::max(3, n * 2 / 100); ++i) {
        const QString f = Pop(pool);
        u.Put(Side::Local, f, u.Next(now.files[f]));
        u.Put(Side::Server, f, u.Next(now.files[f]));
    }
    // Both sides made the same change.
    for (int i = 0; i < std::max(2, n / 200); ++i) {
        const QString f = Pop(pool);
        const QByteArray same = u.Next(now.files[f]);
        u.Put(Side::Local, f, same);
        u.Put(Side::Server, f, same);
    }
    AddFiles(u, Side::Local, now, n * 3 / 100, QStringLiteral("new local %1").arg(u.Below(1000)));
    AddFiles(u, Side::Server, now, n * 3 / 100, QStringLiteral("new server %1").arg(u.Below(1000)));
}

void DeletionsFoldersAndRenames(User& u) {
    const Census now = InStep(u);
    QStringList leaves = Shuffled(LeafFolders(now), u);
    // Folders first, so that no file change below lands in a folder that goes.
    QStringList folderOps;
    for (int i = 0; i < 7 && leaves.size() > 1; ++i) folderOps << Pop(leaves);
    QStringList pool = Shuffled(FilesOutside(now, folderOps), u);
    const int n = pool.size();

    const auto filesIn = [&](const QString& folder) {
        QStringList files;
        for (const QString& f : now.files.keys())
            if (f.startsWith(folder + QLatin1Char('/'))) files << f;
        return files;
    };
    if (folderOps.size() == 7) {
        u.Delete(Side::Local, folderOps[0]);
        u.Delete(Side::Server, folderOps[1]);
        // Deleted on the server while the user worked in it here: the local work stays.
        const QStringList inServerGone = filesIn(folderOps[2]);
        u.Delete(Side::Server, folderOps[2]);
        if (!inServerGone.isEmpty())
            u.Put(Side::Local, inServerGone.first(), u.Next(now.files[inServerGone.first()]));
        u.Put(Side::Local, folderOps[2] + QStringLiteral("/added meanwhile.txt"),
              u.Fresh(u.SmallOrMedium()));
        // And the other way round.
        const QStringList inLocalGone = filesIn(folderOps[3]);
        u.Delete(Side::Local, folderOps[3]);
        if (!inLocalGone.isEmpty())
            u.Put(Side::Server, inLocalGone.first(), u.Next(now.files[inLocalGone.first()]));
        u.Move(Side::Local, folderOps[4], folderOps[4] + QStringLiteral(" renamed"));
        u.Move(Side::Server, folderOps[5], folderOps[5] + QStringLiteral(" moved"));
        // A folder moved into a new tree.
        u.Move(Side::Local, folderOps[6],
               QStringLiteral("moved here %1/").arg(u.Below(1000)) +
                   folderOps[6].mid(folderOps[6].lastIndexOf(QLatin1Char('/')) + 1));
    }
    for (int i = 0; i < n * 3 / 100; ++i) u.Delete(Side::Local, Pop(pool));
    for (int i = 0; i < n * 3 / 100; ++i) u.Delete(Side::Server, Pop(pool));
    // Deleted on one side, changed on the other: the change stays.
    for (int i = 0; i < std::max(2, n / 200); ++i) {
        const QString f = Pop(pool);
        u.Delete(Side::Local, f);
        u.Put(Side::Server, f, u.Next(now.files[f]));
        const QString g = Pop(pool);
        u.Delete(Side::Server, g);
        u.Put(Side::Local, g, u.Next(now.files[g]));
    }
    // Renames: a deletion and an addition of the same content.
    const QStringList folders = now.folders.values();
    for (int i = 0; i < n * 3 / 200; ++i) {
        const QString f = Pop(pool);
        u.Move(Side::Local, f,
               folders[u.Below(folders.size())] + QStringLiteral("/renamed ") +
                   f.mid(f.lastIndexOf(QLatin1Char('/')) + 1));
        const QString g = Pop(pool);
        u.Move(Side::Server, g, g + QStringLiteral(".moved"));
    }
    u.MakeFolder(Side::Local, QStringLiteral("made locally %1/a/b").arg(u.Below(1000)));
    u.MakeFolder(Side::Server, QStringLiteral("made on the server %1/c").arg(u.Below(1000)));
    AddFiles(u, Side::Local, now, std::max(4, n / 100), QStringLiteral("grown locally"));
    AddFiles(u, Side::Server, now, std::max(4, n / 100), QStringLiteral("grown on the server"));
}

// Much to do at once: a large new tree on each side, and a tenth of the files deleted.
void NewTreesAndManyDeletions(User& u) {
    const Census now = InStep(u);
    QStringList pool = Shuffled(now.files.keys(), u);
    const int n = pool.size();
    for (const Side side : {Side::Local, Side::Server}) {
        const QString top = side == Side::Local ? QStringLiteral("bulk local %1")
                                                : QStringLiteral("bulk server %1");
        const QString tree = top.arg(u.Below(1000));
        for (int i = 0; i < n / 4; ++i)
            u.Put(side, tree + QStringLiteral("/d%1/").arg(i % 13) + NewName(u, 100000 + i),
                  u.Fresh(i < 2 ? u.Large() : u.SmallOrMedium()));
        for (int i = 0; i < n / 20; ++i) u.Delete(side, Pop(pool));
    }
}

void Everything(User& u) {
    EditsAndConflicts(u);
    DeletionsFoldersAndRenames(u);
}

// --- A round: kills, then reruns, then the checks -----------------------------------------

struct Round {
    const char* name;
    void (*change)(User&);
};

QString Joined(const QStringList& lines, int at = 20) {
    QStringList shown = lines.mid(0, at);
    if (lines.size() > at) shown << QStringLiteral("... %1 more").arg(lines.size() - at);
    return shown.join(QLatin1String("\n  "));
}

// Everything that must hold whenever the program is not running: nothing torn anywhere, and a
// database that opens sound. Empty when it holds.
QStringList Unsound(User& u) {
    QStringList problems;
    for (const QString& d : u.Look(Side::Local).Damaged()) problems << QStringLiteral("local ") + d;
    for (const QString& d : u.Look(Side::Server).Damaged())
        problems << QStringLiteral("server ") + d;
    for (const QString& d : u.LookInTrash().Damaged()) problems << QStringLiteral("trash ") + d;
    const QString verdict = u.Machine().DatabaseVerdict();
    if (verdict != QLatin1String("ok")) problems << QStringLiteral("database: ") + verdict;
    return problems;
}

// Differences that a further run resolves by design: a conflict copy kept on the server during
// the run, which the next run brings down.
bool OnlyConflictCopiesOnTheServer(const QStringList& differences) {
    for (const QString& d : differences)
        if (!d.startsWith(QLatin1String("only on the server: ")) ||
            !d.contains(QLatin1String("(conflict ")))
            return false;
    return !differences.isEmpty();
}

// The tasks of a dry run's plan: one line each.
int PlannedTasks(const QString& plan) {
    static const char* const verbs[] = {
        "create local folder ",
        "create server folder ",
        "upload ",
        "download ",
        "delete on server ",
        "delete locally ",
        "delete server folder ",
        "delete local folder ",
    };
    int tasks = 0;
    for (const QString& line : plan.split(QLatin1Char('\n')))
        for (const char* verb : verbs)
            if (line.startsWith(QLatin1String(verb))) ++tasks;
    return tasks;
}

class Crash {
public:
    Crash(std::string name, ServerKind kind, quint64 seed)
        : _name(std::move(name)), _m(kind), _u(_m, seed) {}

    KillableSyncMachine& Machine() { return _m; }
    User& TheUser() { return _u; }
    void PauseBeforeThePlanCheck(qint64 ms) { _pauseBeforePlanMs = ms; }
    QStringList TemporariesLeft() {
        QStringList left;
        for (const QString& t : _u.Look(Side::Local).temporaries)
            left << QStringLiteral("local ") + t;
        for (const QString& t : _u.Look(Side::Server).temporaries)
            left << QStringLiteral("server ") + t;
        return left;
    }

    // A round with kills again and again until a run finishes on its own, at most kills.
    void Play(const Round& round, int kills) {
        Play(round, [&] {
            const int killsBefore = Totals().kills;
            _KillAgainAndAgain(round, kills);
            std::printf("crash_test: %s, %s: %d kills\n", _name.c_str(), round.name,
                        Totals().kills - killsBefore);
        });
    }

    // A round whose sync is interrupted as interrupt does it, then run to the end and checked.
    void Play(const Round& round, const std::function<void()>& interrupt) {
        SCOPED_TRACE(round.name);
        Figures& totals = Totals();
        ++totals.rounds;
        const Census localBefore = _u.Look(Side::Local), serverBefore = _u.Look(Side::Server);
        round.change(_u);
        if (::testing::Test::HasFatalFailure()) return;
        const Census localStart = _u.Look(Side::Local), serverStart = _u.Look(Side::Server);
        const QSet<QString> keep =
            sync::test::VersionsToKeep(localBefore, serverBefore, localStart, serverStart);

        interrupt();
        if (::testing::Test::HasFatalFailure()) return;

        // Without kills now: the first run converges, or leaves only the conflict copies it
        // kept on the server for the next.
        ProgramOutcome rerun = _m.Sync();
        EXPECT_EQ(rerun.status, 0) << rerun.out.toStdString() << rerun.err.toStdString();
        Census local = _u.Look(Side::Local), server = _u.Look(Side::Server);
        QStringList differences = sync::test::TreeDifferences(local, server);
        if (OnlyConflictCopiesOnTheServer(differences)) {
            ++totals.extraRerunsToConverge;
            rerun = _m.Sync();
            EXPECT_EQ(rerun.status, 0) << rerun.out.toStdString() << rerun.err.toStdString();
            local = _u.Look(Side::Local);
            server = _u.Look(Side::Server);
            differences = sync::test::TreeDifferences(local, server);
        }
        EXPECT_TRUE(differences.isEmpty())
            << "the sides differ after the rerun:\n  " << Joined(differences).toStdString();

        // Nothing is left to do, by the plan and by a real run; on a server whose tags are weak
        // for the second after a write, also once they are strong.
        if (_pauseBeforePlanMs > 0) QThread::msleep(static_cast<unsigned long>(_pauseBeforePlanMs));
        const ProgramOutcome plan = _m.Sync({QStringLiteral("--dry-run")});
        EXPECT_TRUE(plan.out.contains(QLatin1String("nothing to do")))
            << plan.out.toStdString() << plan.err.toStdString();
        const ProgramOutcome again = _m.Sync();
        EXPECT_EQ(again.status, 0) << again.err.toStdString();
        EXPECT_TRUE(again.out.contains(QLatin1String("in step, nothing to do")))
            << again.out.toStdString();

        // Every version the user wrote is somewhere, whole.
        const Census trash = _u.LookInTrash();
        const QSet<QString> found = local.Keys() + server.Keys() + trash.Keys();
        QStringList lost;
        for (const QString& key : keep)
            if (!found.contains(key)) lost << key;
        lost.sort();
        totals.versionsChecked += keep.size();
        totals.versionsLost += lost.size();
        EXPECT_TRUE(lost.isEmpty())
            << lost.size() << " versions lost:\n  " << Joined(lost).toStdString();
        const QStringList unsound = Unsound(_u);
        totals.filesDamaged += unsound.size();
        EXPECT_TRUE(unsound.isEmpty()) << Joined(unsound).toStdString();
        const QStringList undone =
            sync::test::DeletionsUndone(localBefore, serverBefore, localStart, serverStart, local);
        totals.deletionsUndone += undone.size();
        EXPECT_TRUE(undone.isEmpty()) << undone.size() << " files the user deleted came back:\n  "
                                      << Joined(undone).toStdString();
        const QStringList twice = sync::test::CopiesMadeTwice(localStart, serverStart, local);
        totals.copiesMadeTwice += twice.size();
        EXPECT_TRUE(twice.isEmpty())
            << twice.size() << " versions kept twice:\n  " << Joined(twice).toStdString();
    }

private:
    void _KillAgainAndAgain(const Round& round, int kills) {
        Figures& totals = Totals();
        std::mt19937_64& rng = _u.Rng();
        // The plan tells how many changes the runs have to make; the time a trial run takes
        // (start-up and planning, no transfer) how long a run takes before it makes any.
        QElapsedTimer trial;
        trial.start();
        const ProgramOutcome plan = _m.Sync({QStringLiteral("--dry-run")});
        const qint64 planningMs = std::max<qint64>(20, trial.elapsed());
        int remaining = std::max(1, PlannedTasks(plan.out));
        for (int k = 0; k < kills; ++k) {
            // A quarter of the kills at a random moment of start-up and planning; the others
            // after the n-th change on the disk, n drawn from a half, a sixth or an eighteenth
            // of what is left to do, so that each run gets a little further than the last and
            // the kills spread over the whole work, whatever the machine's load.
            const bool byTime = rng() % 4 == 0 || !sync::test::ChangeCounter::Available();
            // Without a view of the changes, the random moments reach into the work as well.
            const double reach = sync::test::ChangeCounter::Available() ? 1.2 : 3;
            const qint64 delay =
                qint64(std::uniform_real_distribution<double>(0, reach)(rng) * double(planningMs));
            static const int kShares[] = {2, 6, 18};
            const int share = remaining / kShares[rng() % 3];
            const int nth = 1 + int(rng() % quint64(std::max(1, share)));
            const KilledRun run = _m.SyncAndKill([&](const KilledRun& now) {
                return byTime ? now.elapsedMs >= delay : now.changes >= nth;
            });
            if (!run.killed) {
                ++totals.runsEndedOnTheirOwn;
                EXPECT_TRUE(run.outcome.status == 0 || run.outcome.status == 1)
                    << "status " << run.outcome.status << ": " << run.outcome.err.toStdString();
                return;
            }
            ++totals.kills;
            ++totals.killsByPhase[QLatin1String(PhaseName(run.phase))];
            remaining = std::max(1, remaining - run.changes);
            const Census local = _u.Look(Side::Local), server = _u.Look(Side::Server);
            const QSet<QString> partial =
                QSet<QString>(local.temporaries.cbegin(), local.temporaries.cend()) +
                QSet<QString>(server.temporaries.cbegin(), server.temporaries.cend());
            if (!(partial - _temporariesSeen).isEmpty()) ++totals.killsMidTransfer;
            _temporariesSeen = partial;
            const QStringList unsound = Unsound(_u);
            if (!unsound.isEmpty()) {
                totals.filesDamaged += unsound.size();
                ADD_FAILURE() << "after kill " << k + 1 << " of round " << round.name << " in "
                              << PhaseName(run.phase) << " (log: " << run.lastLogLine.toStdString()
                              << "):\n  " << Joined(unsound).toStdString();
                return;
            }
        }
    }

    std::string _name;
    KillableSyncMachine _m;
    User _u;
    qint64 _pauseBeforePlanMs = 0;
    QSet<QString> _temporariesSeen;
};

// --- The cases ------------------------------------------------------------------------------

struct Chain {
    const char* name;
    ServerKind kind;
    QVector<Round> rounds;
};

const QVector<Round> kUploadFirst = {
    {"initial sync into an empty server", SeedLocal},
    {"edits on both sides, conflicts, new files", EditsAndConflicts},
    {"deletions on both sides, folders, renames", DeletionsFoldersAndRenames},
    {"new trees on both sides, many deletions", NewTreesAndManyDeletions},
    {"more edits and conflicts", EditsAndConflicts},
    {"more deletions and renames", DeletionsFoldersAndRenames},
};
const QVector<Round> kDownloadFirst = {
    {"initial sync into an empty local folder", SeedServer},
    {"everything at once", Everything},
    {"new trees on both sides, many deletions", NewTreesAndManyDeletions},
    {"everything again", Everything},
};

void PrintTo(const Chain& chain, std::ostream* os) {
    *os << chain.name;
}

class CrashChain : public ::testing::TestWithParam<Chain> {};

TEST_P(CrashChain, KilledAtRandomMomentsLosesNothingAndConverges) {
    const Chain& chain = GetParam();
    if (chain.kind == ServerKind::WebDav && !KillableSyncMachine::WebDavUnavailable().isEmpty())
        GTEST_SKIP() << KillableSyncMachine::WebDavUnavailable().toStdString();
    const quint64 seed = BaseSeed() ^ qHash(QByteArray(chain.name));
    SCOPED_TRACE(::testing::Message() << "SYNC_RELIABILITY_SEED=" << BaseSeed());
    Crash crash(chain.name, chain.kind, seed);
    ASSERT_TRUE(crash.Machine().Valid());
    for (const Round& round : chain.rounds) {
        crash.Play(round, &round == &chain.rounds.first() ? CurrentScale().firstKills
                                                          : CurrentScale().laterKills);
        if (HasFailure()) break;
    }
    const QStringList left = crash.TemporariesLeft();
    Totals().temporariesLeft += left.size();
    if (!left.isEmpty())
        std::printf("crash_test: %s leaves %d temporary files behind:\n  %s\n", chain.name,
                    int(left.size()), qPrintable(Joined(left, 5)));
    if (HasFailure() && qEnvironmentVariableIsSet("SYNC_RELIABILITY_KEEP"))
        std::printf("crash_test: the machine is kept in %s\n",
                    qPrintable(crash.Machine().KeepForInspection()));
}

const Chain kChains[] = {
    {"UploadFirstLocalFolder", ServerKind::LocalFolder, kUploadFirst},
    {"DownloadFirstLocalFolder", ServerKind::LocalFolder, kDownloadFirst},
    {"UploadFirstWebDav", ServerKind::WebDav, kUploadFirst},
    {"DownloadFirstWebDav", ServerKind::WebDav, kDownloadFirst},
};

INSTANTIATE_TEST_SUITE_P(Chains, CrashChain, ::testing::ValuesIn(kChains),
                         [](const ::testing::TestParamInfo<Chain>& info) {
                             return std::string(info.param.name);
                         });

// --- Kills at chosen moments ---------------------------------------------------------------
//
// Moments that random kills reach only now and then, each killed once, deterministically; and
// a sequence without a kill that the rounds above showed never converging.

void Nothing(User&) {}

void FolderOfFilesHere(User& u) {
    for (int i = 0; i < 40; ++i)
        u.Put(Side::Local, QStringLiteral("a/f%1.txt").arg(i), u.Fresh(100 + i));
}

// With a large file last in the order of uploads, so that a run that moves them is still
// uploading a moment after its first change; and a second folder, so that moving half the
// first is no mass deletion.
void FolderOfFilesOnTheServer(User& u) {
    for (int i = 0; i < 40; ++i) {
        u.Put(Side::Server, QStringLiteral("a/f%1.txt").arg(i), u.Fresh(100 + i));
        u.Put(Side::Server, QStringLiteral("b/f%1.txt").arg(i), u.Fresh(100 + i));
    }
    u.Put(Side::Server, QStringLiteral("a/zz large.bin"), u.Fresh(48 * 1024 * 1024));
}

void EditedHereDeletedThere(User& u) {
    const Census now = u.Look(Side::Local);
    for (int i = 0; i < 5; ++i) {
        const QString f = QStringLiteral("a/f%1.txt").arg(i);
        u.Delete(Side::Server, f);
        u.Put(Side::Local, f, u.Next(now.files[f]));
    }
}

// Half the files of a folder, the large one among them, moved to another folder.
void FilesMovedHere(User& u) {
    for (int i = 0; i < 20; ++i)
        u.Move(Side::Local, QStringLiteral("a/f%1.txt").arg(i),
               QStringLiteral("moved/f%1.txt").arg(i));
    u.Move(Side::Local, QStringLiteral("a/zz large.bin"), QStringLiteral("moved/zz large.bin"));
}

// Large enough that its upload is still under way a moment after the copy was kept.
void LargeFileHere(User& u) {
    u.Put(Side::Local, QStringLiteral("big.bin"), u.Fresh(48 * 1024 * 1024));
}

void LargeFileChangedOnBothSides(User& u) {
    const ContentReading was = u.Look(Side::Local).files[QStringLiteral("big.bin")];
    u.Put(Side::Local, QStringLiteral("big.bin"),
          sync::test::MakeContent({was.stamp.identity, 10}, 48 * 1024 * 1024 + 10));
    u.Put(Side::Server, QStringLiteral("big.bin"),
          sync::test::MakeContent({was.stamp.identity, 11}, 48 * 1024 * 1024 + 11));
}

struct Moment {
    const char* name;
    ServerKind kind;
    void (*seed)(User&);  // synced without a kill first
    void (*change)(User&);
    int afterChanges;    // the kill comes after this many changes on the disk (0: no kill)
    const char* marker;  // or once a log line holds this (null: no marker)
};

void PrintTo(const Moment& moment, std::ostream* os) {
    *os << moment.name;
}

class CrashAtAMoment : public ::testing::TestWithParam<Moment> {};

TEST_P(CrashAtAMoment, LosesNothingAndConverges) {
    const Moment& m = GetParam();
    if (m.kind == ServerKind::WebDav && !KillableSyncMachine::WebDavUnavailable().isEmpty())
        GTEST_SKIP() << KillableSyncMachine::WebDavUnavailable().toStdString();
    Crash crash(m.name, m.kind, BaseSeed() ^ qHash(QByteArray(m.name)));
    ASSERT_TRUE(crash.Machine().Valid());
    crash.Play({"seed", m.seed}, [] {});
    ASSERT_FALSE(HasFailure());
    // Apache's tags are weak for the second after a write: the plan is checked after it.
    if (m.kind == ServerKind::WebDav) crash.PauseBeforeThePlanCheck(1100);
    crash.Play({m.name, m.change}, [&] {
        if (m.afterChanges == 0 && !m.marker) return;
        const QString marker = m.marker ? QString::fromUtf8(m.marker) : QString();
        const KilledRun run = crash.Machine().SyncAndKill(
            [&](const KilledRun& now) {
                return marker.isEmpty() ? now.changes >= m.afterChanges : now.sawMarker;
            },
            marker);
        ASSERT_TRUE(run.killed) << "the run ended before the moment (" << run.changes
                                << " changes, " << run.elapsedMs << " ms, status "
                                << run.outcome.status << "): " << run.outcome.err.toStdString()
                                << run.outcome.out.toStdString();
        ++Totals().kills;
        ++Totals().killsByPhase[QLatin1String(PhaseName(run.phase))];
    });
}

const Moment kMoments[] = {
    {"EditedHereDeletedOnTheServerLocalFolder", ServerKind::LocalFolder, FolderOfFilesHere,
     EditedHereDeletedThere, 0, nullptr},
    {"EditedHereDeletedOnTheServerWebDav", ServerKind::WebDav, FolderOfFilesHere,
     EditedHereDeletedThere, 0, nullptr},
    // The records of the first uploads, stored while the server marked their tags weak, must
    // read the same to a listing made a second later.
    {"UploadsCutOffAndRunAgainWithinTheSecondWebDav", ServerKind::WebDav, Nothing,
     FolderOfFilesHere, 10, nullptr},
    // Every record of the plan is marked as being synchronised before the first upload; a
    // record still naming its download would read as a download cut off, and the files the
    // user moved away would come back.
    {"FilesMovedHereCutOffAtTheFirstUploadLocalFolder", ServerKind::LocalFolder,
     FolderOfFilesOnTheServer, FilesMovedHere, 1, nullptr},
    {"FilesMovedHereCutOffAtTheFirstUploadWebDav", ServerKind::WebDav, FolderOfFilesOnTheServer,
     FilesMovedHere, 1, nullptr},
    // The server's version is kept under a conflict name before the upload replaces it; the
    // next run must not keep it a second time.
    {"ChangedOnBothSidesCutOffAfterTheCopyLocalFolder", ServerKind::LocalFolder, LargeFileHere,
     LargeFileChangedOnBothSides, 1, nullptr},
    {"ChangedOnBothSidesCutOffAfterTheCopyWebDav", ServerKind::WebDav, LargeFileHere,
     LargeFileChangedOnBothSides, 0, "Server version of /Docs/big.bin kept as"},
};

INSTANTIATE_TEST_SUITE_P(Moments, CrashAtAMoment, ::testing::ValuesIn(kMoments),
                         [](const ::testing::TestParamInfo<Moment>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
