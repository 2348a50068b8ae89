#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QMap>

#include "LocalWorkerWorld.h"
#include "SyncConsts.h"

using namespace localWorkerTest;

QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

TEST(LocalFileCreationWorkerTest, DownloadsIntoPlaceAndACutTransferLeavesTheOldFile) {
    World w;
    w.SeedFolder("sub");
    w.SeedFile("a.txt", "old a");
    w.SeedFile("b.txt", "old b");
    w.server->PutFile("/Docs/a.txt", "new a");
    w.server->PutFile("/Docs/b.txt", "new b");
    w.server->PutFile("/Docs/sub/New.txt", "n");
    w.server->FailOn("/Docs/b.txt", 500);
    for (const char* below : {"sub/New.txt", "b.txt", "a.txt"}) w.Task(LocalFileCreation, below);

    const SyncResults r = w.Run(LocalFileCreation);
    EXPECT_EQ(Counted(w, r, SyncResults::FileLocalCreation), "2 done, 1 failed: b.txt");
    // In path order; known files keep their record, a new one joins its folder's record (the
    // tree is found by the lower-case key of "New.txt").
    EXPECT_EQ(w.downloads->prepared.join("\n"),
              "/Docs/a.txt id1 folder1 dir1 Synchronizing\n"
              "/Docs/b.txt id2 folder1 dir1 Synchronizing\n"
              "/Docs/sub/New.txt id-1 folder2 dir1 Synchronizing");
    EXPECT_EQ(w.done.join("\n"), "a.txt Synchronized\nb.txt OutOfSync\nsub/New.txt Synchronized");
    EXPECT_EQ(w.State(),
              "db a.txt Synchronizing dir1\ndb b.txt Synchronizing dir1\ndb sub/ Synchronized\n"
              "disk .{SyncTemp}/\ndisk .{SyncTemp}/b.txt.TMP \"ne\"\ndisk a.txt \"new a\"\n"
              "disk b.txt \"old b\"\ndisk sub/\ndisk sub/New.txt \"n\"");
}

TEST(LocalFileCreationWorkerTest, AStopBeforeTheDownloadLeavesOnlyTheMarks) {
    World w;
    w.SeedFile("a.txt", "old");
    w.server->PutFile("/Docs/a.txt", "new");
    w.Task(LocalFileCreation, "a.txt");
    w.core->StopAfterPolls(0);
    EXPECT_FALSE(w.Run(LocalFileCreation).anyWorkDone());
    EXPECT_EQ(w.done, QStringList());
    EXPECT_EQ(w.State(), "db a.txt Synchronizing dir1\ndisk a.txt \"old\"");
}

