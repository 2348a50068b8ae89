// Whole-tree scenarios of one planning pass: seed both sides and the database, change them, run
// a cycle, and read the tasks the depot holds (nothing executes yet).

#include <gtest/gtest.h>

#include <functional>

#include "Scenario.h"

using sync::test::Scenario;

namespace {

class PlanningScenario : public ::testing::Test {
protected:
    Scenario s;
};

TEST_F(PlanningScenario, NothingChangedPlansNothing) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"sub/b.txt", "bee"}, {"empty/"}});
    const auto cycle = s.RunCycle();
    EXPECT_EQ(cycle.ErrorCodes().toStdString(), "");
    EXPECT_EQ(cycle.reports.join(", ").toStdString(),
              "SyncingFolders, BeginSyncingRootFolder 1, FinishedSyncingRootFolder 1, "
              "FinishedSyncingFolders");
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/empty/
        local /Docs/sub/
        local /Docs/sub/b.txt "bee"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/empty/
        server /Docs/sub/
        server /Docs/sub/b.txt v1 "bee"
        db root /Docs Synchronized
        db folder /Docs/empty Synchronized
        db folder /Docs/sub Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/sub/b.txt v1 Synchronized
    )"));
}

TEST_F(PlanningScenario, NewLocalFileIsUploaded) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteLocal("new.txt", "fresh");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/new.txt "fresh"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        plan ServerFileCreation /Docs/new.txt
    )"));
}

TEST_F(PlanningScenario, FileEditedOnTheServerIsDownloaded) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteServer("a.txt", "hello, world");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        server /Docs/
        server /Docs/a.txt v2 "hello, world"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        plan LocalFileCreation /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, FileDeletedLocallyIsDeletedOnTheServer) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"b.txt", "bee"}});
    s.RemoveLocal("a.txt");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/b.txt "bee"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/b.txt v1 "bee"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/b.txt v1 Synchronized
        plan ServerFileDeletion /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, FileDeletedOnTheServerWhileEditedLocallyIsUploadedAgain) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.RemoveServer("a.txt");
    s.WriteLocal("a.txt", "hello, edited");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello, edited"
        server /Docs/
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        plan ServerFileCreation /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, ServerListingFailingWith500FailsTheRootAndPlansNothing) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteLocal("new.txt", "fresh");
    s.Server().FailOn("GetFolderTree", 500);
    const auto cycle = s.RunCycle();
    EXPECT_EQ(cycle.ErrorCodes().toStdString(), "500:1");
    EXPECT_EQ(cycle.reports.filter("Error").join('\n').toStdString(), "FolderSyncError /Docs 500");
    EXPECT_EQ(cycle.actionLog.join('\n').toStdString(),
              "3 Docs http 500 https://fake.example/Docs /Docs");
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/new.txt "fresh"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        db root /Docs OutOfSync
        db file /Docs/a.txt v1 Synchronized
    )"));
}

TEST_F(PlanningScenario, EntriesAFilterLeavesOutAreNotPlannedEvenWhenGoneLocally) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"keep/b.txt", "bee"}});
    s.Exclude("keep");
    s.RemoveLocal("keep");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/keep/
        server /Docs/keep/b.txt v1 "bee"
        db root /Docs Synchronized
        db folder /Docs/keep Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/keep/b.txt v1 Synchronized
    )"));
}

// A server that answers "not modified" sends no tree: nothing may look deleted on the server,
// and the local edit is still planned.
TEST_F(PlanningScenario, NotModifiedServerTreePlansOnlyLocalChanges) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"b.txt", "bee"}});
    s.Server().answersNotModified = true;
    s.RunCycle();
    s.WriteLocal("a.txt", "hello, edited");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello, edited"
        local /Docs/b.txt "bee"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/b.txt v1 "bee"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/b.txt v1 Synchronized
        plan ServerFileCreation /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, SkipDownloadingNewFilesStillDownloadsEdits) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.UpdateRoot([](sync::config::FolderConfiguration& root) {
        root.syncOption |= sync::config::SkipDownloadingNewFiles;
    });
    s.WriteServer("a.txt", "hello, world");
    s.WriteServer("new.txt", "fresh");
    s.WriteServer("newdir/x.txt", "ex");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        server /Docs/
        server /Docs/a.txt v2 "hello, world"
        server /Docs/new.txt v1 "fresh"
        server /Docs/newdir/
        server /Docs/newdir/x.txt v1 "ex"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        plan LocalFileCreation /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, FileGoneOnBothSidesLeavesTheDatabaseWithoutATask) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"b.txt", "bee"}});
    s.RemoveLocal("a.txt");
    s.RemoveServer("a.txt");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/b.txt "bee"
        server /Docs/
        server /Docs/b.txt v1 "bee"
        db root /Docs Synchronized
        db file /Docs/b.txt v1 Synchronized
    )"));
}

