// The file workers that change the server, and conflict marking, against the real database,
// real files and the fake server.

#include <gtest/gtest.h>

#include "FileConflictMarkingWorker.h"
#include "LogCapture.h"
#include "ServerFileCreationWorker.h"
#include "ServerFileDeletionWorker.h"
#include "ServerWorkerTestEnv.h"
#include "SyncCodes.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::core::SyncResults;
using sync::test::ServerWorkerEnv;
using Files = QList<FileConfiguration>;

namespace {

// "status pending version" of a file's record, or "none".
QString DbLine(ServerWorkerEnv& env, const QString& below) {
    const FileConfiguration f = env.Db(below);
    if (f.id < 1) return "none";
    return QString("%1 %2 v%3%4")
        .arg(int(f.syncStatus))
        .arg(f.transferPending ? "pending" : "settled")
        .arg(f.properties.value("version", "-"))
        .arg(f.serverFileId.isEmpty() ? " no-server-id" : "");
}

SyncResults Upload(ServerWorkerEnv& env, const Files& files) {
    ServerFileCreationWorker worker(env.files, env.folders, env.recorder, env.server,
                                    env.core->CreateCheckForExit());
    return env.Listen(worker).InnerWork(env.root, env.Tasks(ServerFileCreation, files));
}

Files NewFiles(ServerWorkerEnv& env, int count) {
    Files files;
    for (int i = 0; i < count; ++i)
        files << env.LocalFile(QString("f%1.txt").arg(i, 3, 10, QChar('0')), "x");
    return files;
}

}  // namespace

TEST(ServerFileCreationWorkerTest, EveryOutcomeReachesTheRecordAndTheMonitor) {
    ServerWorkerEnv env;
    // Changed on both sides: the server is at v2, which the resolver handed to the local record.
    env.Seed("both.txt", "base");
    env.server->PutFile("/Docs/both.txt", "server edit");
    FileConfiguration both = env.LocalFile("both.txt", "local edit!");
    both.properties =
        env.server->FileRecord(*env.server->Find("/Docs/both.txt"), env.root).properties;
    env.server->FailOn("/Docs/refused.txt", 503);
    env.recorder->afterUpload = [](Files& files) {
        for (FileConfiguration& f : files)
            if (f.name == "stuck.txt")
                f.syncStatus = sync::config::FileSynchronizationStatus::Synchronizing;
    };
    sync::test::LogCapture log;

    const SyncResults r =
        Upload(env, {env.LocalFile("stuck.txt", "s"), both, env.LocalFile("refused.txt", "r"),
                     env.LocalFile("new.txt", "n")});

    EXPECT_TRUE(
        log.Contains(log4cplus::INFO_LOG_LEVEL, "ServerFileCreationWorker: performing 4 tasks"));
    // Prepared in one transaction, sorted by name; the upload names the server's v2.
    EXPECT_EQ(
        env.recorder->calls,
        QStringList{"upload after 1 commits: both.txt@vid-2 new.txt@ refused.txt@ stuck.txt@"});
    EXPECT_EQ(r.FileServerCreations, 3);
    EXPECT_EQ(r.FileServerCreationErrorPaths, QStringList{env.Local("refused.txt")});
    EXPECT_EQ(env.Codes(r), "503:1");
    EXPECT_EQ(env.done, QStringList({"both.txt 0", "new.txt 0", "refused.txt 2", "stuck.txt 2"}));
    EXPECT_EQ(DbLine(env, "both.txt"), "0 settled v3");
    EXPECT_EQ(DbLine(env, "new.txt"), "0 settled v1");
    // Never on the server: the next cycle plans it as new again, not as deleted there.
    EXPECT_EQ(DbLine(env, "refused.txt"), "2 pending v- no-server-id");
    EXPECT_EQ(DbLine(env, "stuck.txt"), "2 pending v1");
    // The record describes the content that went up: the next cycle sees no local change.
    EXPECT_EQ(env.Db("both.txt").size, 11);
    QDateTime seconds = both.lastModified.toUTC();
    EXPECT_EQ(env.Db("both.txt").lastModified, seconds.addMSecs(-seconds.time().msec()));
    EXPECT_EQ(env.server->Find("/Docs/both.txt")->content, "local edit!");
}

TEST(ServerFileCreationWorkerTest, PreparationCommitsEveryTwoHundredAndALostBatchFailsAlone) {
    for (const int failCommit : {0, 2}) {
        SCOPED_TRACE(failCommit);
        ServerWorkerEnv env;
        const Files files = NewFiles(env, 450);
        env.backend->FailCommit(failCommit);
        sync::test::LogCapture log;
        const SyncResults r = Upload(env, files);

        ASSERT_EQ(env.recorder->calls.size(), 1);
        EXPECT_TRUE(env.recorder->calls[0].startsWith("upload after 3 commits: f000.txt@"));
        const int lost = failCommit ? 200 : 0;  // records 201 to 400, rolled back, not uploaded
        EXPECT_EQ(r.FileServerCreations, 450 - lost);
        EXPECT_EQ(r.FileServerCreationErrors, lost);
        EXPECT_EQ(env.done.filter(" 2").size(), lost);
        EXPECT_EQ(env.done.size(), 450);
        EXPECT_EQ(DbLine(env, "f199.txt"), "0 settled v1");
        EXPECT_EQ(DbLine(env, "f200.txt"), lost ? "none" : "0 settled v1");
        EXPECT_EQ(env.server->Find("/Docs/f399.txt") == nullptr, bool(lost));
        EXPECT_EQ(DbLine(env, "f400.txt"), "0 settled v1");
        EXPECT_EQ(log.Contains(log4cplus::ERROR_LOG_LEVEL,
                               "Configuration database \"sync.db\": disk I/O error"),
                  bool(lost));
    }
}

