// Hostile names and a hostile disk against the real program: names that are not UTF-8, that
// differ only in letter case, that reach the length limits; links in loops and out of the root;
// folders and files that cannot be read; files written while they are uploaded; read-only and
// full disks. Whatever happens, a run ends (in step, or with errors counted), no file is lost or
// torn on either side, and once the condition is gone the next run converges.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QSet>
#include <QThread>
#include <atomic>
#include <cctype>
#include <climits>
#include <thread>

#include "HostileWorld.h"
#include "SyncConsts.h"

namespace hostile {
namespace {

[[maybe_unused]] const ::testing::Environment* const kFigures =
    ::testing::AddGlobalTestEnvironment(new FiguresPrinter);

QByteArray FolderLine(const QByteArray& path) {
    return path + '/';
}

// Every byte outside printable ASCII replaced: the name a user gives a file to fix it.
QByteArray Sanitized(const QByteArray& name) {
    QByteArray out = name;
    for (char& c : out)
        if (static_cast<unsigned char>(c) >= 0x80) c = '_';
    return out;
}

enum class Side { Local, Server };

const char* NameOf(Side side) {
    return side == Side::Local ? "Local" : "Server";
}

QByteArray On(Machine& m, Side side, const QByteArray& below = {}) {
    return side == Side::Local ? m.Local(below) : m.Server(below);
}

bool PutOn(Machine& m, Side side, const QByteArray& below, const QByteArray& content) {
    return side == Side::Local ? Put(m.Local(below), content) : m.PutServer(below, content);
}

// Readable parameter names in failures.
void PrintTo(Side side, std::ostream* os) {
    *os << NameOf(side);
}

Side Other(Side side) {
    return side == Side::Local ? Side::Server : Side::Local;
}

class OnEitherServer : public ::testing::TestWithParam<ServerKind> {
protected:
    void SetUp() override {
        if (GetParam() == ServerKind::WebDav && !Machine::WebDavUnavailable().isEmpty()) {
            ++Counted().skipped;
            GTEST_SKIP() << Machine::WebDavUnavailable().toStdString();
        }
    }
};

class OnEitherServerAndSide : public ::testing::TestWithParam<std::tuple<ServerKind, Side>> {
protected:
    void SetUp() override {
        if (std::get<0>(GetParam()) == ServerKind::WebDav &&
            !Machine::WebDavUnavailable().isEmpty()) {
            ++Counted().skipped;
            GTEST_SKIP() << Machine::WebDavUnavailable().toStdString();
        }
    }
};

// --- Names that are not UTF-8 ---------------------------------------------------------------

struct UndecodableRow {
    const char* what;
    QByteArray hostile;    // below the row's folder
    QByteArray validTwin;  // a valid name that decodes to what a lossy decoding gives
};

const UndecodableRow kUndecodable[] = {
    {"latin-1 byte", "caf\xe9.txt", {}},
    {"stray continuation byte", "a\x80z.txt", {}},
    {"overlong slash", "x\xc0\xaf.txt", {}},
    {"encoded surrogate", "s\xed\xa0\x80.txt", {}},
    {"above U+10FFFF", "h\xf4\x90\x80\x80.txt", {}},
    {"sequence cut at the end", "t.txt\xe2\x82", {}},
    {"folder", "dir\xfe/in.txt", {}},
    {"beside its lossy twin", "w\xff.txt", "w\xef\xbf\xbd.txt"},
};

TEST_P(OnEitherServerAndSide, NamesThatAreNotUtf8AreLeftAloneAndNeverDeleted) {
    const ServerKind kind = std::get<0>(GetParam());
    const Side side = std::get<1>(GetParam());
    Machine m(kind);
    Tree hostile;  // lines of the entries that cannot be synced
    Tree valid;    // what both sides hold once in step
    for (int i = 0; i < int(std::size(kUndecodable)); ++i) {
        const UndecodableRow& row = kUndecodable[i];
        const QByteArray folder = "row" + QByteArray::number(i);
        ASSERT_TRUE(PutOn(m, side, folder + '/' + row.hostile, "hostile " + QByteArray(row.what)));
        ASSERT_TRUE(PutOn(m, side, folder + "/good.txt", "good " + QByteArray::number(i)));
        valid << FolderLine(folder)
              << FileLine(folder + "/good.txt", "good " + QByteArray::number(i));
        if (!row.validTwin.isEmpty()) {
            ASSERT_TRUE(PutOn(m, side, folder + '/' + row.validTwin, "twin"));
            valid << FileLine(folder + '/' + row.validTwin, "twin");
        }
        ++Counted().cases;
        ++Counted().conditions;
    }
    for (const QByteArray& line : TreeOf(On(m, side)))
        if (!valid.contains(line)) hostile << line;
    ASSERT_TRUE(PutOn(m, Other(side), "other.txt", "other"));
    valid << FileLine("other.txt", "other");

    // Two runs: the second must find the first's outcome and change nothing.
    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        const Outcome outcome = m.Sync();
        EXPECT_TRUE(Finished(outcome)) << outcome.Shown();
        // Each one is reported (a folder's content with it, or not at all).
        EXPECT_GE((outcome.out + outcome.err).count(QLatin1String("UTF-8")),
                  int(std::size(kUndecodable)))
            << outcome.Shown();
        EXPECT_TRUE(TreeIs(TreeOf(On(m, side)), valid + hostile));
        // Nothing mangled into another name, nothing doubled.
        EXPECT_TRUE(TreeIs(TreeOf(On(m, Other(side))), valid));
    }

    // The other side deletes every row's folder: what it never saw stays where it is.
    for (int i = 0; i < int(std::size(kUndecodable)); ++i)
        RemoveTree(On(m, Other(side), "row" + QByteArray::number(i)));
    m.HandOver();
    const Outcome deleted = m.SyncUntilSettled();
    EXPECT_TRUE(Finished(deleted)) << deleted.Shown();
    EXPECT_TRUE(TreeHolds(TreeOf(On(m, side)), hostile));

    // Renamed to valid names, they sync like any file. Folders come before what they hold.
    Tree renamed;
    for (const QByteArray& line : hostile) {
        const QByteArray path = PathOf(line);
        const int slash = path.lastIndexOf('/');
        const QByteArray now = Sanitized(path.left(slash)) + path.mid(slash);
        ASSERT_EQ(::rename(On(m, side, now).constData(), On(m, side, Sanitized(path)).constData()),
                  0)
            << Shown(now);
        if (!line.endsWith('/'))
            renamed << FileLine(Sanitized(path), line.mid(line.indexOf('\t') + 1));
    }
    m.HandOver();
    const Outcome fixed = m.SyncUntilSettled();
    EXPECT_EQ(fixed.status, kInStep) << fixed.Shown();
    const Tree local = TreeOf(m.Local());
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), local));
    EXPECT_TRUE(TreeHolds(local, renamed));
}

