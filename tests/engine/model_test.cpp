#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <QFile>
#include <QTemporaryDir>

#include "EntryInfoTreeChange.h"
#include "PathHelpers.h"
#include "SyncLog.h"
#include "SyncResults.h"

using namespace sync::config;
using sync::core::SyncResults;
using namespace sync::syncService;

TEST(SyncResultsTest, SumAddsCountersMergesCodesAndAppendsLists) {
    SyncResults a;
    a.FileServerCreations = 2;
    a.errorCodes.insert(401, 1);
    a.FileServerCreationPaths << "/a";
    SyncResults b;
    b.FileServerCreations = 1;
    b.FolderLocalDeletionErrors = 3;
    b.errorCodes = {{401, 2}, {507, 1}};
    b.FileServerCreationPaths << "/b";
    b.FolderLocalDeletionErrorPaths << "/c";
    a += b;
    EXPECT_EQ(a.FileServerCreations, 3);
    EXPECT_EQ(a.FolderLocalDeletionErrors, 3);
    EXPECT_EQ(a.errorCodes, (QMap<int, int>{{401, 3}, {507, 1}}));
    EXPECT_EQ(a.FileServerCreationPaths, (QStringList{"/a", "/b"}));
    EXPECT_EQ(a.FolderLocalDeletionErrorPaths, QStringList{"/c"});
}

// The constructor takes the counters in an order of its own, unlike the fields.
TEST(SyncResultsTest, CounterConstructorAndCategoryAccess) {
    const SyncResults r(SyncResults::Tasks, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    const SyncResults::Category order[] = {
        SyncResults::FileServerCreation,   SyncResults::FileLocalCreation,
        SyncResults::FileLocalDeletion,    SyncResults::FileServerDeletion,
        SyncResults::FolderServerCreation, SyncResults::FolderLocalCreation,
        SyncResults::FolderLocalDeletion,  SyncResults::FolderServerDeletion};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(r.done(order[i]), 2 * i + 1) << i;
        EXPECT_EQ(r.errors(order[i]), 2 * i + 2) << i;
    }
    // Every category counts as work, an error only by its counter, never by a list or a code.
    for (int c = 0; c < SyncResults::CategoryCount; ++c) {
        SyncResults work, failed;
        work.done(SyncResults::Category(c)) = 1;
        work.errorPaths(SyncResults::Category(c)) << "/x";
        work.errorCodes.insert(500, 1);
        failed.errors(SyncResults::Category(c)) = 1;
        EXPECT_TRUE(work.anyWorkDone() && !work.anyErrors()) << c;
        EXPECT_TRUE(failed.anyWorkDone() && failed.anyErrors()) << c;
    }
}

TEST(PathHelpersTest, ParentRules) {
    const struct {
        const char *parent, *child;
        bool isParent, isParentOrSame;
    } rows[] = {
        {"/", "/a", true, true},          {"/a", "/a", false, true},
        {"/a", "/ab", false, false},      {"/A", "/a/b", false, false},
        {"/A", "/a", false, true},        {"/a/", "/a/b/c", true, true},
        {"/a/./b", "/a/b/c", true, true}, {"/a/b", "/a", false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.parent) + " " + row.child);
        EXPECT_EQ(sync::core::IsParentPath(row.parent, row.child), row.isParent);
        EXPECT_EQ(sync::core::IsParentOrSamePath(row.parent, row.child), row.isParentOrSame);
    }
}

// The check must not leave a lock behind, or every later check would see the file locked.
TEST(PathHelpersTest, WriteLockIsSeenOnlyWhileAnotherDescriptorHoldsIt) {
    QTemporaryDir dir;
    const QString path = dir.filePath("f.txt");
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.close();
    EXPECT_FALSE(sync::core::IsFileLockedForWrite(path));
    const int fd = ::open(path.toUtf8().constData(), O_RDWR);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);  // fails, not hangs, on a lock left behind
    EXPECT_TRUE(sync::core::IsFileLockedForWrite(path));
    ::close(fd);
    EXPECT_FALSE(sync::core::IsFileLockedForWrite(path));
}

// An action and its record go together: a later action on the same key replaces both.
TEST(EntryInfoTreeChangeTest, LaterActionReplacesActionAndRecord) {
    EntryInfoTreeChange change;
    FileConfiguration first, second;
    first.serverPath = "Docs/A.txt";
    second.serverPath = "docs/a.TXT";
    second.size = 2;
    change.AddFileAction(Modified, first);
    change.AddFileAction(Deleted, second);
    EXPECT_EQ(change.getFileActionMap(), (QHash<QString, EntryAction>{{"docs/a.txt", Deleted}}));
    EXPECT_EQ(change.getFileMap().value("docs/a.txt").size, 2);
    FolderConfiguration folder;  // the same key in the folder maps is another entry
    folder.serverPath = "DOCS/a.txt";
    change.AddFolderAction(Added, folder);
    EXPECT_EQ(change.getFolderActionMap().value("docs/a.txt"), Added);
    EXPECT_EQ(change.getFileActionMap().value("docs/a.txt"), Deleted);
}

// A path may hold "%1": it must come out as it is.
TEST(LogFormatTest, PlaceholdersFillLowestFirstInOnePass) {
    const struct {
        const char *format, *first, *second, *expected;
    } rows[] = {{"%0 and %1", "a", "b", "a and b"},
                {"%2 then %1", "a", "b", "b then a"},
                {"%1 / %2", "%2", "x", "%2 / x"}};
    for (const auto& row : rows)
        EXPECT_EQ(sync::core::FormatLogMessage(row.format, {row.first, row.second}),
                  QString(row.expected));
}
