#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <QTemporaryDir>

#include "EntryInfoTreeChange.h"
#include "FileConfiguration.h"
#include "Finally.h"
#include "FolderConfiguration.h"
#include "HttpException.h"
#include "PathHelpers.h"
#include "SyncLog.h"
#include "SyncResults.h"
#include "SyncServiceException.h"

using namespace sync::config;
using sync::core::SyncResults;
using namespace sync::syncService;

namespace {

FileConfiguration FullyPopulatedFile() {
    FileConfiguration f;
    f.id = 7;
    f.folderId = 3;
    f.rootId = 1;
    f.name = QStringLiteral("a.txt");
    f.localPath = QStringLiteral("/home/u/Docs/a.txt");
    f.serverPath = QStringLiteral("Docs/a.txt");
    f.checksum = QStringLiteral("abc");
    f.contentType = QStringLiteral("text/plain");
    f.created = QDateTime::fromMSecsSinceEpoch(1000, Qt::UTC);
    f.lastModified = QDateTime::fromMSecsSinceEpoch(2000, Qt::UTC);
    f.size = 1234567890123LL;
    f.transferDirection = 2;
    f.properties.insert(QStringLiteral("version"), QStringLiteral("4"));
    f.lastTransferAttempt = QDateTime::fromMSecsSinceEpoch(3000, Qt::UTC);
    f.inheritedId = 1;
    f.generatedKind = 2;
    f.parentFileId = 5;
    f.privilegeInfo = QStringLiteral("owner");
    f.privileges = 6;
    f.isGenerated = 1;
    f.serverFileId = QStringLiteral("sid");
    f.serverChecksum = QStringLiteral("sum");
    f.fileLinks.append(FileLink(9, QStringLiteral("t"), QStringLiteral("k"), QStringLiteral("e")));
    f.serverModified = QDateTime::fromMSecsSinceEpoch(4000, Qt::UTC);
    f.syncStatus = FileSynchronizationStatus::Synchronized;
    f.referencesOnly = 1;
    f.transferPending = true;
    f.syncStatusSet = true;
    return f;
}

}  // namespace

TEST(RecordsTest, CopiesCarryEveryFieldIncludingPropertiesAndLinks) {
    const FileConfiguration original = FullyPopulatedFile();
    FileConfiguration copy(original);
    EXPECT_EQ(copy, original);
    FileConfiguration assigned;
    assigned = original;
    EXPECT_EQ(assigned, original);
    // A copy is independent of its source.
    copy.properties.insert(QStringLiteral("versionId"), QStringLiteral("x"));
    copy.fileLinks.clear();
    EXPECT_EQ(original.properties.size(), 1);
    EXPECT_EQ(original.fileLinks.size(), 1);

    FolderConfiguration folder;
    folder.id = 4;
    folder.rootId = 4;
    folder.serverRootPath = QStringLiteral("/");
    folder.properties.insert(QStringLiteral("k"), QStringLiteral("v"));
    folder.setLastSyncTime(QDateTime::fromMSecsSinceEpoch(5, Qt::UTC));
    folder.setSyncStatus(FolderSynchronizationStatus::OutOfSync);
    folder.userFlag = true;
    FolderConfiguration folderCopy;
    folderCopy = folder;
    EXPECT_EQ(folderCopy, folder);
    EXPECT_TRUE(folderCopy.isRoot());
}

TEST(SyncResultsTest, SumAddsCountersMergesCodesAndAppendsLists) {
    SyncResults a;
    a.FileServerCreations = 2;
    a.errorCodes.insert(401, 1);
    a.FileServerCreationPaths << QStringLiteral("/a");
    SyncResults b;
    b.FileServerCreations = 1;
    b.FolderLocalDeletionErrors = 3;
    b.errorCodes.insert(401, 2);
    b.errorCodes.insert(507, 1);
    b.FileServerCreationPaths << QStringLiteral("/b");
    b.FolderLocalDeletionErrorPaths << QStringLiteral("/c");

    SyncResults& r = (a += b);
    EXPECT_EQ(&r, &a);
    EXPECT_EQ(a.FileServerCreations, 3);
    EXPECT_EQ(a.FolderLocalDeletionErrors, 3);
    EXPECT_EQ(a.errorCodes, (QMap<int, int>{{401, 3}, {507, 1}}));
    EXPECT_EQ(a.FileServerCreationPaths, (QStringList{QStringLiteral("/a"), QStringLiteral("/b")}));
    EXPECT_EQ(a.FolderLocalDeletionErrorPaths, QStringList{QStringLiteral("/c")});

    // Adding a result to itself doubles it rather than looping on a growing list.
    a += a;
    EXPECT_EQ(a.FileServerCreations, 6);
    EXPECT_EQ(a.FileServerCreationPaths.size(), 4);
}