TEST(ServerFileCreationWorkerTest, GeneratedFileWaitsForItsSourceAndIsDroppedWhenItFailed) {
    for (const bool sourceFails : {false, true}) {
        SCOPED_TRACE(sourceFails);
        ServerWorkerEnv env;
        const int sourceId = env.Seed("s.txt", "one").id;
        FileConfiguration source = env.LocalFile("s.txt", "two");
        source.id = sourceId;
        FileConfiguration generated = env.LocalFile("a.gen", "derived");
        generated.isGenerated = 1;
        generated.parentFileId = sourceId;
        if (sourceFails) env.server->FailOn("/Docs/s.txt", 500);

        Upload(env, {generated, source});

        QStringList batches = env.recorder->calls;
        for (QString& b : batches) b = b.section(": ", 1);
        EXPECT_EQ(batches, QStringList({"s.txt@vid-1", "a.gen@"}).mid(0, sourceFails ? 1 : 2));
        const QString status = sourceFails ? " 2" : " 0";
        EXPECT_EQ(env.done, QStringList({"s.txt" + status, "a.gen" + status}));
    }
}

TEST(ServerFileCreationWorkerTest, StopOrRefusedRequestLeavesPreparedFilesOutOfSync) {
    const struct {
        bool stop;  // after two files; otherwise the whole request is refused with 507
        QStringList done;
        QString codes, lastRecord;
    } rows[] = {
        {true, {"f000.txt 2", "f001.txt 2"}, "", "none"},
        {false, {"f000.txt 2", "f001.txt 2", "f002.txt 2"}, "507:3", "2 pending v- no-server-id"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.stop);
        ServerWorkerEnv env;
        const Files files = NewFiles(env, 3);
        if (row.stop)
            env.core->StopAfterPolls(2);
        else
            env.server->FailOn("UploadFiles", 507);
        const SyncResults r = Upload(env, files);
        EXPECT_EQ(env.done, row.done);
        EXPECT_EQ(env.recorder->calls.size(), row.stop ? 0 : 1);
        EXPECT_EQ(env.Codes(r), row.codes);
        EXPECT_EQ(DbLine(env, "f000.txt"), "2 pending v- no-server-id");
        EXPECT_EQ(DbLine(env, "f002.txt"), row.lastRecord);
        EXPECT_EQ(env.server->Listing(), QStringList{"server /Docs/"});
    }
}

TEST(ServerFileDeletionWorkerTest, DeletedFilesLoseTheirRecordsAndFailuresAreReported) {
    // A record that cannot be removed fails its file too; the next cycle finds it deleted on
    // both sides.
    for (const bool recordKept : {false, true}) {
        SCOPED_TRACE(recordKept);
        ServerWorkerEnv env;
        for (const char* name : {"a.txt", "b.txt", "c.txt"}) env.Seed(name, name);
        QFile::remove(env.Local("a.txt"));
        QFile::remove(env.Local("b.txt"));
        env.server->FailOn("/Docs/b.txt", 500);
        env.backend->FailCommit(recordKept ? 1 : 0);
        // A client that leaves the records to the worker.
        env.server->SetDatabase(nullptr);
        ServerFileDeletionWorker worker(env.server, env.server, env.folders, env.files,
                                        env.core->CreateCheckForExit());

        const SyncResults r = env.Listen(worker).InnerWork(
            env.root, env.Tasks(ServerFileDeletion, Files{env.Db("a.txt"), env.Db("b.txt")}));

        EXPECT_EQ(r.FileServerDeletions, 1);
        EXPECT_EQ(env.Codes(r), "500:1");
        EXPECT_EQ(r.FileServerDeletionErrorPaths,
                  QStringList({env.Local("b.txt"), env.Local("a.txt")}).mid(0, recordKept ? 2 : 1));
        EXPECT_EQ(env.done, QStringList({recordKept ? "a.txt 2" : "a.txt 0", "b.txt 2"}));
        EXPECT_EQ(DbLine(env, "a.txt") == "none", !recordKept);
        EXPECT_EQ(env.server->Listing(),
                  QStringList({"server /Docs/", R"(server /Docs/b.txt v1 "b.txt")",
                               R"(server /Docs/c.txt v1 "c.txt")"}));
    }
}

TEST(FileConflictMarkingWorkerTest, MarksRecordedFilesOutOfSyncAndSkipsTheRest) {
    ServerWorkerEnv env;
    env.Seed("a.txt", "a");
    FileConfiguration conflict = env.LocalFile("a.txt");
    conflict.transferDirection = sync::config::TransferUpload;
    conflict.lastTransferAttempt = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    FileConflictMarkingWorker worker(env.files, env.core->CreateCheckForExit());
    env.core->RequestStop();  // it runs to the end regardless

    const SyncResults r = env.Listen(worker).InnerWork(
        env.root, env.Tasks(FileConflictMarking, Files{conflict, env.LocalFile("x.txt", "x")}));

    EXPECT_FALSE(r.anyWorkDone());
    EXPECT_EQ(env.done, QStringList{"a.txt 2"});
    EXPECT_EQ(DbLine(env, "a.txt"), "2 settled v1");
    EXPECT_EQ(env.Db("a.txt").transferDirection, sync::config::TransferUpload);
    EXPECT_EQ(env.Db("a.txt").lastTransferAttempt, conflict.lastTransferAttempt);
    EXPECT_EQ(DbLine(env, "x.txt"), "none");
}