// --- Names that differ only in letter case --------------------------------------------------

struct CaseRow {
    const char* what;
    QList<QPair<QByteArray, QByteArray>> local;   // path, content
    QList<QPair<QByteArray, QByteArray>> server;  // path, content
    // Renames that end the clash: from, to, on which side.
    QList<QPair<QByteArray, QByteArray>> localRenames;
    QList<QPair<QByteArray, QByteArray>> serverRenames;
};

const QList<CaseRow>& CaseRows() {
    static const QList<CaseRow> rows = {
        {"two local files",
         {{"File.txt", "L1"}, {"file.txt", "L2"}},
         {},
         {{"file.txt", "f2.txt"}},
         {}},
        {"two server files", {}, {{"A.txt", "S1"}, {"a.txt", "S2"}}, {}, {{"a.txt", "a2.txt"}}},
        {"two local folders",
         {{"Sub/1.txt", "one"}, {"sub/2.txt", "two"}},
         {},
         {{"sub", "sub2"}},
         {}},
        {"two server folders",
         {},
         {{"Set/1.txt", "s1"}, {"set/2.txt", "s2"}},
         {},
         {{"set", "set2"}}},
        {"a local and a server file",
         {{"X.txt", "LX"}},
         {{"x.txt", "SX"}},
         {{"X.txt", "X2.txt"}},
         {}},
        // The same name, the same case: the degenerate clash, and the commonest.
        {"the same name added on both sides",
         {{"same.txt", "mine"}},
         {{"same.txt", "theirs"}},
         {},
         {}},
    };
    return rows;
}

// Folders whose names differ only in case across the sides. The engine takes them for one
// folder, the disks for two; records written while they clash keep the letter case of one
// side, and renaming either folder afterwards leaves the records naming a folder that is gone.
const QList<CaseRow>& CrossSideFolderRows() {
    static const QList<CaseRow> rows = {
        {"renamed apart", {{"Dir/l.txt", "ld"}}, {{"dir/s.txt", "sd"}}, {{"Dir", "Dir2"}}, {}},
        {"renamed to agree", {{"Dir/l.txt", "ld"}}, {{"dir/s.txt", "sd"}}, {{"Dir", "dir"}}, {}},
    };
    return rows;
}

// Every content a side was given is on that side, under some name.
::testing::AssertionResult HoldsContents(const Tree& tree, const QByteArray& folder,
                                         const QList<QByteArray>& contents) {
    QList<QByteArray> missing;
    for (const QByteArray& content : contents) {
        bool found = false;
        for (const QByteArray& line : Below(tree, folder))
            found = found || line.endsWith('\t' + ContentLine(content));
        if (!found) missing << content;
    }
    if (missing.isEmpty()) return ::testing::AssertionSuccess();
    Counted().lost += missing.size();
    auto failure = ::testing::AssertionFailure() << "lost:";
    for (const QByteArray& content : missing) failure << " " << Shown(content);
    return failure << "\n  holds:" << ShownTree(Below(tree, folder));
}

void ClashThenRenameApart(ServerKind kind, const QList<CaseRow>& rows) {
    Machine m(kind);
    const auto folderOf = [](int i) { return "case" + QByteArray::number(i); };
    for (int i = 0; i < rows.size(); ++i) {
        ASSERT_TRUE(MakeFolders(m.Local(folderOf(i))));
        ASSERT_TRUE(MakeFolders(m.Server(folderOf(i))));
        for (const auto& file : rows[i].local)
            ASSERT_TRUE(Put(m.Local(folderOf(i) + '/' + file.first), file.second));
        for (const auto& file : rows[i].server)
            ASSERT_TRUE(m.PutServer(folderOf(i) + '/' + file.first, file.second));
        ++Counted().cases;
        ++Counted().conditions;
    }
    m.HandOver();
    const auto contents = [](const QList<QPair<QByteArray, QByteArray>>& files) {
        QList<QByteArray> out;
        for (const auto& file : files) out << file.second;
        return out;
    };

    const Outcome clashing = m.SyncUntilSettled(3);
    EXPECT_TRUE(Finished(clashing)) << clashing.Shown();
    const Tree local = TreeOf(m.Local()), server = TreeOf(m.Server());
    for (int i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(rows[i].what);
        // Each side keeps what it had, whatever the other side did.
        EXPECT_TRUE(HoldsContents(local, folderOf(i), contents(rows[i].local)));
        EXPECT_TRUE(HoldsContents(server, folderOf(i), contents(rows[i].server)));
    }
    // And a further run neither moves nor loses anything.
    const Outcome again = m.Sync();
    EXPECT_TRUE(Finished(again)) << again.Shown();
    EXPECT_TRUE(TreeIs(TreeOf(m.Local()), local));
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), server));

    // Renamed apart, everything syncs, and both sides hold every content.
    for (int i = 0; i < rows.size(); ++i) {
        for (const auto& rename : rows[i].localRenames)
            ASSERT_EQ(::rename(m.Local(folderOf(i) + '/' + rename.first).constData(),
                               m.Local(folderOf(i) + '/' + rename.second).constData()),
                      0);
        for (const auto& rename : rows[i].serverRenames)
            ASSERT_EQ(::rename(m.Server(folderOf(i) + '/' + rename.first).constData(),
                               m.Server(folderOf(i) + '/' + rename.second).constData()),
                      0);
    }
    m.HandOver();
    const Outcome renamed = m.SyncUntilSettled();
    EXPECT_EQ(renamed.status, kInStep) << renamed.Shown();
    const Tree after = TreeOf(m.Local());
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), after));
    for (int i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(rows[i].what);
        EXPECT_TRUE(HoldsContents(after, folderOf(i), contents(rows[i].local + rows[i].server)));
    }
}

TEST_P(OnEitherServer, NamesThatDifferOnlyInCaseLoseNothingAndConvergeOnceRenamed) {
    ClashThenRenameApart(GetParam(), CaseRows());
}

// Does not pass yet: see CrossSideFolderRows.
TEST_P(OnEitherServer, DISABLED_FoldersThatDifferOnlyInCaseAcrossSidesConvergeOnceRenamed) {
    ClashThenRenameApart(GetParam(), CrossSideFolderRows());
}

// --- Names and paths at the length limits ---------------------------------------------------

QByteArray Repeated(const QByteArray& part, int times) {
    QByteArray out;
    for (int i = 0; i < times; ++i) out += part;
    return out;
}

