// Whole cycles: planning and execution against the real database, the real disk and every
// server backend (the stateful fake and the real ones). Each scenario compares what both sides
// and the database hold after the cycle, and checks that no file that existed before is gone
// unless a deletion was planned.

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>

#include "Scenario.h"

using sync::test::Scenario;
using sync::test::ServerSide;

namespace {

class CycleScenario : public ::testing::TestWithParam<ServerSide::Kind> {
protected:
    CycleScenario() : s(GetParam().make()) { s.ExecuteTasks(true); }

    // One cycle, and no file lost that was not planned for deletion.
    sync::test::Cycle Run() {
        const sync::test::Cycle cycle = s.RunCycle();
        EXPECT_EQ(s.LostFiles().join('\n').toStdString(), "");
        return cycle;
    }

    Scenario s;
};

TEST_P(CycleScenario, NewLocalTreeIsUploadedAndASecondCycleFindsNothingToDo) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteLocal("new.txt", "fresh");
    s.WriteLocal("sub/b.txt", "bee");
    s.MakeLocalFolder("empty/");
    EXPECT_EQ(Run().ErrorCodes().toStdString(), "");
    const QString converged = R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/empty/
        local /Docs/new.txt "fresh"
        local /Docs/sub/
        local /Docs/sub/b.txt "bee"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/empty/
        server /Docs/new.txt v1 "fresh"
        server /Docs/sub/
        server /Docs/sub/b.txt v1 "bee"
        db root /Docs Synchronized
        db folder /Docs/empty Synchronized
        db folder /Docs/sub Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/new.txt v1 Synchronized
        db file /Docs/sub/b.txt v1 Synchronized
    )";
    EXPECT_TRUE(s.Matches(QString(converged) + R"(
        plan ServerFileCreation /Docs/new.txt
        plan ServerFileCreation /Docs/sub/b.txt
        plan ServerFolderCreation /Docs/empty
        plan ServerFolderCreation /Docs/sub
    )"));
    Run();
    EXPECT_TRUE(s.Matches(converged));
}

TEST_P(CycleScenario, ServerChangesAreDownloaded) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteServer("a.txt", "hello, world");
    s.WriteServer("dir/new.txt", "fresh");
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello, world"
        local /Docs/dir/
        local /Docs/dir/new.txt "fresh"
        server /Docs/
        server /Docs/a.txt v2 "hello, world"
        server /Docs/dir/
        server /Docs/dir/new.txt v1 "fresh"
        db root /Docs Synchronized
        db folder /Docs/dir Synchronized
        db file /Docs/a.txt v2 Synchronized
        db file /Docs/dir/new.txt v1 Synchronized
        plan LocalFileCreation /Docs/a.txt
        plan LocalFileCreation /Docs/dir/new.txt
        plan LocalFolderCreation /Docs/dir
    )"));
}

TEST_P(CycleScenario, DeletionsAreCarriedOverBothWays) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"b.txt", "bee"}, {"c.txt", "sea"}});
    s.RemoveLocal("a.txt");
    s.RemoveServer("b.txt");
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/c.txt "sea"
        server /Docs/
        server /Docs/c.txt v1 "sea"
        trash b.txt "bee"
        db root /Docs Synchronized
        db file /Docs/c.txt v1 Synchronized
        plan ServerFileDeletion /Docs/a.txt
        plan LocalFileDeletion /Docs/b.txt
    )"));
}

// An edit wins over a deletion made on the other side, either way round; a folder deleted
// locally comes back for new server content, and what the user deleted in it goes.
TEST_P(CycleScenario, EditsWinOverDeletions) {
    s.SeedSynchronized({{"a.txt", "hello"}, {"b.txt", "bee"}, {"sub/c.txt", "sea"}});
    s.WriteServer("a.txt", "hello, server");
    s.RemoveLocal("a.txt");
    s.WriteLocal("b.txt", "bee, local");
    s.RemoveServer("b.txt");
    s.RemoveLocal("sub");
    s.WriteServer("sub/new.txt", "fresh");
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello, server"
        local /Docs/b.txt "bee, local"
        local /Docs/sub/
        local /Docs/sub/new.txt "fresh"
        server /Docs/
        server /Docs/a.txt v2 "hello, server"
        server /Docs/b.txt v1 "bee, local"
        server /Docs/sub/
        server /Docs/sub/new.txt v1 "fresh"
        db root /Docs Synchronized
        db folder /Docs/sub Synchronized
        db file /Docs/a.txt v2 Synchronized
        db file /Docs/b.txt v1 Synchronized
        db file /Docs/sub/new.txt v1 Synchronized
        plan LocalFileCreation /Docs/a.txt
        plan ServerFileCreation /Docs/b.txt
        plan LocalFolderCreation /Docs/sub
        plan LocalFileCreation /Docs/sub/new.txt
        plan ServerFileDeletion /Docs/sub/c.txt
    )"));
}