TEST(LocalWorkersTest, EachOutcomeIsCountedReportedAndLeftOnDiskAndInTheDatabase) {
    // A folder path exactly as long as the limit (temporary folder names are all as long).
    QString deep;
    while (deep.size() < sync::core::consts::LOCAL_FOLDER_MAX_PATH) deep += QString(200, 'x') + '/';
    deep.truncate(sync::core::consts::LOCAL_FOLDER_MAX_PATH - World().Local("").size());
    if (deep.endsWith('/')) deep[deep.size() - 1] = 'x';
    const QString deepName = deep.section('/', -1);
    struct Row {
        SyncTaskType type;
        QString name;
        std::function<void(World&)> setup;  // adds the tasks
        QString counted;
        QString done;  // in the order reported
        QString state;
    };
    auto tasks = [](SyncTaskType type, QStringList below) {
        return [=](World& w) {
            for (const QString& b : below) w.Task(type, b);
        };
    };
    const Row rows[] = {
        {LocalFileDeletion, "moved to the trash",
         [&](World& w) { w.SeedFile("a.txt", "x"), tasks(LocalFileDeletion, {"a.txt"})(w); },
         "1 done, 0 failed: ", "a.txt Synchronized", "log 9 a.txt a.txt\ntrash a.txt \"x\""},
        {LocalFileDeletion, "the trash refuses it",
         [&](World& w) {
             w.SeedFile("a.txt", "x");
             w.Write("blocker", "");
             w.core->SetTrashFolder(w.Local("blocker/trash"));
             tasks(LocalFileDeletion, {"a.txt"})(w);
         },
         "0 done, 1 failed: a.txt", "a.txt OutOfSync",
         "db a.txt OutOfSync dir3\ndisk a.txt \"x\"\ndisk blocker \"\"\nlog 15 a.txt 14: a.txt"},
        {LocalFileDeletion, "already gone",
         [&](World& w) {
             w.SeedFile("a.txt", "x");
             QFile::remove(w.Local("a.txt"));
             tasks(LocalFileDeletion, {"a.txt"})(w);
         },
         "1 done, 0 failed: ", "a.txt Synchronized", ""},
        {LocalFileDeletion, "stopped before the second",
         [&](World& w) {
             w.SeedFile("a.txt", "x"), w.SeedFile("b.txt", "y");
             tasks(LocalFileDeletion, {"a.txt", "b.txt"})(w);
             w.core->StopAfterPolls(1);
         },
         "1 done, 0 failed: ", "b.txt Synchronized",
         "db a.txt Synchronizing dir0\ndisk a.txt \"x\"\nlog 9 b.txt b.txt\ntrash b.txt \"y\""},
        {LocalFolderCreation, "parents first", tasks(LocalFolderCreation, {"A/B", "A"}),
         "2 done, 0 failed: ", "A Synchronized\nA/B Synchronized",
         "db A/ Synchronized\ndb A/B/ Synchronized in 2\ndisk A/\ndisk A/B/\nlog 17 A A\nlog 17 B "
         "A/B"},
        {LocalFolderCreation, "stopped before the second",
         [&](World& w) {
             tasks(LocalFolderCreation, {"A", "B"})(w);
             w.core->StopAfterPolls(1);
         },
         "1 done, 0 failed: ", "A Synchronized", "db A/ Synchronized\ndisk A/\nlog 17 A A"},
        {LocalFolderCreation, "already on the disk without a record",
         [&](World& w) { QDir().mkpath(w.Local("C")), tasks(LocalFolderCreation, {"C"})(w); },
         "0 done, 0 failed: ", "C Synchronized", "db C/ Synchronized\ndisk C/"},
        {LocalFolderCreation, "path too long", tasks(LocalFolderCreation, {deep}),
         "0 done, 1 failed: " + deep, deep + " OutOfSync", "log 18 " + deepName + " 20: " + deep},
        {LocalFolderCreation, "a file in the way",
         [&](World& w) { w.Write("F", "f"), tasks(LocalFolderCreation, {"F/G"})(w); },
         "0 done, 1 failed: F/G", "F/G OutOfSync", "disk F \"f\"\nlog 18 G F/G"},
        {LocalFolderDeletion, "children first",
         [&](World& w) {
             w.SeedFolder("A"), w.SeedFolder("A/B");
             tasks(LocalFolderDeletion, {"A", "A/B"})(w);
         },
         "2 done, 0 failed: ", "A/B Synchronized\nA Synchronized", "log 19 A A\nlog 19 B A/B"},
        {LocalFolderDeletion, "stopped before the second",
         [&](World& w) {
             w.SeedFolder("A"), w.SeedFolder("B");
             tasks(LocalFolderDeletion, {"A", "B"})(w);
             w.core->StopAfterPolls(1);
         },
         "1 done, 0 failed: ", "B Synchronized", "db A/ Synchronizing\ndisk A/\nlog 19 B B"},
        {LocalFolderDeletion, "already gone",
         [&](World& w) {
             w.SeedFolder("C"), QDir().rmdir(w.Local("C"));
             tasks(LocalFolderDeletion, {"C"})(w);
         },
         "0 done, 0 failed: ", "C Synchronized", ""},
        {LocalFolderDeletion, "holds something new",
         [&](World& w) {
             w.SeedFolder("D"), w.Write("D/.mine", "new");
             tasks(LocalFolderDeletion, {"D"})(w);
         },
         "0 done, 0 failed: ", "D OutOfSync", "db D/ OutOfSync\ndisk D/\ndisk D/.mine \"new\""},
        {LocalFolderDeletion, "empty but cannot be removed",
         [&](World& w) {
             w.SeedFolder("E"), w.core->refuseRemoval = true;
             tasks(LocalFolderDeletion, {"E"})(w);
         },
         "0 done, 1 failed: E", "E OutOfSync", "db E/ OutOfSync\ndisk E/\nlog 20 E 14: E"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name.left(60).toStdString());
        World w;
        row.setup(w);
        const SyncResults r = w.Run(row.type);
        EXPECT_EQ(Counted(w, r, kCategory[row.type]), row.counted);
        EXPECT_EQ(w.done.join("\n"), row.done);
        EXPECT_EQ(w.State(), row.state);
    }
}