struct LongNameRow {
    const char* what;
    Side side;
    QByteArray name;
};

const QList<LongNameRow>& LongNameRows() {
    static const QList<LongNameRow> rows = {
        {"255 ASCII bytes, local", Side::Local, Repeated("l", 251) + ".txt"},
        {"255 ASCII bytes, server", Side::Server, Repeated("s", 251) + ".txt"},
        {"85 three-byte characters, local", Side::Local, Repeated("\xe2\x82\xac", 85)},
        {"63 four-byte characters, server", Side::Server, Repeated("\xf0\x9f\x98\x80", 63) + ".md"},
    };
    return rows;
}

TEST_P(OnEitherServer, NamesOfTheLongestLengthSyncBothWaysAndKeepBothVersionsOfAConflict) {
    Machine m(GetParam());
    const QList<LongNameRow>& rows = LongNameRows();
    Tree expected;
    for (int i = 0; i < rows.size(); ++i) {
        const QByteArray path = "long" + QByteArray::number(i) + '/' + rows[i].name;
        ASSERT_TRUE(PutOn(m, rows[i].side, path, "base " + QByteArray::number(i))) << rows[i].what;
        expected << FolderLine("long" + QByteArray::number(i))
                 << FileLine(path, "base " + QByteArray::number(i));
        ++Counted().cases;
        ++Counted().conditions;
    }
    const Outcome first = m.Sync();
    EXPECT_EQ(first.status, kInStep) << first.Shown();
    EXPECT_TRUE(TreeIs(TreeOf(m.Local()), expected));
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), expected));

    // Both sides change every file: a conflict copy needs a name longer than the longest.
    QThread::msleep(1100);  // a new second: the local edit shows in the time stamp
    for (int i = 0; i < rows.size(); ++i) {
        const QByteArray path = "long" + QByteArray::number(i) + '/' + rows[i].name;
        ASSERT_TRUE(Put(m.Local(path), "mine, longer " + QByteArray::number(i)));
        ASSERT_TRUE(m.PutServer(path, "theirs " + QByteArray::number(i)));
    }
    const Outcome conflict = m.SyncUntilSettled();
    EXPECT_EQ(conflict.status, kInStep) << conflict.Shown();
    const Tree local = TreeOf(m.Local());
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), local));
    for (int i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(rows[i].what);
        const QByteArray folder = "long" + QByteArray::number(i);
        EXPECT_TRUE(HoldsContents(
            local, folder,
            {"mine, longer " + QByteArray::number(i), "theirs " + QByteArray::number(i)}));
        // The copy's name is a name this system can hold: at most 255 bytes.
        for (const QByteArray& line : Below(local, folder))
            EXPECT_LE(PathOf(line).size() - folder.size() - 1, NAME_MAX) << Shown(line);
    }

    // Deleted on the server, they go to the local trash, names too long for the trash's own
    // bookkeeping included.
    Tree deleted;
    for (const QByteArray& line : local) {
        if (line.endsWith('/')) continue;
        deleted << line;
        ASSERT_EQ(::unlink(m.Server(PathOf(line)).constData()), 0) << Shown(line);
    }
    const Outcome trashed = m.SyncUntilSettled();
    EXPECT_EQ(trashed.status, kInStep) << trashed.Shown();
    QList<QByteArray> contents;
    for (const QByteArray& line : deleted) contents << line.mid(line.indexOf('\t') + 1);
    for (const QByteArray& line : TreeOf(m.Local())) EXPECT_TRUE(line.endsWith('/')) << Shown(line);
    const Tree trash = TreeOf(m.Trash());
    for (const QByteArray& line : deleted) {
        bool found = false;
        for (const QByteArray& kept : trash)
            found = found || kept.endsWith('\t' + line.mid(line.indexOf('\t') + 1));
        EXPECT_TRUE(found) << Shown(line);
        if (!found) ++Counted().lost;
    }
}

// Makes folder/name/name/.../file below an open folder without ever naming the whole path.
bool MakeDeep(const QByteArray& folder, const QByteArray& name, int depth, const QByteArray& file,
              const QByteArray& content) {
    int fd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < depth && fd >= 0; ++i) {
        ::mkdirat(fd, name.constData(), 0755);
        const int child = ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = child;
    }
    if (fd < 0) return false;
    const int out = ::openat(fd, file.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::close(fd);
    if (out < 0) return false;
    const bool written =
        ::write(out, content.constData(), size_t(content.size())) == content.size();
    ::close(out);
    return written;
}

struct DeepRow {
    const char* what;
    Side side;
    QByteArray component;  // repeated folder name
    int depth;
    // Instead: ASCII folders and a file whose local path (the one it has, or would have when
    // synced) is this many characters long, relative to the engine's limit for a file path.
    int fromFileLimit = 0;
    bool exact = false;
};

// Paths the system cannot take whole (over PATH_MAX bytes, while the engine, which counts
// characters, finds them short enough), paths the engine itself finds too long, and paths right
// at the engine's limit.
const QList<DeepRow>& DeepRows() {
    static const QList<DeepRow> rows = {
        {"multi-byte path over PATH_MAX bytes, local", Side::Local, Repeated("\xe2\x82\xac", 80),
         18},
        {"ASCII path over the engine's limit, local", Side::Local, Repeated("d", 250), 17},
        {"multi-byte path over PATH_MAX bytes, server", Side::Server, Repeated("\xe2\x82\xac", 80),
         18},
        {"ASCII path over the engine's limit, server", Side::Server, Repeated("d", 250), 17},
        {"local file path one short of the limit", Side::Local, {}, 0, -1, true},
        {"local file path at the limit", Side::Local, {}, 0, 0, true},
        {"server file path one short of the limit", Side::Server, {}, 0, -1, true},
        {"server file path at the limit", Side::Server, {}, 0, 0, true},
    };
    return rows;
}