TEST(SyncResultsTest, TypeBecomesCombinedOnlyWhenTypesDiffer) {
    SyncResults tasks(SyncResults::Tasks, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    SyncResults other(SyncResults::Tasks, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    other += tasks;
    EXPECT_EQ(other.type, SyncResults::Tasks);
    SyncResults combined;
    EXPECT_EQ(combined.type, SyncResults::Combined);
    SyncResults t2(tasks);
    t2 += SyncResults();
    EXPECT_EQ(t2.type, SyncResults::Combined);
}

TEST(SyncResultsTest, CounterConstructorUsesItsOwnArgumentOrder) {
    const SyncResults r(SyncResults::Tasks, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    // Done/failed pairs by category, in the order the constructor takes them.
    const SyncResults::Category order[] = {
        SyncResults::FileServerCreation,   SyncResults::FileLocalCreation,
        SyncResults::FileLocalDeletion,    SyncResults::FileServerDeletion,
        SyncResults::FolderServerCreation, SyncResults::FolderLocalCreation,
        SyncResults::FolderLocalDeletion,  SyncResults::FolderServerDeletion};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(r.done(order[i]), 2 * i + 1) << i;
        EXPECT_EQ(r.errors(order[i]), 2 * i + 2) << i;
    }
    EXPECT_EQ(r.type, SyncResults::Tasks);
}

TEST(SyncResultsTest, ErrorsAndWorkDoneLookOnlyAtCounters) {
    SyncResults onlyError;
    onlyError.FolderServerDeletionErrors = 1;
    EXPECT_TRUE(onlyError.anyErrors());
    EXPECT_TRUE(onlyError.anyWorkDone());

    SyncResults listsOnly;
    listsOnly.FileLocalCreationErrorPaths << QStringLiteral("/x");
    listsOnly.errorCodes.insert(500, 1);
    EXPECT_FALSE(listsOnly.anyErrors());
    EXPECT_FALSE(listsOnly.anyWorkDone());

    for (int c = 0; c < SyncResults::CategoryCount; ++c) {
        SyncResults r;
        r.done(static_cast<SyncResults::Category>(c)) = 1;
        EXPECT_TRUE(r.anyWorkDone()) << c;
        EXPECT_FALSE(r.anyErrors()) << c;
    }
}

TEST(PathHelpersTest, ParentRules) {
    struct Row {
        const char* parent;
        const char* child;
        bool isParent;
        bool isParentOrSame;
    };
    const Row rows[] = {
        {"/", "/a", true, true},          {"/a", "/a", false, true},
        {"/a", "/ab", false, false},      {"/A", "/a/b", false, false},
        {"/A", "/a", false, true},        {"/a/", "/a/b/c", true, true},
        {"/a/./b", "/a/b/c", true, true}, {"/a/b", "/a", false, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(sync::core::IsParentPath(row.parent, row.child), row.isParent)
            << row.parent << " " << row.child;
        EXPECT_EQ(sync::core::IsParentOrSamePath(row.parent, row.child), row.isParentOrSame)
            << row.parent << " " << row.child;
    }
}

TEST(PathHelpersTest, WriteLockIsSeenOnlyWhileAnotherDescriptorHoldsIt) {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("f.txt"));
    EXPECT_FALSE(sync::core::IsFileLockedForWrite(path));  // missing
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("x");
    f.close();
    EXPECT_FALSE(sync::core::IsFileLockedForWrite(path));
    const int fd = ::open(path.toUtf8().constData(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    EXPECT_TRUE(sync::core::IsFileLockedForWrite(path));
    ::close(fd);
    EXPECT_FALSE(sync::core::IsFileLockedForWrite(path));
}

TEST(EntryInfoTreeChangeTest, KeysFoldCaseAndLaterActionsReplaceEarlierOnes) {
    EntryInfoTreeChange change;
    EXPECT_TRUE(change.getFileActionMap().isEmpty());
    FileConfiguration first;
    first.serverPath = QStringLiteral("Docs/A.txt");
    first.size = 1;
    FileConfiguration second;
    second.serverPath = QStringLiteral("docs/a.TXT");
    second.size = 2;
    change.AddFileAction(Modified, first);
    change.AddFileAction(Deleted, second);
    ASSERT_EQ(change.getFileActionMap().size(), 1);
    EXPECT_EQ(change.getFileActionMap().value(QStringLiteral("docs/a.txt")), Deleted);
    EXPECT_EQ(change.getFileMap().value(QStringLiteral("docs/a.txt")).size, 2);

    // A folder with the same key lives in its own maps.
    FolderConfiguration folder;
    folder.serverPath = QStringLiteral("DOCS/a.txt");
    change.AddFolderAction(Added, folder);
    EXPECT_EQ(change.getFolderActionMap().value(QStringLiteral("docs/a.txt")), Added);
    EXPECT_EQ(change.getFileActionMap().size(), 1);

    // Accessors hand out copies.
    auto copy = change.getFileActionMap();
    copy.clear();
    EXPECT_EQ(change.getFileActionMap().size(), 1);

    // Re-adding the stored record itself keeps it intact.
    change.AddFileAction(Added, change._fileMap[QStringLiteral("docs/a.txt")]);
    EXPECT_EQ(change._fileMap.value(QStringLiteral("docs/a.txt")).size, 2);
}

TEST(EntryInfoTreeChangeTest, AssignmentReplacesEveryEntry) {
    EntryInfoTreeChange source;
    FileConfiguration f;
    f.serverPath = QStringLiteral("x");
    source.AddFileAction(Added, f);
    EntryInfoTreeChange target;
    FileConfiguration g;
    g.serverPath = QStringLiteral("y");
    target.AddFileAction(Deleted, g);
    FolderConfiguration folder;
    folder.serverPath = QStringLiteral("z");
    target.AddFolderAction(Deleted, folder);
    target = source;
    EXPECT_EQ(target.getFileActionMap().keys(), QList<QString>{QStringLiteral("x")});
    EXPECT_TRUE(target.getFolderActionMap().isEmpty());
    EXPECT_TRUE(target.getFolderMap().isEmpty());
}

TEST(ExceptionsTest, MessagesSurviveAsUtf8) {
    EXPECT_STREQ(SyncServiceException(QStringLiteral("x")).what(), "x");
    EXPECT_STREQ(SyncServiceException().what(), "");
    const sync::http::HttpException http(507, QString::fromUtf8("voll: Größe"));
    EXPECT_EQ(http.code, 507);
    EXPECT_EQ(QString::fromUtf8(http.what()), QString::fromUtf8("voll: Größe"));
    EXPECT_TRUE(http.url.isEmpty());
}

TEST(FinallyTest, RunsOnceOnEveryExitAndSwallowsThrows) {
    int runs = 0;
    try {
        sync::core::Finally guard([&] { ++runs; });
        throw std::runtime_error("leave");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(runs, 1);
    {
        sync::core::Finally guard([] { throw std::runtime_error("ignored"); });
    }
}

TEST(LogFormatTest, PlaceholdersFillLowestFirstInOnePass) {
    using sync::core::FormatLogMessage;
    EXPECT_EQ(
        FormatLogMessage(QStringLiteral("%0 and %1"), {QStringLiteral("a"), QStringLiteral("b")}),
        QStringLiteral("a and b"));
    EXPECT_EQ(
        FormatLogMessage(QStringLiteral("%2 then %1"), {QStringLiteral("a"), QStringLiteral("b")}),
        QStringLiteral("b then a"));
    // An argument that contains a placeholder is not substituted again.
    EXPECT_EQ(
        FormatLogMessage(QStringLiteral("%1 / %2"), {QStringLiteral("%2"), QStringLiteral("x")}),
        QStringLiteral("%2 / x"));
    EXPECT_EQ(QString::fromStdString(sync::core::LogText("n=%1 ok=%2", 42, true)),
              QStringLiteral("n=42 ok=true"));
}
