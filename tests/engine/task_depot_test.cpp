#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "FolderUtilities.h"
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

// The keys of one type, sorted and joined by spaces.
QString Keys(const SyncTaskDepot& depot, SyncTaskType type) {
    auto keys = depot.GetSyncTaskListKeys(type);
    QStringList list = keys ? QStringList(*keys) : QStringList();
    std::sort(list.begin(), list.end());
    return list.join(' ');
}

}  // namespace

TEST(SyncTaskDepotTest, StoresCopiesByTypeAndKeyLastWriterWins) {
    SyncTaskDepot depot;
    auto first = FileTask(ServerFileCreation, "a.txt", 1);
    auto second = FileTask(ServerFileCreation, "a.txt", 2);
    auto download = FileTask(LocalFileCreation, "a.txt", 3);
    for (FileSyncTask* t : {&first, &second, &download}) depot.AddSyncTask(*t);
    auto uploads = depot.GetSyncTaskList(ServerFileCreation);
    ASSERT_EQ(uploads->size(), 1);
    EXPECT_EQ(uploads->first()->GetFileConfig().size, 2);
    EXPECT_EQ(depot.GetSyncTaskList(LocalFileCreation)->size(), 1);

    // The depot owns copies: changing the caller's task leaves the stored one alone, while a
    // worker changing the stored record changes what later readers see.
    second.GetFileConfig().size = 99;
    EXPECT_EQ(uploads->first()->GetFileConfig().size, 2);
    uploads->first()->GetFileConfig().size = 5;
    EXPECT_EQ(depot.GetSyncTaskList(ServerFileCreation)->first()->GetFileConfig().size, 5);
    depot.RemoveSyncTask(first);
    EXPECT_TRUE(depot.GetSyncTaskList(ServerFileCreation)->isEmpty());

    // A folder task keeps a folder record, whichever of the four folder kinds it is.
    for (SyncTaskType type :
         {ServerFolderCreation, ServerFolderDeletion, LocalFolderCreation, LocalFolderDeletion}) {
        auto t = FolderTask(type, "Dir");
        depot.AddSyncTask(t);
        EXPECT_EQ(depot.GetSyncTaskList(type)->first()->GetFolderConfig().serverPath, "Dir");
    }
}

TEST(SyncTaskDepotTest, ConflictMarkingRemovesTransfersByExactKeyOnly) {
    SyncTaskDepot depot;
    for (SyncTaskType type : {ServerFileCreation, ServerFileDeletion, LocalFileCreation,
                              LocalFileDeletion, FileConflictMarking}) {
        auto same = FileTask(type, "A/x.txt");
        depot.AddSyncTask(same);
    }
    auto otherCase = FileTask(ServerFileCreation, "a/X.TXT");
    depot.AddSyncTask(otherCase);
    depot.RemoveConflictAndDuplicateTask();
    EXPECT_EQ(Keys(depot, ServerFileCreation), "a/X.TXT");
    for (SyncTaskType type : {ServerFileDeletion, LocalFileCreation, LocalFileDeletion})
        EXPECT_EQ(Keys(depot, type), "") << type;
    EXPECT_EQ(Keys(depot, FileConflictMarking), "A/x.txt");
}

TEST(SyncTaskDepotTest, ServerFolderDeletionAbsorbsNestedDeletionsWithoutRegardToCase) {
    SyncTaskDepot depot;
    for (const char* key : {"A", "A/B", "A/B/C", "Other"}) {
        auto t = FolderTask(ServerFolderDeletion, key);
        depot.AddSyncTask(t);
    }
    for (const char* key : {"a/b/f.txt", "AB/g.txt", "top.txt"}) {
        auto t = FileTask(ServerFileDeletion, key);
        depot.AddSyncTask(t);
    }
    depot.RemoveConflictAndDuplicateTask();
    EXPECT_EQ(Keys(depot, ServerFolderDeletion), "A Other");
    EXPECT_EQ(Keys(depot, ServerFileDeletion), "AB/g.txt top.txt");
}

// The pruning probes each key's ancestors in a set; it must keep exactly what comparing every
// pair with FolderUtilities::IsParent keeps, letter case, "/" and trailing slashes included.
TEST(SyncTaskDepotTest, NestedDeletionPruningEqualsThePairwiseRuleOnRandomTrees) {
    std::mt19937 random(7);
    const QStringList names{"a", "A", "b", "B", "ab", "/", "c"};
    auto randomPath = [&] {
        QString path = random() % 2 ? QStringLiteral("/") : QString();
        const int depth = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < depth; ++i) {
            const QString name = names.at(static_cast<int>(random() % names.size()));
            if (name == "/") continue;
            path += (i ? "/" : "") + name;
        }
        return path.isEmpty() ? QStringLiteral("/") : path;
    };
    for (int round = 0; round < 200; ++round) {
        SyncTaskDepot depot;
        QStringList folders, files;
        for (int i = 0; i < 6; ++i) {
            auto folder = FolderTask(ServerFolderDeletion, randomPath());
            if (!folders.contains(folder.GetKey())) folders << folder.GetKey();
            depot.AddSyncTask(folder);
            auto file = FileTask(ServerFileDeletion, randomPath() + "/f");
            if (!files.contains(file.GetKey())) files << file.GetKey();
            depot.AddSyncTask(file);
        }
        auto survivors = [&](const QStringList& keys) {
            QStringList kept;
            for (const QString& key : keys) {
                bool below = false;
                for (const QString& folder : folders)
                    below = below || (folder != key && sync::core::FolderUtilities::IsParent(
                                                           key, folder, Qt::CaseInsensitive));
                if (!below) kept << key;
            }
            kept.sort();
            return kept.join(' ');
        };
        const QString expectedFolders = survivors(folders);
        const QString expectedFiles = survivors(files);
        depot.RemoveConflictAndDuplicateTask();
        ASSERT_EQ(Keys(depot, ServerFolderDeletion), expectedFolders)
            << folders.join(' ').toStdString();
        ASSERT_EQ(Keys(depot, ServerFileDeletion), expectedFiles) << files.join(' ').toStdString();
    }
}