// ASCII folders below folder, the deepest of them one character short of the engine's limit
// for a folder, and in it a file whose path is total characters long; paths counted from a
// folder localSize characters long (the local one).
bool MakeToLength(const QByteArray& folder, int localSize, int total) {
    const int parent = sync::core::consts::LOCAL_FOLDER_MAX_PATH - 1;
    int remaining = parent - localSize;
    int fd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    while (remaining > 0 && fd >= 0) {
        const int part = remaining > 250 ? 200 : remaining - 1;
        remaining -= part + 1;
        const QByteArray name(part, 'd');
        ::mkdirat(fd, name.constData(), 0755);
        const int child = ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = child;
    }
    if (fd < 0 || remaining != 0) return false;
    const QByteArray file(total - parent - 1, 'f');
    const int out = ::openat(fd, file.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::close(fd);
    if (out < 0) return false;
    const bool written = ::write(out, "at limit", 8) == 8;
    ::close(out);
    return written;
}

TEST(HostilePaths, PathsTooLongForTheSystemOrTheEngineNeverStopTheRestOfTheFolder) {
    Machine m;
    ASSERT_TRUE(Put(m.Local("a.txt"), "a"));
    ASSERT_TRUE(Put(m.Server("b.txt"), "b"));
    const QList<DeepRow>& rows = DeepRows();
    QList<Tree> made;  // each row's entries on its side
    for (int i = 0; i < rows.size(); ++i) {
        const DeepRow& row = rows[i];
        const QByteArray folder = "deep" + QByteArray::number(i);
        ASSERT_TRUE(MakeFolders(On(m, row.side, folder)));
        if (row.exact) {
            ASSERT_TRUE(MakeToLength(On(m, row.side, folder), m.Local(folder).size(),
                                     sync::core::consts::LOCAL_FILE_MAX_PATH + row.fromFileLimit))
                << "the test's folder is too deep for " << row.what;
        } else {
            ASSERT_TRUE(
                MakeDeep(On(m, row.side, folder), row.component, row.depth, "f.txt", "deep"));
        }
        made << Below(TreeOf(On(m, row.side)), folder);
        ++Counted().cases;
        ++Counted().conditions;
    }

    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        const Outcome outcome = m.Sync();
        EXPECT_TRUE(Finished(outcome)) << outcome.Shown();
        // The rest of the folder syncs.
        EXPECT_TRUE(TreeHolds(TreeOf(m.Server()), {FileLine("a.txt", "a")}));
        EXPECT_TRUE(TreeHolds(TreeOf(m.Local()), {FileLine("b.txt", "b")}));
        // And the deep entries stay as they were.
        for (int i = 0; i < rows.size(); ++i)
            EXPECT_TRUE(TreeHolds(TreeOf(On(m, rows[i].side)), made[i])) << rows[i].what;
    }
    // Gone, the folder is in step again.
    for (int i = 0; i < rows.size(); ++i)
        RemoveTree(On(m, rows[i].side, "deep" + QByteArray::number(i)));
    const Outcome clean = m.SyncUntilSettled();
    EXPECT_EQ(clean.status, kInStep) << clean.Shown();
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), TreeOf(m.Local())));
}

// --- Links ----------------------------------------------------------------------------------

struct LinkRow {
    const char* what;
    QByteArray name;
    // The target; "@outside" stands for a folder outside the root.
    QByteArray target;
};

const LinkRow kLinks[] = {
    {"a loop to the parent folder", "up", ".."},
    {"a loop to the root", "root", "@root"},
    {"a link to itself", "self", "self"},
    {"a dangling link", "dangling", "/nonexistent/nowhere"},
    {"a file outside the root", "outfile", "@outside/o.txt"},
    {"a folder outside the root", "outdir", "@outside"},
    {"a folder inside the root", "sibling", "../real"},
};

class Links : public ::testing::TestWithParam<Side> {};

TEST_P(Links, AreNeverFollowedSyncedOrDeletedOnEitherSide) {
    const Side side = GetParam();
    Machine m;
    const QByteArray outside = m.Top() + "/outside";
    ASSERT_TRUE(Put(outside + "/o.txt", "outside"));
    ASSERT_TRUE(Put(outside + "/inner/i.txt", "inner"));
    const Tree outsideBefore = TreeOf(outside);
    ASSERT_TRUE(PutOn(m, side, "real/r.txt", "real"));
    ASSERT_TRUE(PutOn(m, side, "links/good.txt", "good"));
    Tree links;
    for (const LinkRow& row : kLinks) {
        QByteArray target = row.target;
        target.replace("@outside", outside);
        target.replace("@root", On(m, side));
        ASSERT_EQ(::symlink(target.constData(), On(m, side, "links/" + row.name).constData()), 0);
        links << "links/" + row.name + "\t-> " + target;
        ++Counted().cases;
        ++Counted().conditions;
    }
    const Tree valid = {FolderLine("links"), FileLine("links/good.txt", "good"), FolderLine("real"),
                        FileLine("real/r.txt", "real")};

    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        const Outcome outcome = m.Sync();
        EXPECT_EQ(outcome.status, kInStep) << outcome.Shown();
        EXPECT_TRUE(TreeIs(TreeOf(On(m, side)), valid + links));
        EXPECT_TRUE(TreeIs(TreeOf(On(m, Other(side))), valid));
        EXPECT_TRUE(TreeIs(TreeOf(outside), outsideBefore));
    }

    // The other side deletes the folder that holds the links: the links stay, and nothing they
    // lead to is touched.
    RemoveTree(On(m, Other(side), "links"));
    const Outcome deleted = m.SyncUntilSettled();
    EXPECT_TRUE(Finished(deleted)) << deleted.Shown();
    EXPECT_TRUE(TreeHolds(TreeOf(On(m, side)), links));
    EXPECT_TRUE(TreeIs(TreeOf(outside), outsideBefore));
    EXPECT_TRUE(TreeHolds(TreeOf(On(m, side)), {FileLine("real/r.txt", "real")}));

    // Without the links, the sides are in step.
    RemoveTree(On(m, side, "links"));
    const Outcome clean = m.SyncUntilSettled();
    EXPECT_EQ(clean.status, kInStep) << clean.Shown();
    EXPECT_TRUE(TreeIs(TreeOf(m.Server()), TreeOf(m.Local())));
    EXPECT_TRUE(TreeIs(TreeOf(outside), outsideBefore));
}

// --- What cannot be read --------------------------------------------------------------------

struct UnreadableRow {
    const char* what;
    Side side;
    QByteArray path;  // made unreadable after the first sync
    mode_t mode;
    bool changedHere;   // its side changed closed/a.txt first
    bool changedThere;  // the other side changed closed/a.txt meanwhile
    bool errors;        // something had to be read: the run counts an error
};

const UnreadableRow kUnreadable[] = {
    {"local folder, no permissions", Side::Local, "closed", 0000, false, false, true},
    {"local folder, not searchable", Side::Local, "closed", 0600, false, false, true},
    {"local folder, not listable", Side::Local, "closed", 0300, false, false, true},
    {"local folder, changed on the server", Side::Local, "closed", 0000, false, true, true},
    {"local file, unchanged", Side::Local, "closed/a.txt", 0000, false, false, false},
    {"local file, changed locally", Side::Local, "closed/a.txt", 0000, true, false, true},
    {"local file, changed on the server", Side::Local, "closed/a.txt", 0000, false, true, true},
    {"server folder", Side::Server, "closed", 0000, false, false, true},
    {"server folder, not searchable", Side::Server, "closed", 0600, false, false, true},
    {"server folder, changed locally", Side::Server, "closed", 0000, false, true, true},
    {"server file", Side::Server, "closed/a.txt", 0000, false, false, true},
    {"server file, changed locally", Side::Server, "closed/a.txt", 0000, false, true, true},
    {"server file, write-only, changed on both sides", Side::Server, "closed/a.txt", 0200, true,
     true, true},
};

