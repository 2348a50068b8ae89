// The planning runner on fixed trees and change sets: where it stops, what it writes to the
// database on its own, and the text of its dumps. Whole-tree planning runs in the e2e scenarios.

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <memory>

#include "ConflictResolverFactory.h"
#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "LogCapture.h"
#include "SynchronizeRunner.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::test::LogCapture;

namespace {

// Hands out a copy of the tree it holds, and says whether the source changed.
class FixedRetriever : public sync::interf::IEntryInfoTreeRetriever {
public:
    std::shared_ptr<EntryInfoTree> GetEntryInfoTree(FolderConfiguration&) override {
        ++calls;
        auto copy = std::make_shared<EntryInfoTree>();
        copy->folderMap = tree.folderMap;
        copy->fileMap = tree.fileMap;
        return copy;
    }
    bool IsTreeModified() const override { return modified; }

    EntryInfoTree tree;
    bool modified = true;
    int calls = 0;
};

// Answers every diff with the change set it holds.
class FixedDiffer : public sync::interf::IEntryInfoTreeDiffer {
public:
    EntryInfoTreeChange Diff(EntryInfoTree&, EntryInfoTree&, bool) override {
        ++calls;
        return change;
    }
    bool DetectFileModified(FileConfiguration&, FileConfiguration&) override { return false; }
    bool DetectFileAdded(FileConfiguration&, EntryInfoTree&, EntryInfoTree&) override {
        return false;
    }
    bool DetectFileDeleted(FileConfiguration&) override { return false; }
    bool DetectFolderAdded(FolderConfiguration&, EntryInfoTree&, EntryInfoTree&) override {
        return false;
    }
    bool DetectFolderDeleted(FolderConfiguration&) override { return false; }

    EntryInfoTreeChange change;
    int calls = 0;
};

class CountingPreProcessor : public sync::interf::ISynchronizationPreProcessor {
public:
    void PreProcess(std::shared_ptr<EntryInfoTree>, std::shared_ptr<EntryInfoTree>,
                    std::shared_ptr<EntryInfoTree>) override {
        ++calls;
    }
    int calls = 0;
};

FileConfiguration File(const QString& serverPath, int id = -1) {
    FileConfiguration f;
    f.id = id;
    f.serverPath = serverPath;
    f.localPath = QStringLiteral("/home/u/Docs") + serverPath.mid(5);
    f.name = serverPath.section(QLatin1Char('/'), -1);
    return f;
}

FolderConfiguration Folder(const QString& serverPath, int id = -1) {
    FolderConfiguration f;
    f.id = id;
    f.serverPath = serverPath;
    f.localPath = QStringLiteral("/home/u/Docs") + serverPath.mid(5);
    return f;
}

class SynchronizeRunnerTest : public ::testing::Test {
protected:
    SynchronizeRunnerTest() {
        root.authenticationId = 1;
        root.serverPath = QStringLiteral("/Docs");
        root.localPath = QStringLiteral("/home/u/Docs");
        NewStore();
        for (FixedRetriever* r : {local.get(), config.get(), server.get()})
            r->tree.folderMap.insert(QStringLiteral("/docs"), root);
    }

    // An empty database that holds the root folder, so that its files belong to the account.
    void NewStore() {
        store = std::make_shared<sync::test::FakeConfigStore>();
        root.id = root.rootId = -1;
        ASSERT_TRUE(store->AddFolder(root));
    }

    // A record of the store, below the root.
    template <typename Record>
    Record Stored(Record record) {
        record.rootId = root.id;
        return record;
    }

    std::shared_ptr<SyncTaskDepot> Run() {
        SynchronizeRunner runner(std::make_shared<ConflictResolverFactory>(), local, config, server,
                                 localDiffer, serverDiffer, core, preProcessor, store, store,
                                 store);
        return runner.Process(root);
    }

