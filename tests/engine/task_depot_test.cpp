#include <gtest/gtest.h>

#include <algorithm>

#include "SyncServiceException.h"
#include "SyncTaskDepot.h"

using namespace sync::config;
using namespace sync::syncService;

namespace {

FileSyncTask FileTask(SyncTaskType type, const QString& serverPath, qint64 size = 0) {
    FileConfiguration f;
    f.serverPath = serverPath;
    f.size = size;
    return FileSyncTask(type, f, Added, NoChange, nullptr, nullptr, nullptr, nullptr, nullptr);
}

FolderSyncTask FolderTask(SyncTaskType type, const QString& serverPath) {
    FolderConfiguration f;
    f.serverPath = serverPath;
    return FolderSyncTask(type, f, Deleted, NoChange, nullptr, nullptr, nullptr, nullptr, nullptr);
}

QStringList SortedKeys(const SyncTaskDepot& depot, SyncTaskType type) {
    auto keys = depot.GetSyncTaskListKeys(type);
    if (!keys) return {};
    QStringList list(keys->begin(), keys->end());
    std::sort(list.begin(), list.end());
    return list;
}

}  // namespace

TEST(SyncTaskTest, GettersRefuseTheWrongKindOfRecord) {
    FileSyncTask none;
    EXPECT_EQ(none.GetSyncTaskType(), None);
    try {
        none.GetKey();
        FAIL() << "a None task has no key";
    } catch (const SyncServiceException& e) {
        EXPECT_STREQ(e.what(), "_syncTaskType is none task type, cannot get key");
    }
    auto upload = FileTask(ServerFileCreation, QStringLiteral("Docs/A.txt"));
    try {
        upload.GetFolderConfig();
        FAIL() << "an upload has no folder record";
    } catch (const SyncServiceException& e) {
        EXPECT_STREQ(e.what(), "SyncTask type is file task, cannot get the folder config");
    }
    auto folder = FolderTask(LocalFolderCreation, QStringLiteral("Docs"));
    EXPECT_THROW(folder.GetFileConfig(), SyncServiceException);
    EXPECT_EQ(upload.GetKey(), QStringLiteral("Docs/A.txt"));  // case kept

    for (int t = 0; t <= 10; ++t) {
        const bool folderKind = t == 1 || t == 2 || t == 5 || t == 6;
        EXPECT_EQ(FileSyncTask::IsFileTaskType(static_cast<SyncTaskType>(t)), !folderKind) << t;
    }
}

TEST(SyncTaskDepotTest, StoresCopiesByTypeAndKeyLastWriterWins) {
    SyncTaskDepot depot;
    EXPECT_EQ(depot.GetSyncTaskList(ServerFileCreation), nullptr);

    auto first = FileTask(ServerFileCreation, QStringLiteral("a.txt"), 1);
    depot.AddSyncTask(first);
    auto second = FileTask(ServerFileCreation, QStringLiteral("a.txt"), 2);
    depot.AddSyncTask(second);
    auto download = FileTask(LocalFileCreation, QStringLiteral("a.txt"), 3);
    depot.AddSyncTask(download);

    auto uploads = depot.GetSyncTaskList(ServerFileCreation);
    ASSERT_EQ(uploads->size(), 1);
    EXPECT_EQ(uploads->first()->GetFileConfig().size, 2);
    EXPECT_EQ(depot.GetSyncTaskList(LocalFileCreation)->size(), 1);

    // The depot owns copies: changing the caller's task leaves the stored one alone, while a
    // worker changing the stored record changes what later readers see.
    second.GetFileConfig().size = 99;
    EXPECT_EQ(depot.GetSyncTaskList(ServerFileCreation)->first()->GetFileConfig().size, 2);
    depot.GetSyncTaskList(ServerFileCreation)->first()->GetFileConfig().size = 5;
    EXPECT_EQ(depot.GetSyncTaskList(ServerFileCreation)->first()->GetFileConfig().size, 5);

    depot.RemoveSyncTask(first);
    auto empty = depot.GetSyncTaskList(ServerFileCreation);
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(empty->isEmpty());
    depot.RemoveSyncTask(LocalFolderCreation, QStringLiteral("nothing"));  // no hash: no-op
}

TEST(SyncTaskDepotTest, ConflictMarkingRemovesTransfersByExactKeyOnly) {
    SyncTaskDepot depot;
    for (SyncTaskType type :
         {ServerFileCreation, ServerFileDeletion, LocalFileCreation, LocalFileDeletion}) {
        auto same = FileTask(type, QStringLiteral("A/x.txt"));
        depot.AddSyncTask(same);
    }
    auto otherCase = FileTask(ServerFileCreation, QStringLiteral("a/X.TXT"));
    depot.AddSyncTask(otherCase);
    auto conflict = FileTask(FileConflictMarking, QStringLiteral("A/x.txt"));
    depot.AddSyncTask(conflict);

    depot.RemoveConflictAndDuplicateTask();
    EXPECT_EQ(SortedKeys(depot, ServerFileCreation), QStringList{QStringLiteral("a/X.TXT")});
    EXPECT_TRUE(SortedKeys(depot, ServerFileDeletion).isEmpty());
    EXPECT_TRUE(SortedKeys(depot, LocalFileCreation).isEmpty());
    EXPECT_TRUE(SortedKeys(depot, LocalFileDeletion).isEmpty());
    EXPECT_EQ(SortedKeys(depot, FileConflictMarking), QStringList{QStringLiteral("A/x.txt")});
}

TEST(SyncTaskDepotTest, ServerFolderDeletionAbsorbsNestedDeletionsWithoutRegardToCase) {
    SyncTaskDepot depot;
    for (const char* key : {"A", "A/B", "A/B/C", "Other"}) {
        auto t = FolderTask(ServerFolderDeletion, QString::fromLatin1(key));
        depot.AddSyncTask(t);
    }
    for (const char* key : {"a/b/f.txt", "AB/g.txt", "top.txt"}) {
        auto t = FileTask(ServerFileDeletion, QString::fromLatin1(key));
        depot.AddSyncTask(t);
    }
    depot.RemoveConflictAndDuplicateTask();
    EXPECT_EQ(SortedKeys(depot, ServerFolderDeletion),
              (QStringList{QStringLiteral("A"), QStringLiteral("Other")}));
    EXPECT_EQ(SortedKeys(depot, ServerFileDeletion),
              (QStringList{QStringLiteral("AB/g.txt"), QStringLiteral("top.txt")}));
}