TEST(Unreadable, EntriesThatCannotBeReadAreNeverTakenForDeletedOnes) {
    if (IsRoot()) {
        Counted().skipped += int(std::size(kUnreadable));
        GTEST_SKIP() << "root reads everything: these cases run again unprivileged";
    }
    for (const UnreadableRow& row : kUnreadable) {
        SCOPED_TRACE(row.what);
        ++Counted().cases;
        ++Counted().conditions;
        Machine m;
        ASSERT_TRUE(Put(m.Local("closed/a.txt"), "a"));
        ASSERT_TRUE(Put(m.Local("closed/deeper/b.txt"), "b"));
        ASSERT_TRUE(Put(m.Local("open.txt"), "open"));
        ASSERT_EQ(m.Sync().status, kInStep);
        const Tree untouched = Without(TreeOf(m.Local()), {FileLine("closed/a.txt", "a")});
        // A change made within the second of the sync would not show in its time stamp.
        if (row.changedHere || row.changedThere) QThread::msleep(1100);
        QList<QByteArray> contents;  // of closed/a.txt, on either side, to be kept
        if (row.changedHere) {
            ASSERT_TRUE(PutOn(m, row.side, "closed/a.txt", "changed on the closed side"));
            contents << "changed on the closed side";
        }
        if (row.changedThere) {
            ASSERT_TRUE(PutOn(m, Other(row.side), "closed/a.txt", "changed on the open side"));
            contents << "changed on the open side";
        }
        if (contents.isEmpty()) contents << "a";
        ASSERT_TRUE(Put(m.Local("new.txt"), "new"));
        const QByteArray closed = On(m, row.side, row.path);
        const mode_t open = row.path.endsWith(".txt") ? 0644 : 0755;
        ASSERT_EQ(::chmod(closed.constData(), row.mode), 0);

        for (int run = 1; run <= 2; ++run) {
            const Outcome outcome = m.Sync();
            // Something that had to be read could not be: an error, never a deletion.
            EXPECT_EQ(outcome.status, row.errors ? kErrors : kInStep) << outcome.Shown();
            ASSERT_EQ(::chmod(closed.constData(), open), 0);
            for (Side side : {Side::Local, Side::Server}) {
                const Tree tree = TreeOf(On(m, side));
                EXPECT_TRUE(TreeHolds(tree, untouched)) << NameOf(side);
                EXPECT_TRUE(HoldsContents(tree, "closed",
                                          side == row.side && row.changedHere ? contents.mid(0, 1)
                                          : side != row.side && row.changedThere
                                              ? contents.mid(contents.size() - 1)
                                              : QList<QByteArray>{}))
                    << NameOf(side);
            }
            ASSERT_EQ(::chmod(closed.constData(), row.mode), 0);
        }

        // Opened again, the next run converges, and every change is kept.
        ASSERT_EQ(::chmod(closed.constData(), open), 0);
        const Outcome opened = m.SyncUntilSettled();
        EXPECT_EQ(opened.status, kInStep) << opened.Shown();
        const Tree local = TreeOf(m.Local());
        EXPECT_TRUE(TreeIs(TreeOf(m.Server()), local));
        EXPECT_TRUE(TreeHolds(local, untouched + Tree{FileLine("new.txt", "new")}));
        EXPECT_TRUE(HoldsContents(local, "closed", contents));
    }
}

// --- A file written while it is uploaded -----------------------------------------------------

enum class Writing { Grows, RewrittenInPlace, TruncatedAndRewritten };

struct WritingRow {
    const char* what;
    Writing writing;
};

const WritingRow kWriting[] = {
    {"grows", Writing::Grows},
    {"rewritten in place", Writing::RewrittenInPlace},
    {"truncated and rewritten", Writing::TruncatedAndRewritten},
};

constexpr int kChunk = 64 * 1024;

// Version v of a file: chunks of one byte each, the byte telling the chunk's version.
QByteArray Chunk(int version) {
    return QByteArray(kChunk, char('a' + version % 26));
}

// Whether content is a state the file had at one instant. A growing file's states are whole
// chunks appended one by one; a file rewritten in place is of one version at its full size
// between two rewrites; a truncated file is empty for a moment before it is written again (one
// write of it never shows part of itself to a copy that checks the size before and after).
bool IsWhole(const QByteArray& content, Writing writing, int fullSize) {
    if (writing == Writing::TruncatedAndRewritten && content.isEmpty()) return true;
    if (content.size() % kChunk != 0 || content.size() < fullSize) return false;
    if (writing != Writing::Grows && content.size() != fullSize) return false;
    for (int at = 0; at < content.size(); at += kChunk) {
        const char first = content.at(at);
        for (int i = at; i < at + kChunk; ++i)
            if (content.at(i) != first) return false;
        if (writing != Writing::Grows && first != content.at(0)) return false;
    }
    return true;
}

class WrittenDuringUpload : public ::testing::TestWithParam<ServerKind> {
protected:
    void SetUp() override {
        if (GetParam() == ServerKind::WebDav && !Machine::WebDavUnavailable().isEmpty()) {
            ++Counted().skipped;
            GTEST_SKIP() << Machine::WebDavUnavailable().toStdString();
        }
    }
};