    static int TaskCount(const SyncTaskDepot& depot) {
        int count = 0;
        for (int type = ServerFolderCreation; type <= FileConflictMarking; ++type)
            if (auto keys = depot.GetSyncTaskListKeys(static_cast<SyncTaskType>(type)))
                count += keys->size();
        return count;
    }

    FolderConfiguration root;
    std::shared_ptr<FixedRetriever> local = std::make_shared<FixedRetriever>();
    std::shared_ptr<FixedRetriever> config = std::make_shared<FixedRetriever>();
    std::shared_ptr<FixedRetriever> server = std::make_shared<FixedRetriever>();
    std::shared_ptr<FixedDiffer> localDiffer = std::make_shared<FixedDiffer>();
    std::shared_ptr<FixedDiffer> serverDiffer = std::make_shared<FixedDiffer>();
    std::shared_ptr<sync::test::FakeCore> core = std::make_shared<sync::test::FakeCore>();
    std::shared_ptr<CountingPreProcessor> preProcessor = std::make_shared<CountingPreProcessor>();
    std::shared_ptr<sync::test::FakeConfigStore> store =
        std::make_shared<sync::test::FakeConfigStore>();
};

TEST_F(SynchronizeRunnerTest, AnExitRequestAtEachCheckLeavesAnEmptyDepot) {
    FileConfiguration added = File("/Docs/new.txt");
    localDiffer->change.AddFileAction(Added, added);
    const struct {
        int pollsAnsweredFalse;
        int retrievals;  // local, config and server retrievers called so far
        int diffs;
    } rows[] = {{0, 0, 0}, {1, 1, 0}, {2, 2, 0}, {3, 3, 0}, {4, 3, 2}, {5, 3, 2}};
    for (const auto& row : rows) {
        local->calls = config->calls = server->calls = 0;
        localDiffer->calls = serverDiffer->calls = 0;
        core->StopAfterPolls(row.pollsAnsweredFalse);
        const auto depot = Run();
        ASSERT_TRUE(depot);
        const bool planned = row.pollsAnsweredFalse == 5;
        EXPECT_EQ(TaskCount(*depot), planned ? 1 : 0) << row.pollsAnsweredFalse;
        EXPECT_EQ(local->calls + config->calls + server->calls, row.retrievals)
            << row.pollsAnsweredFalse;
        EXPECT_EQ(localDiffer->calls + serverDiffer->calls, row.diffs) << row.pollsAnsweredFalse;
    }
}

TEST_F(SynchronizeRunnerTest, AnUnchangedServerTreeIsNotDiffed) {
    // "Not modified": the server side has nothing to report, the local change is still planned.
    server->modified = false;
    FileConfiguration added = File("/Docs/new.txt");
    localDiffer->change.AddFileAction(Added, added);
    auto depot = Run();
    EXPECT_EQ(serverDiffer->calls, 0);
    EXPECT_EQ(*depot->GetSyncTaskListKeys(ServerFileCreation), QList<QString>{"/Docs/new.txt"});
}

// Both sides report the file; the runner writes the server's identity to every copy and the
// database before the matrix sees the pair, or clears it when the edit must go up as new.
TEST_F(SynchronizeRunnerTest, IdentityHandOverReachesTheDatabaseRecord) {
    const struct {
        const char* name;
        EntryAction serverAction;
        EntryAction localAction;
        const char* serverPrivilegeInfo;
        const char* expectedId;
    } rows[] = {
        {"added on both sides", Added, Added, "", "srv-7"},
        {"edited here, deleted in another share", Deleted, Modified, "other", ""},
        {"edited here, deleted in this share", Deleted, Modified, "SHARE", "old-id"},
    };
    root.privilegeInfo = QStringLiteral("share");
    for (const auto& row : rows) {
        NewStore();
        FileConfiguration stored = Stored(File("/Docs/a.txt"));
        stored.serverFileId = row.localAction == Added ? QString() : QStringLiteral("old-id");
        ASSERT_TRUE(store->AddFile(stored));
        FileConfiguration localRecord = stored;
        if (row.localAction == Added) localRecord.id = -1;  // found by its path
        FileConfiguration serverRecord = File("/Docs/a.txt");
        serverRecord.serverFileId = QStringLiteral("srv-7");
        serverRecord.serverChecksum = QStringLiteral("abc");
        serverRecord.privilegeInfo = QString::fromLatin1(row.serverPrivilegeInfo);
        localDiffer->change = EntryInfoTreeChange();
        serverDiffer->change = EntryInfoTreeChange();
        localDiffer->change.AddFileAction(row.localAction, localRecord);
        serverDiffer->change.AddFileAction(row.serverAction, serverRecord);
        Run();
        EXPECT_EQ(store->GetFileById(stored.id).serverFileId.toStdString(), row.expectedId)
            << row.name;
    }
}

TEST_F(SynchronizeRunnerTest, AFileGoneOnBothSidesLeavesTheDatabaseWithoutATask) {
    FileConfiguration stored = Stored(File("/Docs/gone.txt"));
    ASSERT_TRUE(store->AddFile(stored));
    localDiffer->change.AddFileAction(Deleted, stored);
    serverDiffer->change.AddFileAction(Deleted, stored);
    LogCapture log;
    const auto depot = Run();
    EXPECT_EQ(TaskCount(*depot), 0);
    EXPECT_EQ(store->GetFileById(stored.id).id, -1);
    EXPECT_TRUE(log.Contains(log4cplus::INFO_LOG_LEVEL,
                             "File exists in database, but doesn't exist in local or server. "
                             "Removing it from database. File: /home/u/Docs/gone.txt "
                             "(/Docs/gone.txt)"));
}

// Server attributes that do not describe content follow the server for entries without a
// task; the content versions stay as the last transfer wrote them.
TEST_F(SynchronizeRunnerTest, ServerAttributesReachTheDatabaseForEntriesWithoutATask) {
    FolderConfiguration folder = Stored(Folder("/Docs/sub"));
    folder.parentId = root.id;
    ASSERT_TRUE(store->AddFolder(folder));
    FileConfiguration file = Stored(File("/Docs/sub/a.txt"));
    file.properties = {{"version", "3"}, {"versionId", "v3"}, {"color", "red"}};
    ASSERT_TRUE(store->AddFile(file));
    FileConfiguration edited = Stored(File("/Docs/sub/b.txt"));
    ASSERT_TRUE(store->AddFile(edited));
    config->tree.folderMap.insert("/docs/sub", folder);
    config->tree.fileMap.insert("/docs/sub/a.txt", file);
    config->tree.fileMap.insert("/docs/sub/b.txt", edited);

    FolderConfiguration serverFolder = folder;
    serverFolder.serverFolderId = "F-9";
    serverFolder.privileges = 2;
    FileConfiguration serverFile = file;
    serverFile.properties = {{"version", "4"}, {"versionId", "v4"}, {"color", "blue"}};
    serverFile.privileges = 6;
    serverFile.privilegeInfo = "shared";
    FileConfiguration serverEdited = edited;
    serverEdited.privileges = 2;
    server->tree.folderMap.insert("/docs/sub", serverFolder);
    server->tree.fileMap.insert("/docs/sub/a.txt", serverFile);
    server->tree.fileMap.insert("/docs/sub/b.txt", serverEdited);
    // b.txt has a task: its worker writes it.
    localDiffer->change.AddFileAction(Modified, edited);

    Run();
    const FileConfiguration a = store->GetFileById(file.id);
    EXPECT_EQ(a.privileges, 6);
    EXPECT_EQ(a.privilegeInfo, "shared");
    EXPECT_EQ(a.properties,
              (QMap<QString, QString>{{"version", "3"}, {"versionId", "v3"}, {"color", "blue"}}));
    const FolderConfiguration sub = store->GetFolderById(folder.id);
    EXPECT_EQ(sub.serverFolderId, "F-9");
    EXPECT_EQ(sub.privileges, 2);
    EXPECT_EQ(store->GetFileById(edited.id).privileges, sync::config::PrivilegeAll);
}

TEST_F(SynchronizeRunnerTest, ChangeDumpsCountEveryListAndShowTheirFirstEntries) {
    FolderConfiguration newFolder = Folder("/Docs/new");
    serverDiffer->change.AddFolderAction(Added, newFolder);
    FileConfiguration references = File("/Docs/linked.txt", 5);
    references.referencesOnly = 1;
    serverDiffer->change.AddFileAction(Modified, references);
    for (int i = 0; i < 30; ++i) {
        FileConfiguration added = File(QStringLiteral("/Docs/f%1.txt").arg(i, 2, 10, QChar('0')));
        localDiffer->change.AddFileAction(Added, added);
    }
    LogCapture log;
    Run();

    EXPECT_EQ(log.Messages(log4cplus::INFO_LOG_LEVEL).filter("hange").join('\n').toStdString(),
              "Changes in server /Docs: 0 file(s) added, 0 file(s) modified, 1 file(s) require "
              "only references update, 0 file(s) deleted, 1 folder(s) added, 0 folder(s) "
              "deleted\n"
              "Changes in local /home/u/Docs: 30 file(s) added, 0 file(s) modified, 0 file(s) "
              "require only references update, 0 file(s) deleted, 0 folder(s) added, 0 folder(s) "
              "deleted");
    const QStringList dumps = log.Messages(log4cplus::DEBUG_LOG_LEVEL).filter("***");
    ASSERT_EQ(dumps.size(), 5) << dumps.join('\n').toStdString();
    EXPECT_EQ(dumps.at(0), "***Server changes dump for /Docs***");
    EXPECT_EQ(dumps.at(1), "***Added folders in server***\n/Docs/new");
    EXPECT_EQ(dumps.at(2),
              "***Modified files in server requiring only references update***\n/Docs/linked.txt");
    EXPECT_EQ(dumps.at(3), "***Local changes dump for /home/u/Docs***");
    QStringList added = dumps.at(4).split('\n');
    EXPECT_EQ(added.takeFirst(), "***Added files in local***");
    EXPECT_EQ(added.size(), 26);
    EXPECT_EQ(added.last(), "... and 5 more");
    added.removeLast();
    for (const QString& path : added)
        EXPECT_TRUE(path.startsWith("/home/u/Docs/f")) << path.toStdString();
    EXPECT_EQ(added.removeDuplicates(), 0);
}

TEST_F(SynchronizeRunnerTest, TreeAndEmptyChangeDumps) {
    local->tree.fileMap.insert("/docs/a.txt", File("/Docs/a.txt"));
    server->tree.fileMap.insert("/docs/a.txt", File("/Docs/a.txt"));
    server->tree.fileMap.insert("/docs/b.txt", File("/Docs/b.txt"));
    LogCapture log;
    Run();
    EXPECT_EQ(log.Messages(log4cplus::INFO_LOG_LEVEL).join('\n').toStdString(),
              "Found 2 file(s) and 1 folder(s) in server /Docs\n"
              "Found 1 file(s) and 1 folder(s) in local /home/u/Docs\n"
              "No changes in server or local /home/u/Docs");
    const QStringList trace = log.Messages(log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(trace.size(), 11) << trace.join('\n').toStdString();
    EXPECT_EQ(trace.value(0), "Begin entry trees dump: /home/u/Docs");
    EXPECT_EQ(trace.value(1), "***Begin server tree***");
    EXPECT_EQ(trace.value(2), "/docs");
    EXPECT_EQ(trace.value(5), "***Begin config tree***");
    EXPECT_EQ(trace.value(7), "***Begin local tree***");
    EXPECT_EQ(trace.value(9), "/docs/a.txt");
    EXPECT_EQ(trace.value(10), "End entry trees dump: /home/u/Docs");
}

}  // namespace

namespace {

// A file on both sides that the database does not know is recorded when its content provably
// matches; a stale record of the same path and account is a duplicate and goes.
TEST_F(SynchronizeRunnerTest, FilesInStepOnBothSidesAreRecordedAndReplaceTheirDuplicates) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("a.txt");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("hello") == 5);
    file.close();
    const QString hash = core->CreateCryptographicHash()->GetFileHash(path);