// Entries on both sides that the database does not know: equal content (the server's checksum
// matches) is recorded as in step and only its references are uploaded; anything else goes
// through the matrix as added on both sides. A folder on both sides is recorded, no task.
TEST(PlanningScenarios, EntriesAddedOnBothSides) {
    const struct {
        const char* name;
        const char* serverContent;
        bool reportsHashes;
        const char* expected;
    } rows[] = {
        {"same content", "same", true, R"(
            server /Docs/both.txt v1 "same"
            db file /Docs/both.txt v1 OutOfSync
            plan ServerFileCreation /Docs/both.txt (references only)
        )"},
        {"other content", "other", true, R"(
            server /Docs/both.txt v1 "other"
            plan ServerFileCreation /Docs/both.txt
        )"},
        {"server keeps no hashes", "same", false, R"(
            server /Docs/both.txt v1 "same"
            plan ServerFileCreation /Docs/both.txt
        )"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Scenario s;
        s.SeedSynchronized({{"a.txt", "hello"}});
        s.Server().reportsHashes = row.reportsHashes;
        s.WriteLocal("dir/both.txt", "same");
        s.WriteServer("dir/both.txt", row.serverContent);
        s.RunCycle();
        EXPECT_TRUE(s.Matches(QString(R"(
            local /Docs/
            local /Docs/a.txt "hello"
            local /Docs/dir/
            local /Docs/dir/both.txt "same"
            server /Docs/
            server /Docs/a.txt v1 "hello"
            server /Docs/dir/
            db root /Docs Synchronized
            db folder /Docs/dir Synchronized
            db file /Docs/a.txt v1 Synchronized
        )") + QString::fromLatin1(row.expected).replace("/Docs/both", "/Docs/dir/both")));
    }
}

// A record that lost its server identity (an upload that never finished) takes the server's
// before the matrix sees the pair, in the database too.
TEST_F(PlanningScenario, IdentityHandOverReachesTheDatabase) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    const QString serverId =
        s.Files().GetFileByPath(s.LocalPath("a.txt"), s.RootRecord().authenticationId).serverFileId;
    ASSERT_FALSE(serverId.isEmpty());
    s.ExecSql("UPDATE files SET server_file_id = '', server_checksum = '';");
    s.WriteLocal("a.txt", "hello, here");
    s.WriteServer("a.txt", "hello, there");
    s.RunCycle();
    const sync::config::FileConfiguration stored =
        s.Files().GetFileByPath(s.LocalPath("a.txt"), s.RootRecord().authenticationId);
    EXPECT_EQ(stored.serverFileId, serverId);
    EXPECT_FALSE(stored.serverChecksum.isEmpty());
    EXPECT_TRUE(s.Listing().contains("plan ServerFileCreation /Docs/a.txt"))
        << s.Listing().join('\n').toStdString();
}

// An edit wins over a deletion made on the other side, for server edits too.
TEST_F(PlanningScenario, FileEditedOnTheServerAndDeletedLocallyComesBack) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteServer("a.txt", "hello, world");
    s.RemoveLocal("a.txt");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        server /Docs/
        server /Docs/a.txt v2 "hello, world"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        plan LocalFileCreation /Docs/a.txt
    )"));
}

// A folder deleted locally comes back when the server holds new content below it; the files
// the user deleted in it are still deleted on the server. Without new content the folder is
// deleted on the server as one task.
TEST(PlanningScenarios, FolderDeletedLocallyWithOrWithoutNewServerContent) {
    const struct {
        const char* name;
        bool newServerContent;
        const char* expected;
    } rows[] = {
        {"new server content", true, R"(
            server /Docs/sub/new.txt v1 "fresh"
            plan LocalFolderCreation /Docs/sub
            plan LocalFileCreation /Docs/sub/new.txt
            plan ServerFileDeletion /Docs/sub/b.txt
        )"},
        {"nothing new", false, R"(
            plan ServerFolderDeletion /Docs/sub
        )"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Scenario s;
        s.SeedSynchronized({{"a.txt", "hello"}, {"sub/b.txt", "bee"}});
        s.RemoveLocal("sub");
        if (row.newServerContent) s.WriteServer("sub/new.txt", "fresh");
        s.RunCycle();
        EXPECT_TRUE(s.Matches(QString(R"(
            local /Docs/
            local /Docs/a.txt "hello"
            server /Docs/
            server /Docs/a.txt v1 "hello"
            server /Docs/sub/
            server /Docs/sub/b.txt v1 "bee"
            db root /Docs Synchronized
            db folder /Docs/sub Synchronized
            db file /Docs/a.txt v1 Synchronized
            db file /Docs/sub/b.txt v1 Synchronized
        )") + QString::fromLatin1(row.expected)));
    }
}

TEST(PlanningScenarios, NoNetworkOrAStopRequestPlansNothing) {
    const struct {
        const char* name;
        std::function<void(Scenario&)> before;
        const char* reports;
    } rows[] = {
        {"no network", [](Scenario& s) { s.Core().SetConnected(false); }, "ConnectionError 3"},
        {"stop requested", [](Scenario& s) { s.Core().RequestStop(); }, ""},
        {"stop after the first poll", [](Scenario& s) { s.Core().StopAfterPolls(1); },
         "SyncingFolders, FinishedSyncingFolders"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Scenario s;
        s.SeedSynchronized({{"a.txt", "hello"}});
        s.WriteLocal("new.txt", "fresh");
        row.before(s);
        EXPECT_EQ(s.RunCycle().reports.join(", ").toStdString(), row.reports);
        EXPECT_TRUE(s.Matches(R"(
            local /Docs/
            local /Docs/a.txt "hello"
            local /Docs/new.txt "fresh"
            server /Docs/
            server /Docs/a.txt v1 "hello"
            db root /Docs Synchronized
            db file /Docs/a.txt v1 Synchronized
        )"));
    }
}

}  // namespace
