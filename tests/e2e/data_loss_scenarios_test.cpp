// Scenarios where a literal reading of the rules would lose a user's files: entries left out of
// one tree, names that clash in letter case, failed listings, a server root that vanished.

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "Scenario.h"
#include "SyncCodes.h"
#include "SyncEnums.h"

using sync::config::FolderConfiguration;
using sync::test::LogCapture;
using sync::test::Scenario;

namespace {

class DataLossScenario : public ::testing::Test {
protected:
    Scenario s;
};

// Hidden entries were synchronised; then the option is switched off. The walk no longer sees
// them, but that must not read as "deleted locally", and a server edit must not be downloaded
// over the local copy either: nothing is planned for them at all.
TEST_F(DataLossScenario, HiddenEntriesSwitchedOffAfterASyncAreLeftAlone) {
    s.UpdateRoot(
        [](FolderConfiguration& root) { root.setSyncOption(sync::config::SyncHiddenEntries); });
    s.SeedSynchronized({{"a.txt", "hello"}, {".env", "secret"}, {".cache/x", "xx"}});
    s.UpdateRoot([](FolderConfiguration& root) { root.setSyncOption(0); });
    s.WriteServer(".env", "changed on the server");
    s.WriteLocal(".cache/x", "changed locally");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/.cache/
        local /Docs/.cache/x "changed locally"
        local /Docs/.env "secret"
        local /Docs/a.txt "hello"
        server /Docs/
        server /Docs/.cache/
        server /Docs/.cache/x v1 "xx"
        server /Docs/.env v2 "changed on the server"
        server /Docs/a.txt v1 "hello"
        db root /Docs Synchronized
        db folder /Docs/.cache Synchronized
        db file /Docs/.cache/x v1 Synchronized
        db file /Docs/.env v1 Synchronized
        db file /Docs/a.txt v1 Synchronized
    )"));
}

// A filter added after a sync: the folder it names, and everything below it, keeps its records
// and neither side's copy is touched, whatever happens to either copy.
TEST_F(DataLossScenario, FilterAddedAfterASyncLeavesBothCopiesAlone) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"build/out.o", "obj"}, {"build/deep/lib.a", "lib"}});
    s.Exclude("build");
    s.RemoveLocal("build/deep");
    s.WriteServer("build/out.o", "rebuilt elsewhere");
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/build/
        local /Docs/build/out.o "obj"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/build/
        server /Docs/build/deep/
        server /Docs/build/deep/lib.a v1 "lib"
        server /Docs/build/out.o v2 "rebuilt elsewhere"
        db root /Docs Synchronized
        db folder /Docs/build Synchronized
        db folder /Docs/build/deep Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/build/deep/lib.a v1 Synchronized
        db file /Docs/build/out.o v1 Synchronized
    )"));
}

// Two names that differ only in letter case share one key: today one of them would silently
// win and be uploaded or downloaded over the other. Both are left out, on either side, and the
// log says which.
TEST_F(DataLossScenario, NamesThatDifferOnlyInLetterCaseAreLeftOutOnEitherSide) {
    s.SeedSynchronized({{"Notes.txt", "mine"}, {"report.txt", "v1"}});
    s.WriteLocal("notes.txt", "another file");
    s.WriteServer("REPORT.txt", "a colleague's");
    LogCapture log;
    s.RunCycle();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/Notes.txt "mine"
        local /Docs/notes.txt "another file"
        local /Docs/report.txt "v1"
        server /Docs/
        server /Docs/Notes.txt v1 "mine"
        server /Docs/REPORT.txt v1 "a colleague's"
        server /Docs/report.txt v1 "v1"
        db root /Docs Synchronized
        db file /Docs/Notes.txt v1 Synchronized
        db file /Docs/report.txt v1 Synchronized
    )"));
    const QStringList warnings = log.Messages(log4cplus::WARN_LOG_LEVEL);
    EXPECT_EQ(warnings.filter("differ only in letter case").size(), 2)
        << warnings.join('\n').toStdString();
}

// A root synchronised as the root folder only: a failed listing of its files must fail the
// root, not present an empty server side whose files all look deleted.
TEST_F(DataLossScenario, FailedRootOnlyListingFailsTheRootInsteadOfDeletingLocalFiles) {
    s.UpdateRoot(
        [](FolderConfiguration& root) { root.syncScope = sync::config::SyncScopeRootOnly; });
    s.SeedSynchronized({{"a.txt", "hello"}, {"b.txt", "bee"}});
    s.Server().FailOn("GetRootFiles", 500);
    const auto cycle = s.RunCycle();
    EXPECT_EQ(cycle.ErrorCodes().toStdString(), "500:1");
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/b.txt "bee"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/b.txt v1 "bee"
        db root /Docs OutOfSync
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/b.txt v1 Synchronized
    )"));
}

// The server root folder vanished. The first cycle fails the root (the server says 404); the
// next one creates the folder again, and the local content is planned for upload, never for
// deletion. A creation that fails leaves the records already marked, so the cycle after it
// uploads too. (Nothing executes yet; planning has reset the root's status.)
TEST_F(DataLossScenario, VanishedServerRootIsRecreatedAndItsContentUploaded) {
    for (bool creationFailsOnce : {false, true}) {
        SCOPED_TRACE(creationFailsOnce ? "creation fails once" : "creation succeeds");
        Scenario s;
        s.SeedSynchronized({{"a.txt", "hello"}, {"sub/b.txt", "bee"}});
        s.Server().Remove("/Docs");
        EXPECT_EQ(s.RunCycle().ErrorCodes().toStdString(), "404:1");
        if (creationFailsOnce) {
            s.Server().FailOn("CreateFolder", 503);
            const auto failed = s.RunCycle();
            EXPECT_EQ(failed.ErrorCodes().toStdString(), "503:1");
            EXPECT_EQ(failed.plan.size(), 0);
            s.Server().ClearFaults();
        }
        s.RunCycle();
        EXPECT_TRUE(s.Matches(R"(
            local /Docs/
            local /Docs/a.txt "hello"
            local /Docs/sub/
            local /Docs/sub/b.txt "bee"
            server /Docs/
            db root /Docs Synchronized
            db folder /Docs/sub NotSynchronized
            db file /Docs/a.txt v1 NotSynchronized
            db file /Docs/sub/b.txt v1 NotSynchronized
            plan ServerFileCreation /Docs/a.txt
            plan ServerFileCreation /Docs/sub/b.txt
            plan ServerFolderCreation /Docs/sub
        )"));
    }
}

// The records cannot be marked (the database refuses the write): nothing is created on the
// server, the root fails, and the records keep their state for the next attempt.
TEST_F(DataLossScenario, VanishedServerRootIsNotCreatedWhenItsRecordsCannotBeMarked) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.Server().Remove("/Docs");
    s.RunCycle();
    s.ExecSql(
        "CREATE TRIGGER refuse BEFORE UPDATE ON files BEGIN SELECT RAISE(ABORT, 'disk says no'); "
        "END;");
    const auto cycle = s.RunCycle();
    EXPECT_EQ(s.Server().Calls("CreateFolder"), 0);
    EXPECT_TRUE(cycle.reports.join('\n').contains("FolderSyncError /Docs"))
        << cycle.reports.join('\n').toStdString();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        db root /Docs OutOfSync
        db file /Docs/a.txt v1 Synchronized
    )"));
}

}  // namespace