TEST_P(WrittenDuringUpload, NeverLeavesATornFileOnTheServer) {
    const int rounds = LongRun() ? 6 : 1;
    const int chunks = LongRun() ? 256 : 32;  // 16 MB or 2 MB
    for (const WritingRow& row : kWriting) {
        for (int round = 0; round < rounds; ++round) {
            SCOPED_TRACE(row.what);
            ++Counted().cases;
            Machine m(GetParam());
            const QByteArray path = m.Local("big.bin");
            QByteArray first;
            for (int i = 0; i < chunks; ++i) first += Chunk(0);
            ASSERT_TRUE(Put(path, first));
            std::atomic<bool> stop{false};
            std::atomic<int> torn{0}, samples{0}, versions{0};
            // The writer changes the file every few milliseconds while the program runs.
            std::thread writer([&] {
                int version = 0;
                // Long enough to span the upload, short enough to leave a growing file small.
                while (!stop && version < 400) {
                    ++version;
                    if (row.writing == Writing::Grows) {
                        WriteFile(path, Chunk(version), O_APPEND);
                    } else {
                        QByteArray content;
                        for (int i = 0; i < chunks; ++i) content += Chunk(version);
                        if (row.writing == Writing::TruncatedAndRewritten) {
                            WriteFile(path, content, O_TRUNC);
                        } else {
                            // Chunk by chunk in place: the content is the same chunk over.
                            const QByteArray chunk = Chunk(version);
                            const int fd = ::open(path.constData(), O_WRONLY | O_CLOEXEC);
                            for (int i = 0; i < chunks && fd >= 0; ++i)
                                ::pwrite(fd, chunk.constData(), std::size_t(chunk.size()),
                                         qint64(i) * chunk.size());
                            if (fd >= 0) ::close(fd);
                        }
                    }
                    ++versions;
                    ++Counted().conditions;
                    QThread::msleep(2);
                }
            });
            // The server's final path, read over and over: it is absent or whole.
            std::thread sampler([&] {
                while (!stop) {
                    bool exists = false;
                    const QByteArray seen = ReadFile(m.Server("big.bin"), &exists);
                    if (exists) {
                        ++samples;
                        if (!IsWhole(seen, row.writing, first.size())) ++torn;
                    }
                    QThread::msleep(5);
                }
            });
            const Outcome during = m.Sync();
            stop = true;
            writer.join();
            sampler.join();
            EXPECT_TRUE(Finished(during)) << during.Shown();
            EXPECT_EQ(torn.load(), 0) << "of " << samples.load() << " samples";
            Counted().corrupted += torn.load();
            bool exists = false;
            const QByteArray stored = ReadFile(m.Server("big.bin"), &exists);
            if (exists) {
                EXPECT_TRUE(IsWhole(stored, row.writing, first.size()))
                    << stored.size() << " bytes";
            }

            // Left alone, the file converges.
            const Outcome after = m.SyncUntilSettled();
            EXPECT_EQ(after.status, kInStep) << after.Shown();
            EXPECT_EQ(ReadFile(m.Server("big.bin")), ReadFile(path));
        }
    }
}

// The file's time stamp is recorded in whole seconds: a rewrite of the same size right after the
// upload read it, within the same second, shows only in the content.
TEST_P(WrittenDuringUpload, AFileRewrittenInTheSecondOfItsUploadIsUploadedAgain) {
    const int rounds = LongRun() ? 10 : 2;
    for (int round = 0; round < rounds; ++round) {
        ++Counted().cases;
        Machine m(GetParam());
        // Early in a second, so that the upload is likely to end within it.
        struct timespec now;
        ::clock_gettime(CLOCK_REALTIME, &now);
        QThread::usleep(unsigned((1000000000L - now.tv_nsec) / 1000 + 20000));
        ASSERT_TRUE(Put(m.Local("quick.txt"), "first version"));
        std::atomic<bool> stop{false};
        std::thread rewriter([&] {
            while (!stop) {
                if (ReadFile(m.Server("quick.txt")) == "first version") {
                    WriteFile(m.Local("quick.txt"), "later version", 0);
                    ++Counted().conditions;
                    return;
                }
                QThread::usleep(200);
            }
        });
        const Outcome first = m.Sync();
        stop = true;
        rewriter.join();
        EXPECT_TRUE(Finished(first)) << first.Shown();
        const Outcome settled = m.SyncUntilSettled();
        EXPECT_EQ(settled.status, kInStep) << settled.Shown();
        if (ReadFile(m.Server("quick.txt")) != ReadFile(m.Local("quick.txt")))
            ++Counted().corrupted;
        EXPECT_EQ(ReadFile(m.Server("quick.txt")), ReadFile(m.Local("quick.txt")));
    }
}

// --- Read-only disks and folders ------------------------------------------------------------

struct ReadOnlyRow {
    const char* what;
    Side side;
};

const ReadOnlyRow kReadOnly[] = {
    {"local root", Side::Local},
    {"server folder", Side::Server},
};

TEST(ReadOnly, AReadOnlyRootOrServerFolderCountsErrorsAndLosesNothing) {
    for (const ReadOnlyRow& row : kReadOnly) {
        SCOPED_TRACE(row.what);
        ++Counted().cases;
        QTemporaryDir place;
        const QByteArray localTop = QFile::encodeName(place.path()) + "/client";
        const QByteArray serverTop = QFile::encodeName(place.path()) + "/server";
        // Unprivileged, the folder loses its write permission; root writes anyway, so there
        // the folder lives on a file system of its own that turns read-only (mounted above
        // the folder, so that its trash is not inside the folder).
        std::unique_ptr<SmallDisk> disk;
        if (IsRoot()) {
            disk = std::make_unique<SmallDisk>(
                row.side == Side::Local ? localTop + "/local" : serverTop, 16384);
            if (!disk->Unavailable().empty()) {
                ++Counted().skipped;
                GTEST_SKIP() << disk->Unavailable();
            }
        }
        Machine m(ServerKind::LocalFolder, localTop, serverTop);
        const auto setReadOnly = [&](bool readOnly) {
            if (disk)
                ASSERT_TRUE(disk->ReadOnly(readOnly));
            else
                ASSERT_EQ(::chmod(On(m, row.side).constData(), readOnly ? 0555 : 0755), 0);
        };
        ASSERT_TRUE(Put(m.Local("kept.txt"), "kept"));
        ASSERT_TRUE(Put(m.Local("gone.txt"), "gone"));
        ASSERT_TRUE(Put(m.Local("edited.txt"), "edited"));
        ASSERT_TRUE(Put(m.Local("both.txt"), "both"));
        ASSERT_EQ(m.Sync().status, kInStep);
        QThread::msleep(1100);
        // Changed on both sides: the read-only side's change is made just before.
        ASSERT_TRUE(PutOn(m, row.side, "both.txt", "both, read-only side"));
        ASSERT_TRUE(PutOn(m, Other(row.side), "both.txt", "both, other side"));
        setReadOnly(true);
        ++Counted().conditions;
        // Every kind of change waits on the other side of the read-only one.
        ASSERT_TRUE(PutOn(m, Other(row.side), "new.txt", "new"));
        ASSERT_TRUE(PutOn(m, Other(row.side), "edited.txt", "edited again"));
        ASSERT_EQ(::unlink(On(m, Other(row.side), "gone.txt").constData()), 0);
        ASSERT_TRUE(PutOn(m, Other(row.side), "sub/deep.txt", "deep"));
        const Tree frozen = TreeOf(On(m, row.side));
        const Tree changed = TreeOf(On(m, Other(row.side)));

        for (int run = 1; run <= 2; ++run) {
            const Outcome refused = m.Sync();
            EXPECT_EQ(refused.status, kErrors) << refused.Shown();
            // Neither side lost anything: the read-only one is as it was, the other keeps its
            // changes (nothing undone because it could not be carried over).
            EXPECT_TRUE(TreeIs(TreeOf(On(m, row.side)), frozen));
            const Tree other = TreeOf(On(m, Other(row.side)));
            EXPECT_TRUE(
                TreeHolds(other, Without(changed, {FileLine("both.txt", "both, other side")})));
            EXPECT_TRUE(HoldsContents(other, QByteArray(), {"both, other side"}));
        }

        setReadOnly(false);
        const Outcome writable = m.SyncUntilSettled();
        EXPECT_EQ(writable.status, kInStep) << writable.Shown();
        const Tree local = TreeOf(m.Local());
        EXPECT_TRUE(TreeIs(TreeOf(m.Server()), local));
        EXPECT_TRUE(TreeHolds(local, Without(changed, {FileLine("both.txt", "both, other side")})));
        // Both changes of the file changed on both sides are kept, one as a conflict copy.
        EXPECT_TRUE(
            HoldsContents(local, QByteArray(), {"both, read-only side", "both, other side"}));
    }
}