TEST(LocalWorkersTest, ADatabaseFaultFailsItsBatchAndTheWorkerGoesOn) {
    struct Row {
        SyncTaskType type;
        int entries;  // f00, f01, ... at the root
        QString fault;
        int nth;
        QString outcome;  // counts, final reports, what is left
    };
    const Row rows[] = {
        // The second removal fails: the first file's record comes back with its batch, the
        // next batch's file is done; the trash holds every file that left the disk.
        {LocalFileDeletion, 21, "RemoveFile", 2,
         "1 done 20 failed | 20 OutOfSync, 1 Synchronized | "
         "20 db Synchronized dir0, 18 disk, 3 log, 3 trash | 0 downloads"},
        // The third folder's lookup fails after it was made: its batch's records are gone.
        {LocalFolderCreation, 21, "GetFolderByPath", 5,
         "1 done 20 failed | 20 OutOfSync, 1 Synchronized | 1 db Synchronizing, 4 disk, 3 log | "
         "0 downloads"},
        // The batch's commit fails: the records come back although the folders are gone.
        {LocalFolderDeletion, 2, "Commit", 1,
         "0 done 2 failed | 2 OutOfSync | 2 db Synchronized, 2 log | 0 downloads"},
        {LocalFileCreation, 2, "UpdateFile", 2,
         "0 done 2 failed | 2 OutOfSync | 2 db Synchronized dir0, 2 disk | 0 downloads"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(int(row.type));
        World w(true);
        for (int i = 0; i < row.entries; ++i) {
            const QString below = QString("f%1").arg(i, 2, 10, QChar('0'));
            if (row.type == LocalFileDeletion || row.type == LocalFileCreation)
                w.SeedFile(below, "old");
            if (row.type == LocalFileCreation) w.server->PutFile("/Docs/" + below, "new");
            if (row.type == LocalFolderDeletion) w.SeedFolder(below);
            w.Task(row.type, below);
        }
        w.store->FailOn(row.fault, row.nth);
        const SyncResults r = w.Run(row.type, false);

        const SyncResults::Category c = kCategory[row.type];
        EXPECT_EQ(r.errorPaths(c).size(), r.errors(c));
        QMap<QString, QString> last;  // the last report of each entry
        for (const QString& d : w.done) last[d.section(' ', 0, 0)] = d.section(' ', 1);
        QStringList left;  // the state's lines by kind, records by status
        for (const QString& line : w.State().split('\n', Qt::SkipEmptyParts))
            left << (line.startsWith("db ") ? "db " + line.section(' ', 2)
                                            : line.section(' ', 0, 0));
        const QString outcome = QString("%1 done %2 failed | %3 | %4 | %5 downloads")
                                    .arg(r.done(c))
                                    .arg(r.errors(c))
                                    .arg(Tally(last.values()), Tally(left))
                                    .arg(w.server->Calls("DownloadFiles"));
        EXPECT_EQ(outcome, row.outcome);
    }
}
