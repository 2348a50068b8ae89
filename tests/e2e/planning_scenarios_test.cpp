// Whole-tree scenarios of one cycle. Nothing executes yet, so each shows the planned changes.

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

TEST_F(PlanningScenario, NewLocalFileIsAddedLocally) {
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
        local Added file /Docs/new.txt
    )"));
}

TEST_F(PlanningScenario, FileEditedOnTheServerIsModifiedThere) {
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
        server Modified file /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, FileDeletedLocallyIsDeletedLocally) {
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
        local Deleted file /Docs/a.txt
    )"));
}

TEST_F(PlanningScenario, FileDeletedOnTheServerWhileEditedLocallyShowsBothActions) {
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
        local Modified file /Docs/a.txt
        server Deleted file /Docs/a.txt
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