// --- A full disk ----------------------------------------------------------------------------

struct FullDiskRow {
    const char* what;
    Side full;         // the side whose disk is too small
    bool existing;     // the file was synced before (an old version to keep)
    bool fillFirst;    // the disk is full before the run begins (database writes fail too)
    bool bothChanged;  // the full side changed the file too
};

const FullDiskRow kFullDisk[] = {
    {"a changed file that does not fit locally", Side::Local, true, false, false},
    {"a new file that does not fit locally", Side::Local, false, false, false},
    {"a local disk full before the run", Side::Local, true, true, false},
    {"a changed file that does not fit on the server", Side::Server, true, false, false},
    {"a new file that does not fit on the server", Side::Server, false, false, false},
    {"a server disk full before the run, the file changed there too", Side::Server, true, true,
     true},
};

TEST(FullDisk, ATransferThatDoesNotFitKeepsTheOldVersionAndTheDatabase) {
    for (const FullDiskRow& row : kFullDisk) {
        SCOPED_TRACE(row.what);
        QTemporaryDir place;
        const QByteArray localTop = QFile::encodeName(place.path()) + "/client";
        const QByteArray serverTop = QFile::encodeName(place.path()) + "/server";
        // The local side's disk holds the database, the trash and the local folder; the
        // server's disk the server folder.
        SmallDisk disk(row.full == Side::Local ? localTop : serverTop, 2048);
        if (!disk.Unavailable().empty()) {
            ++Counted().skipped;
            GTEST_SKIP() << disk.Unavailable();
        }
        ++Counted().cases;
        ++Counted().conditions;
        Machine m(ServerKind::LocalFolder, localTop, serverTop);
        const QByteArray small(100 * 1024, 's');
        QByteArray large;
        for (int i = 0; i < 48; ++i) large += QByteArray(64 * 1024, char('A' + i % 26));  // 3 MB
        ASSERT_TRUE(Put(On(m, Other(row.full), "other.txt"), "other"));
        if (row.existing) {
            ASSERT_TRUE(Put(m.Local("big.bin"), small));
        }
        const Outcome synced = m.Sync();
        ASSERT_EQ(synced.status, kInStep) << synced.Shown();

        QThread::msleep(1100);
        ASSERT_TRUE(Put(On(m, Other(row.full), "big.bin"), large));
        ASSERT_TRUE(Put(On(m, Other(row.full), "fits.txt"), "fits"));
        const QByteArray theirs(120 * 1024, 't');
        if (row.bothChanged) {
            ASSERT_TRUE(Put(On(m, row.full, "big.bin"), theirs));
        }
        const Tree before = TreeOf(On(m, row.full));
        if (row.fillFirst) {
            ASSERT_TRUE(disk.Fill(0));
        }

        const Outcome full = m.Sync();
        // A database on a full disk cannot even be opened: the run stops before it begins.
        if (row.fillFirst && row.full == Side::Local)
            EXPECT_NE(full.status, kInStep) << full.Shown();
        else
            EXPECT_EQ(full.status, kErrors) << full.Shown();
        EXPECT_NE(full.status, -1) << full.Shown();
        // The old version is whole at its path, and no part of the new one is anywhere to be
        // seen.
        const Tree after = TreeOf(On(m, row.full));
        if (!row.existing) {
            for (const QByteArray& line : after)
                EXPECT_NE(PathOf(line), QByteArray("big.bin")) << Shown(line);
        }
        EXPECT_TRUE(TreeHolds(after, before));
        // With room again, the database answers and the next run converges.
        disk.Unfill();
        const Outcome status = m.Run({QStringLiteral("status")});
        EXPECT_EQ(status.status, kInStep) << status.Shown();
        ASSERT_TRUE(disk.Resize(16384));
        const Outcome roomy = m.SyncUntilSettled();
        EXPECT_EQ(roomy.status, kInStep) << roomy.Shown();
        const Tree local = TreeOf(m.Local());
        EXPECT_TRUE(TreeIs(TreeOf(m.Server()), local));
        EXPECT_TRUE(TreeHolds(local, {FileLine("big.bin", large), FileLine("fits.txt", "fits")}));
        if (row.bothChanged) {
            EXPECT_TRUE(HoldsContents(local, QByteArray(), {theirs}));
        }
    }
}

// --- Random hostile names -------------------------------------------------------------------

// A name made of random parts: plain letters, letters in both cases, multi-byte characters,
// bytes that are not UTF-8, at lengths up to the longest name.
QByteArray RandomName(std::mt19937& random) {
    static const QList<QByteArray> parts = {"a",
                                            "B",
                                            "z",
                                            "Z",
                                            "file",
                                            "FILE",
                                            " ",
                                            "-",
                                            "\xc3\xa9",
                                            "\xc3\x89",
                                            "\xe2\x82\xac",
                                            "\xf0\x9f\x98\x80",
                                            "\xff",
                                            "\xc0\xaf",
                                            "\xed\xa0\x80",
                                            "\x80",
                                            "\xef\xbf\xbd",
                                            "~",
                                            "%"};
    const int lengthClass = int(random() % 4);
    const int target = lengthClass == 0 ? 250 : 1 + int(random() % 24);
    QByteArray name;
    while (name.size() < target) {
        const QByteArray& part = parts.at(int(random() % parts.size()));
        if (name.size() + part.size() > 251) break;
        name += part;
    }
    if (name.isEmpty() || name == "." || name == "..") name = "n";
    return name + ".txt";
}

