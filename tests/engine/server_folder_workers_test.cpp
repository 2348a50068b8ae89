// The folder workers that change the server, against the real database and the fake server.

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "ServerFolderCreationWorker.h"
#include "ServerFolderDeletionWorker.h"
#include "ServerWorkerTestEnv.h"

using namespace sync::syncService;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;
using sync::test::ServerWorkerEnv;
using Folders = QList<FolderConfiguration>;

namespace {

// "status failure-marker below parent-name" ("-" for a parent without record), or "none".
QString DbLine(ServerWorkerEnv& env, const QString& below) {
    const FolderConfiguration f =
        env.folders->GetFolderByPath(env.Local(below), env.root.authenticationId);
    const FolderConfiguration parent = env.folders->GetFolderById(f.parentId);
    if (f.id < 1) return "none";
    return QString("%1 f%2 below %3%4")
        .arg(int(f.getSyncStatus()))
        .arg(f.serverCreationFailed)
        .arg(parent.id == -1 ? "-" : parent.name)
        .arg(f.getServerFolderId().isEmpty() ? " no-server-id" : "");
}

}  // namespace

TEST(ServerFolderCreationWorkerTest, ParentsFirstBelowTheirServerIdsAndEveryOutcomeRecorded) {
    ServerWorkerEnv env;
    // A root known by its path only: the folders below it go below the server's "@root".
    env.root.setServerFolderId("");
    env.folders->UpdateFolder(env.root);
    // Left by a failed attempt, inheriting from a folder that does not lie above it.
    FolderConfiguration earlier = env.RecordedFolder("E", env.root.id);
    earlier.inheritedId = env.RecordedFolder("Other", env.root.id).id;
    earlier.serverCreationFailed = 1;
    env.folders->UpdateFolder(earlier);
    env.server->FailOn("/Docs/F", 403);
    ServerFolderCreationWorker worker(env.folders, env.recorder, env.files,
                                      env.core->CreateCheckForExit());
    sync::test::LogCapture log;

    const SyncResults r = env.Listen(worker).InnerWork(
        env.root, env.Tasks(ServerFolderCreation,
                            Folders{env.Folder("A/B"), env.Folder("F"), env.Folder("X/Y"),
                                    env.Folder("E"), env.Folder("A")}));

    EXPECT_EQ(env.recorder->calls,
              QStringList({"create /Docs/A below @root",
                           "create /Docs/A/B below " + env.server->Find("/Docs/A")->id,
                           "create /Docs/E below @root", "create /Docs/F below @root",
                           "create /Docs/X/Y below <InvalidFolderId>"}));
    EXPECT_EQ(r.FolderServerCreations, 3);
    EXPECT_EQ(r.FolderServerCreationErrorPaths, QStringList({env.Local("F"), env.Local("X/Y")}));
    EXPECT_EQ(env.Codes(r), "403:1 409:1");
    EXPECT_EQ(env.done, QStringList({"A 0", "A/B 0", "E 0", "F 2", "X/Y 2"}));
    EXPECT_EQ(DbLine(env, "A"), "0 f0 below Docs");
    EXPECT_EQ(DbLine(env, "A/B"), "0 f0 below A");
    // The earlier record is reused; the status monitor settles its status.
    EXPECT_EQ(DbLine(env, "E"), "1 f0 below Docs");
    EXPECT_EQ(env.folders->GetFolderById(earlier.id).inheritedId, env.root.id);
    // Recorded although it failed, marked so that the next cycle plans it again.
    EXPECT_EQ(DbLine(env, "F"), "2 f1 below Docs no-server-id");
    EXPECT_EQ(DbLine(env, "X/Y"), "none");
    EXPECT_TRUE(log.Contains(log4cplus::ERROR_LOG_LEVEL,
                             "Parent folder info cannot be found in the FolderConfiguration "
                             "table: missing parent is immediate parent of " +
                                 env.Local("X/Y")));
}

TEST(ServerFolderDeletionWorkerTest, AnswersDecideCountsCodesAndRecords) {
    const struct {
        const char* name;
        int status;      // DeleteFolder fails with it (thrown when negative); 0: succeeds
        int failCommit;  // the n-th record removal fails
        QStringList done;
        QString codes, recordOfB, recordOfA;
    } rows[] = {
        {"deleted", 0, 0, {"A/B 0", "A 0"}, "", "none", "none"},
        {"already gone", 404, 0, {"A/B 0", "A 0"}, "", "none", "none"},
        {"already gone, thrown", -404, 0, {"A/B 0", "A 0"}, "", "none", "none"},
        {"refused", 403, 0, {"A/B 2", "A 2"}, "403:2", "none", "none"},
        {"server error", 500, 0, {"A/B 2", "A 2"}, "500:2", "0 f0 below A", "0 f0 below Docs"},
        {"record kept", 0, 1, {"A/B 2", "A 0"}, "", "0 f0 below -", "none"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServerWorkerEnv env;
        env.server->PutFolder("/Docs/A/B");
        const FolderConfiguration a = env.RecordedFolder("A", env.root.id);
        const FolderConfiguration b = env.RecordedFolder("A/B", a.id);
        if (row.status > 0) env.server->FailOn("DeleteFolder", row.status);
        env.recorder->deleteThrows = -std::min(row.status, 0);
        env.backend->FailCommit(row.failCommit);
        ServerFolderDeletionWorker worker(env.folders, env.recorder, env.files,
                                          env.core->CreateCheckForExit());

        const SyncResults r =
            env.Listen(worker).InnerWork(env.root, env.Tasks(ServerFolderDeletion, Folders{a, b}));

        EXPECT_EQ(r.type, SyncResults::Tasks);
        EXPECT_EQ(env.recorder->calls, QStringList({"delete /Docs/A/B", "delete /Docs/A"}));
        EXPECT_EQ(env.done, row.done);
        EXPECT_EQ(r.FolderServerDeletions, row.done.filter(" 0").size());
        EXPECT_EQ(r.FolderServerDeletionErrors, row.done.filter(" 2").size());
        EXPECT_EQ(env.Codes(r), row.codes);
        EXPECT_EQ(DbLine(env, "A/B"), row.recordOfB);
        EXPECT_EQ(DbLine(env, "A"), row.recordOfA);
    }
}