    const struct {
        const char* name;
        QString serverChecksum;
        bool recorded;
    } rows[] = {{"same content", hash.toUpper(), true}, {"other content", "0123", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        NewStore();
        FileConfiguration duplicate = Stored(File("/Docs/a.txt"));
        duplicate.localPath = path;
        ASSERT_TRUE(store->AddFile(duplicate));
        FileConfiguration onDisk = File("/Docs/a.txt");
        onDisk.localPath = path;
        onDisk.size = 5;
        FileConfiguration listed = onDisk;
        listed.serverFileId = "srv-1";
        listed.serverChecksum = row.serverChecksum;
        listed.properties = {{"version", "2"}, {"versionId", "v2"}};
        local->tree.fileMap.insert("/docs/a.txt", onDisk);
        server->tree.fileMap.insert("/docs/a.txt", listed);
        LogCapture log;
        Run();

        const FileConfiguration stored = store->GetFileByPath(path, root.authenticationId);
        EXPECT_EQ(stored.id != duplicate.id, row.recorded);
        EXPECT_EQ(log.Contains(log4cplus::INFO_LOG_LEVEL,
                               "1 duplicate file(s) found in database and removed"),
                  row.recorded);
        if (!row.recorded) continue;
        EXPECT_EQ(stored.serverFileId, "srv-1");
        EXPECT_EQ(stored.checksum, hash);
        EXPECT_EQ(stored.properties.value("version"), "2");
        EXPECT_EQ(stored.transferDirection, 2);
        EXPECT_EQ(stored.syncStatus, sync::config::FileSynchronizationStatus::OutOfSync);
    }
}

// Hands out the real resolvers, except that resolving the first local change also takes a key
// out of the server change, as a resolver may.
class KeyTakingFactory : public sync::interf::factory::IConflictResolverFactory {
public:
    class Taker : public sync::interf::IFileConflictResolver {
    public:
        void Resolve(FileConfiguration&, FileConfiguration&, std::shared_ptr<EntryInfoTree>,
                     std::shared_ptr<EntryInfoTree>, std::shared_ptr<EntryInfoTree>,
                     std::shared_ptr<EntryInfoTreeChange> serverChange,
                     std::shared_ptr<EntryInfoTreeChange>, SyncTaskDepot&) override {
            serverChange->_fileActionMap.remove("/docs/taken.txt");
            serverChange->_fileMap.remove("/docs/taken.txt");
        }
    };
    std::shared_ptr<sync::interf::IFileConflictResolver> CreateFileConflictResolver(
        EntryAction s, EntryAction l) override {
        if (s == NoChange) return std::make_shared<Taker>();
        return _real.CreateFileConflictResolver(s, l);
    }
    std::shared_ptr<sync::interf::IFolderConflictResolver> CreateFolderConflictResolver(
        EntryAction s, EntryAction l) override {
        return _real.CreateFolderConflictResolver(s, l);
    }

private:
    ConflictResolverFactory _real;
};

TEST_F(SynchronizeRunnerTest, AServerKeyTakenOutByAResolverIsNotResolvedAgain) {
    FileConfiguration added = File("/Docs/local.txt");
    localDiffer->change.AddFileAction(Added, added);
    for (const char* path : {"/Docs/taken.txt", "/Docs/kept.txt"}) {
        FileConfiguration listed = File(path);
        serverDiffer->change.AddFileAction(Added, listed);
    }
    SynchronizeRunner runner(std::make_shared<KeyTakingFactory>(), local, config, server,
                             localDiffer, serverDiffer, core, preProcessor, store, store, store);
    const auto depot = runner.Process(root);
    EXPECT_EQ(*depot->GetSyncTaskListKeys(LocalFileCreation), QList<QString>{"/Docs/kept.txt"});
}

}  // namespace