// The contents of a tree's files.
QSet<QByteArray> ContentsOf(const Tree& tree) {
    QSet<QByteArray> contents;
    for (const QByteArray& line : tree)
        if (!line.endsWith('/')) contents.insert(line.mid(line.indexOf('\t') + 1));
    return contents;
}

QSet<QByteArray> PathsOf(const Tree& tree) {
    QSet<QByteArray> paths;
    for (const QByteArray& line : tree) paths.insert(PathOf(line));
    return paths;
}

bool IsUtf8(const QByteArray& bytes) {
    return QString::fromUtf8(bytes).toUtf8() == bytes;
}

// A name flipped in the letter case of some of its ASCII letters.
QByteArray CaseFlipped(QByteArray name, std::mt19937& random) {
    for (char& c : name)
        if (std::isalpha(static_cast<unsigned char>(c)) && random() % 2)
            c = std::isupper(static_cast<unsigned char>(c)) ? char(std::tolower(c))
                                                            : char(std::toupper(c));
    return name;
}

TEST(RandomNames, RandomHostileNamesAreNeverLostMangledOrDoubled) {
    const quint32 seed = Seed();
    const int rounds = LongRun() ? 20 : 3;
    std::mt19937 random(seed);
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) +
                     " (SYNC_RELIABILITY_SEED replays it), round " + std::to_string(round));
        ++Counted().cases;
        Machine m;
        QList<QByteArray> made;
        for (int i = 0; i < 24; ++i) {
            const Side side = random() % 2 ? Side::Local : Side::Server;
            QByteArray path;
            if (!made.isEmpty() && random() % 4 == 0) {
                // A name already used, on either side, in the same or another letter case.
                path = made.at(int(random() % made.size()));
                if (random() % 2) path = CaseFlipped(path, random);
            } else {
                const QByteArray folder = random() % 3 == 0 ? RandomName(random).left(40) : "";
                path = folder.isEmpty() ? RandomName(random) : folder + '/' + RandomName(random);
            }
            if (path.contains('/')) MakeFolders(On(m, side, path.left(path.lastIndexOf('/'))));
            if (WriteFile(On(m, side, path), "content " + QByteArray::number(i), O_EXCL)) {
                made << path;
                ++Counted().conditions;
            }
        }
        const Tree localSeed = TreeOf(m.Local()), serverSeed = TreeOf(m.Server());
        const Outcome first = m.SyncUntilSettled(3);
        EXPECT_TRUE(Finished(first)) << first.Shown();
        const Tree local = TreeOf(m.Local()), server = TreeOf(m.Server());
        // Every content is still on the side that had it.
        EXPECT_TRUE(ContentsOf(local).contains(ContentsOf(localSeed)))
            << "had:" << ShownTree(localSeed) << "\n  has:" << ShownTree(local);
        EXPECT_TRUE(ContentsOf(server).contains(ContentsOf(serverSeed)))
            << "had:" << ShownTree(serverSeed) << "\n  has:" << ShownTree(server);
        // Whatever appeared on a side came from a side, under its own name or as a conflict
        // copy of it.
        const QSet<QByteArray> seededPaths = PathsOf(localSeed) + PathsOf(serverSeed);
        for (const Tree& tree : {local, server}) {
            for (const QByteArray& line : tree) {
                const bool seeded = seededPaths.contains(PathOf(line));
                const bool conflictCopy = PathOf(line).contains(" (conflict ");
                EXPECT_TRUE(seeded || conflictCopy) << Shown(line);
            }
        }
        // And a further run changes nothing.
        EXPECT_TRUE(Finished(m.Sync()));
        EXPECT_TRUE(TreeIs(TreeOf(m.Local()), local));
        EXPECT_TRUE(TreeIs(TreeOf(m.Server()), server));

        // Folders deleted on one side or the other: what could never sync stays where it is,
        // on the side that was not told to delete it.
        Tree unsyncable[2];
        for (Side side : {Side::Local, Side::Server})
            for (const QByteArray& line : side == Side::Local ? local : server)
                if (!IsUtf8(PathOf(line)) && !line.endsWith('/')) unsyncable[int(side)] << line;
        for (const QByteArray& line : local + server) {
            const QByteArray folder = PathOf(line);
            if (!line.endsWith('/') || folder.contains('/') || !IsUtf8(folder) || random() % 2)
                continue;
            const Side side = random() % 2 ? Side::Local : Side::Server;
            RemoveTree(On(m, side, folder));
            for (int i = unsyncable[int(side)].size() - 1; i >= 0; --i)
                if (unsyncable[int(side)].at(i).startsWith(folder + '/'))
                    unsyncable[int(side)].removeAt(i);
        }
        m.HandOver();
        EXPECT_TRUE(Finished(m.SyncUntilSettled(3)));
        EXPECT_TRUE(TreeHolds(TreeOf(m.Local()), unsyncable[int(Side::Local)]));
        EXPECT_TRUE(TreeHolds(TreeOf(m.Server()), unsyncable[int(Side::Server)]));
    }
}

INSTANTIATE_TEST_SUITE_P(Servers, OnEitherServer,
                         ::testing::Values(ServerKind::LocalFolder, ServerKind::WebDav),
                         [](const ::testing::TestParamInfo<ServerKind>& info) {
                             return std::string(NameOf(info.param));
                         });

INSTANTIATE_TEST_SUITE_P(Servers, WrittenDuringUpload,
                         ::testing::Values(ServerKind::LocalFolder, ServerKind::WebDav),
                         [](const ::testing::TestParamInfo<ServerKind>& info) {
                             return std::string(NameOf(info.param));
                         });

INSTANTIATE_TEST_SUITE_P(ServersAndSides, OnEitherServerAndSide,
                         ::testing::Combine(::testing::Values(ServerKind::LocalFolder,
                                                              ServerKind::WebDav),
                                            ::testing::Values(Side::Local, Side::Server)),
                         [](const ::testing::TestParamInfo<std::tuple<ServerKind, Side>>& info) {
                             return std::string(NameOf(std::get<0>(info.param))) + "Server" +
                                    NameOf(std::get<1>(info.param)) + "Side";
                         });

INSTANTIATE_TEST_SUITE_P(Sides, Links, ::testing::Values(Side::Local, Side::Server),
                         [](const ::testing::TestParamInfo<Side>& info) {
                             return std::string(NameOf(info.param));
                         });

}  // namespace
}  // namespace hostile