// Both sides changed the file: the local edit goes up, and the server's version it replaces is
// kept beside it, to come down with the next cycle.
TEST_P(CycleScenario, AFileChangedOnBothSidesKeepsTheLocalEdit) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteServer("a.txt", "hello, server");
    s.WriteLocal("a.txt", "hello, local edit");
    EXPECT_EQ(Run().ErrorCodes().toStdString(), "");
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello, local edit"
        server /Docs/
        server /Docs/a (conflict …).txt v1 "hello, server"
        server /Docs/a.txt v3 "hello, local edit"
        db root /Docs Synchronized
        db file /Docs/a.txt v3 Synchronized
        plan ServerFileCreation /Docs/a.txt
    )"));
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a (conflict …).txt "hello, server"
        local /Docs/a.txt "hello, local edit"
        server /Docs/
        server /Docs/a (conflict …).txt v1 "hello, server"
        server /Docs/a.txt v3 "hello, local edit"
        db root /Docs Synchronized
        db file /Docs/a (conflict …).txt v1 Synchronized
        db file /Docs/a.txt v3 Synchronized
        plan LocalFileCreation /Docs/a (conflict …).txt
    )"));
}

// The same edit on both sides: nothing is copied or written again, the record is only settled.
TEST_P(CycleScenario, TheSameEditOnBothSidesIsOnlyRecorded) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    s.WriteServer("a.txt", "hello, both");
    s.WriteLocal("a.txt", "hello, both");
    EXPECT_EQ(Run().ErrorCodes().toStdString(), "");
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello, both"
        server /Docs/
        server /Docs/a.txt v2 "hello, both"
        db root /Docs Synchronized
        db file /Docs/a.txt v2 Synchronized
    )"));
}

// An edit that keeps the file's size and whole-second time shows only in its content: the
// server's change is not downloaded over it, and the next cycle finds the edit and keeps both.
TEST_P(CycleScenario, AnEditItsTimeStampDoesNotShowIsNotOverwritten) {
    s.SeedSynchronized({{"a.txt", "hello"}});
    QFile file(s.LocalPath("a.txt"));
    const QDateTime seeded = QFileInfo(file).lastModified();
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_EQ(file.write("HELLO"), 5);
    ASSERT_TRUE(file.flush() && file.setFileTime(seeded, QFileDevice::FileModificationTime));
    file.close();
    s.WriteServer("a.txt", "hello, server");
    EXPECT_EQ(Run().ErrorCodes().toStdString(), "409:1");
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "HELLO"
        server /Docs/
        server /Docs/a.txt v2 "hello, server"
        db root /Docs OutOfSync
        db file /Docs/a.txt v1 OutOfSync
        plan LocalFileCreation /Docs/a.txt
    )"));
    Run();
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a (conflict …).txt "hello, server"
        local /Docs/a.txt "HELLO"
        server /Docs/
        server /Docs/a (conflict …).txt v1 "hello, server"
        server /Docs/a.txt v3 "HELLO"
        db root /Docs Synchronized
        db file /Docs/a (conflict …).txt v1 Synchronized
        db file /Docs/a.txt v3 Synchronized
        plan LocalFileCreation /Docs/a (conflict …).txt
    )"));
}

// The server refuses one upload of a batch: that file stays out of sync, the others go up, and
// the next cycle without the fault converges.
TEST_P(CycleScenario, AFaultInTheMiddleOfABatchIsMadeGoodByTheNextCycle) {
    if (!s.OnFakeServer()) GTEST_SKIP() << "faults are injected into the fake server only";
    s.SeedSynchronized({{"a.txt", "hello"}});
    for (const char* name : {"n1.txt", "n2.txt", "n3.txt"}) s.WriteLocal(name, name);
    s.Server().FailOn(s.ServerPath("n2.txt"), 503);
    const auto failed = Run();
    EXPECT_EQ(failed.ErrorCodes().toStdString(), "503:1");
    EXPECT_TRUE(s.Listing().contains("db file /Docs/n2.txt OutOfSync") ||
                !s.Listing().filter("db file /Docs/n2.txt").isEmpty())
        << s.Listing().join('\n').toStdString();
    EXPECT_FALSE(s.Listing().contains(R"(server /Docs/n2.txt v1 "n2.txt")"));
    s.Server().ClearFaults();
    Run();
    Run();
    EXPECT_TRUE(s.Matches(R"(
        local /Docs/
        local /Docs/a.txt "hello"
        local /Docs/n1.txt "n1.txt"
        local /Docs/n2.txt "n2.txt"
        local /Docs/n3.txt "n3.txt"
        server /Docs/
        server /Docs/a.txt v1 "hello"
        server /Docs/n1.txt v1 "n1.txt"
        server /Docs/n2.txt v1 "n2.txt"
        server /Docs/n3.txt v1 "n3.txt"
        db root /Docs Synchronized
        db file /Docs/a.txt v1 Synchronized
        db file /Docs/n1.txt v1 Synchronized
        db file /Docs/n2.txt v1 Synchronized
        db file /Docs/n3.txt v1 Synchronized
    )"));
}

INSTANTIATE_TEST_SUITE_P(Backends, CycleScenario, ::testing::ValuesIn(ServerSide::Kinds()),
                         [](const ::testing::TestParamInfo<ServerSide::Kind>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
