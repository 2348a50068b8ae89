#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>
#include <stdexcept>

#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "FakeServer.h"
#include "HttpException.h"
#include "ISyncHostApplication.h"
#include "ISyncTaskEngine.h"
#include "ISynchronizeRunner.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "LogCapture.h"
#include "QDirWrapper.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "SyncCodes.h"
#include "SyncServiceException.h"
#include "SyncTaskDepot.h"
#include "Synchronizer.h"
#include "TransactionalScope.h"

// Readable failure messages for Qt strings.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

using namespace sync::test;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;
using FileStatus = sync::config::FileSynchronizationStatus;
using Status = sync::config::FolderSynchronizationStatus;
using sync::database::TransactionalScope;
using sync::syncService::SyncTaskDepot;
using Depot = std::shared_ptr<SyncTaskDepot>;
using ::testing::_;
using ::testing::Field;
using ::testing::Return;
using ::testing::UnorderedElementsAre;

namespace {

const auto INFO = log4cplus::INFO_LOG_LEVEL;
const auto WARN = log4cplus::WARN_LOG_LEVEL;
const auto ERROR = log4cplus::ERROR_LOG_LEVEL;

// The companions whose calls are the behaviour under test: the host is told, the runner is
// asked to plan, the task engine gets the filtered counts.
class MockSyncHostApplication : public sync::interf::ISyncHostApplication {
public:
    MOCK_METHOD(QString, GetRootFolderText, (), (override));
    MOCK_METHOD(bool, IsSyncAllowed, (), (override));
    MOCK_METHOD(void, SyncStarted, (), (override));
    MOCK_METHOD(bool, PreProcessFiles, (const FolderConfiguration&, Depot), (override));
    MOCK_METHOD(void, PostProcessFiles, (const FolderConfiguration&, Depot, SyncResults&),
                (override));
    MOCK_METHOD(void, SyncFinished, (), (override));
};

class MockSynchronizeRunner : public sync::interf::ISynchronizeRunner {
public:
    MOCK_METHOD(Depot, Process, (FolderConfiguration&), (override));
};

class MockSyncTaskEngine : public sync::interf::ISyncTaskEngine {
public:
    MOCK_METHOD(SyncResults, Process,
                (const FolderConfiguration&, std::shared_ptr<sync::interf::ISyncTaskDepot>),
                (override));
    MOCK_METHOD(void, SetFilteredLocalFolderCount, (int), (override));
    MOCK_METHOD(void, SetFilteredLocalFileCount, (int), (override));
    MOCK_METHOD(void, SetFilteredServerFolderCount, (int), (override));
    MOCK_METHOD(void, SetFilteredServerFileCount, (int), (override));
    MOCK_METHOD(void, InitFilteredCount, (), (override));
    MOCK_METHOD(void, TransferLocalOrServerFolderCreated,
                (const QString&, sync::config::FolderSynchronizationStatus), (override));
    MOCK_METHOD(void, HandleSubFolderFilteredOut, (QString), (override));
    MOCK_METHOD(void, HandleFileFilteredOut, (QString), (override));
};

// The host's choice of root folders: all but the excluded ones.
class ExcludedRoots : public sync::interf::IFolderFilter {
public:
    bool IsRootFolderIncluded(const FolderConfiguration& root) override {
        return !ids.contains(root.id);
    }
    QSet<int> ids;
};

// The host's receiver of the cycle's reports: one line per report, in arrival order.
class Recorder : public sync::interf::ISyncSignalsAndSlots {
public:
    void HandleConnectionError(int code) override { Add("ConnectionError", code); }
    void HandleSyncingFolders() override { Add("SyncingFolders"); }
    void HandleFolderSyncError(QString path, long id, int code) override {
        Add("FolderSyncError", path, id, code);
    }
    void HandleFolderAuthenticationError(long id) override { Add("FolderAuthenticationError", id); }
    void HandleFinishedSyncingFolders(bool e) override { Add("FinishedSyncingFolders", int(e)); }
    void HandleBeginSyncingRootFolder(long id, SyncResults r, bool first) override {
        begun << r;
        Add("Begin", id, int(first));
    }
    void HandleFinishedSyncingRootFolder(long id, SyncResults r, bool first) override {
        finished << r;
        Add("Finished", id, int(first));
    }
    void HandleSubFolderNameNotAllowed(QString path) override {
        Add("SubFolderNameNotAllowed", path);
    }

    QStringList Matching(const QString& prefix) const {
        return lines.filter(QRegularExpression("^" + prefix));
    }

    QStringList lines;
    QList<SyncResults> begun, finished;
    bool allOnOwnThread = true;

private:
    template <class... A>
    void Add(const QString& name, const A&... args) {
        lines << (QStringList{name} << ... << QVariant::fromValue(args).toString()).join(' ');
        if (QThread::currentThread() != thread()) allOnOwnThread = false;
    }
};

// Stands for the process ending while the server folder is being created: a batch of writes
// still open then would be lost.
struct Interrupted {};

class InterruptedServer : public FakeServer {
public:
    Results CreateFolder(Folder&, const QString&, bool) override {
        openBatches = TransactionalScope::Depth();
        throw Interrupted{};
    }
    int openBatches = -1;
};

template <class T>
using Nice = ::testing::NiceMock<T>;

class SynchronizerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        Reset();
        ON_CALL(*runner, Process).WillByDefault([](auto&) {
            return std::make_shared<SyncTaskDepot>();
        });
        // Like the status monitor, marks a root that ran without errors as synchronised.
        ON_CALL(*engine, Process).WillByDefault([this](const FolderConfiguration& root, auto) {
            const SyncResults r = engineResults.value(root.id);
            FolderConfiguration current = store->GetFolderById(root.id);
            if (!r.anyErrors() && current.id >= 0) {
                current.setSyncStatus(Status::Synchronized);
                store->UpdateFolder(current);
            }
            return r;
        });
        ON_CALL(*host, PreProcessFiles).WillByDefault(Return(true));
        ON_CALL(*host, GetRootFolderText).WillByDefault(Return(QString("root text")));
    }

    void TearDown() override { TransactionalScope::SetBackend(nullptr); }

    // A table row starts from an empty database with one account, an empty server, a connected
    // machine and no reports.
    void Reset() {
        store = std::make_shared<FakeConfigStore>();
        TransactionalScope::SetBackend(store->TransactionBackend());
        sync::config::ServerConfiguration account;
        account.baseUrl = "https://files.example/";  // joined with exactly one "/"
        store->AddAccount(account);
        server = std::make_shared<FakeServer>();
        core->SetConnected(true);
        core->StopAfterPolls(-1);
        core->ClearActionLog();
        engineResults.clear();
        recorder.reset(new Recorder);
    }

    std::unique_ptr<sync::syncService::Synchronizer> Make(QSharedPointer<Recorder> receiver = {}) {
        return std::make_unique<sync::syncService::Synchronizer>(
            store, store, host, store, store, server, dir, engine, core, nullptr, receiver,
            localRetriever, nullptr, serverRetriever, runner, filter);
    }

    // One cycle; the reports it queued for the host are delivered before it returns.
    SyncResults Run() {
        const SyncResults total = Make(recorder)->Synchronize();
        QCoreApplication::sendPostedEvents();
        return total;
    }

    void VerifyMocks() {
        ::testing::Mock::VerifyAndClearExpectations(runner.get());
        ::testing::Mock::VerifyAndClearExpectations(host.get());
    }

    // A root folder record of the account; its local directory and its server folder exist
    // unless told otherwise.
    FolderConfiguration AddRoot(const QString& name, Status status = Status::Synchronized,
                                bool local = true, bool onServer = true) {
        FolderConfiguration f;
        f.authenticationId = 1;
        f.name = name;
        f.localPath = tmp.filePath(name);
        f.serverPath = "/remote/" + name;
        f.serverRootPath = "/remote";
        f.privilegeInfo = "info";
        f.setSyncStatus(status);
        if (local) QDir().mkpath(f.localPath);
        if (onServer) server->PutFolder(f.serverPath);
        EXPECT_TRUE(store->AddFolder(f));
        return f;
    }
    void Put(const FolderConfiguration& f) { EXPECT_TRUE(store->UpdateFolder(f)); }

    // Records whose root folder record is gone.
    void AddOrphans(int folders, int files) {
        for (int i = 0; i < folders; ++i) {
            FolderConfiguration f;
            f.rootId = f.parentId = 99;
            f.localPath = QString("/old/f%1").arg(i);
            EXPECT_TRUE(store->AddFolder(f));
        }
        for (int i = 0; i < files; ++i) {
            FileConfiguration f;
            f.rootId = 99;
            f.localPath = QString("/old/x%1").arg(i);
            store->AddFile(f);
        }
    }

    QTemporaryDir tmp;
    std::shared_ptr<FakeConfigStore> store;
    std::shared_ptr<FakeServer> server;
    std::shared_ptr<FakeCore> core = std::make_shared<FakeCore>();
    InstalledCore installed{core};  // the action log
    QMap<int, SyncResults> engineResults;
    QSharedPointer<Recorder> recorder{new Recorder};

    std::shared_ptr<Nice<MockSyncHostApplication>> host =
        std::make_shared<Nice<MockSyncHostApplication>>();
    std::shared_ptr<Nice<MockSyncTaskEngine>> engine = std::make_shared<Nice<MockSyncTaskEngine>>();
    std::shared_ptr<Nice<MockSynchronizeRunner>> runner =
        std::make_shared<Nice<MockSynchronizeRunner>>();
    std::shared_ptr<sync::core::QDirWrapper> dir = std::make_shared<sync::core::QDirWrapper>();
    // Only the sources of the filter notices: planning is the runner's.
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localRetriever =
        std::make_shared<sync::syncService::LocalEntryInfoTreeRetriever>(nullptr, nullptr, core,
                                                                         nullptr, nullptr);
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverRetriever =
        std::make_shared<sync::syncService::ServerEntryInfoTreeRetriever>(
            nullptr, nullptr, core, nullptr, nullptr, nullptr, nullptr);
    std::shared_ptr<ExcludedRoots> filter;
};

TEST_F(SynchronizerTest, CycleWithNothingToSynchronizeOrNoNetworkOrAStopRequest) {
    struct Row {
        const char* name;
        bool connected, stop;
        QStringList log, reports;
    };
    const Row rows[] = {
        {"only a reset root",
         true,
         false,
         {"Sync beginning", "No folder is enabled for sync", "Sync finished successfully"},
         {"SyncingFolders", "FinishedSyncingFolders 0"}},
        {"no network", false, false, {"No internet connection"}, {"ConnectionError 3"}},
        {"stop request", true, true, {}, {}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        FolderConfiguration reset = AddRoot("reset");
        reset.setSyncOption(sync::config::RootFolderReset);  // skipped silently
        Put(reset);
        AddOrphans(1, 1);  // the audit removes them
        core->SetConnected(row.connected);
        core->StopAfterPolls(row.stop ? 0 : -1);
        const int runs = row.connected && !row.stop;
        EXPECT_CALL(*host, SyncStarted).Times(runs);
        EXPECT_CALL(*host, SyncFinished).Times(runs);
        EXPECT_CALL(*runner, Process).Times(0);
        LogCapture log;
        Run();
        EXPECT_EQ(log.Messages(row.connected ? INFO : ERROR), row.log);
        // Besides those, only the audit's two lines per kind of orphan.
        EXPECT_EQ(log.Lines().size(), size_t(row.log.size() + 4 * runs));
        EXPECT_EQ(store->GetFoldersOfMissingRootFolders().size(), 1 - runs);
        EXPECT_EQ(store->GetFilesOfMissingRootFolders().size(), 1 - runs);
        EXPECT_EQ(store->Calls("ReleaseMemory"), 1);
        EXPECT_EQ(recorder->lines, row.reports);
        VerifyMocks();
    }
}

// The audit repairs root records and removes records without a root; a filtered root is skipped
// without a word, a duplicate differing only in case is removed. Neither is synchronised.
TEST_F(SynchronizerTest, RootRecordsAreAuditedFilteredAndDeduplicated) {
    FolderConfiguration docs = AddRoot("Docs");
    docs.privilegeInfo.clear();
    Put(docs);
    FolderConfiguration dup = AddRoot("dup");
    dup.localPath = tmp.filePath("DOCS");
    Put(dup);
    // Only the audit sees a root that is not synchronised in this cycle.
    FolderConfiguration filtered = AddRoot("filtered");
    filtered.inheritedId = -1;
    Put(filtered);
    filter = std::make_shared<ExcludedRoots>();
    filter->ids = {filtered.id};
    AddOrphans(3, 2);
    EXPECT_CALL(*runner, Process).Times(1);
    LogCapture log;
    Run();
    EXPECT_EQ(log.Messages(INFO),
              (QStringList{"Sync beginning", "Syncing root folder " + docs.localPath,
                           "Sync finished successfully for root folder " + docs.localPath,
                           "Sync finished successfully"}));
    EXPECT_EQ(log.Messages(WARN),
              (QStringList{"Incorrect RootId found in database for root folder " +
                               filtered.localPath + ". Fixing it.",
                           "3 folder(s) found in database whose root folders don't exist. "
                           "Removing these invalid folders.",
                           "2 file(s) found in database whose root folders don't exist. "
                           "Removing these invalid files.",
                           "Duplicate root folder record " + dup.localPath +
                               " found in database. Removing it."}));
    EXPECT_EQ(store->GetFolderById(filtered.id).inheritedId, filtered.id);
    EXPECT_EQ(store->GetFolderById(docs.id).privilegeInfo, QString("root text"));
    EXPECT_TRUE(store->GetFoldersOfMissingRootFolders().isEmpty());
    EXPECT_TRUE(store->GetFilesOfMissingRootFolders().isEmpty());
    QList<int> ids;
    for (const FolderConfiguration& f : store->GetRootFolders()) ids << f.id;
    EXPECT_EQ(ids, (QList<int>{1, 3}));
    EXPECT_EQ(recorder->Matching("Finished "), QStringList{"Finished 1 0"});
}

// Location kinds 1, 3 and 5 are local disks: a missing root is gone for good. Any other kind
// may be a network drive that is only unreachable now.
TEST_F(SynchronizerTest, MissingLocalRootIsRemovedOrMarkedByLocationKind) {
    struct Row {
        const char* name;
        int kind;
        bool keepOnRemoval, otherRootOfAccount;
    };
    const Row rows[] = {{"kind 1", 1, false, false},     {"kind 3", 3, false, false},
                        {"kind 5 kept", 5, true, false}, {"account in use", 1, false, true},
                        {"kind 2", 2, false, false},     {"kind 0", 0, false, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        FolderConfiguration root = AddRoot("gone", Status::Synchronized, false);
        root.inheritedValue = row.kind;
        if (row.keepOnRemoval) root.setSyncOption(sync::config::KeepRootFolderOnRemoval);
        Put(root);
        const QString path = root.localPath;
        if (row.otherRootOfAccount) AddRoot("kept");
        const bool removed = row.kind % 2 == 1;
        LogCapture log;
        Run();
        // The account goes with its last root, unless the root is added back parked: it
        // still needs its credentials then.
        EXPECT_EQ(store->GetAccount(1).id == 1,
                  !removed || row.otherRootOfAccount || row.keepOnRemoval);
        EXPECT_EQ(core->ActionLogLines(),
                  QStringList{QString(removed ? "27 gone 19:%1 %1" : "4 gone 3:%1 %1").arg(path)});
        QStringList expected{QString("FinishedSyncingFolders %1").arg(removed ? 0 : 1)};
        if (row.otherRootOfAccount) expected.prepend("Finished 2 0");
        EXPECT_EQ(recorder->Matching("Finished"), expected);
        EXPECT_TRUE(log.Contains(
            INFO, removed ? "Sync finished successfully" : "Sync finished with errors"));
        QList<FolderConfiguration> left;
        for (const FolderConfiguration& f : store->GetRootFolders())
            if (f.localPath == path) left << f;
        EXPECT_EQ(left.size(), removed ? int(row.keepOnRemoval) : 1);
        for (const FolderConfiguration& f : left) {  // kept as it is, or added back parked
            EXPECT_EQ(f.id != root.id, removed);
            EXPECT_EQ(f.hasSyncOption(sync::config::RootFolderReset), removed);
            EXPECT_EQ(f.getSyncStatus(), removed ? Status::NotSynchronized : Status::OutOfSync);
        }
    }
}

TEST_F(SynchronizerTest, NeverSynchronizedRootGetsItsMissingSideCreated) {
    const QString deep = AddRoot("deep/local", Status::NotSynchronized, false).localPath;
    // Its server folder needs a parent that is not there either.
    const int serverless = AddRoot("new/serverless", Status::NotSynchronized, true, false).id;
    const QString both = AddRoot("both", Status::NotSynchronized, false, false).localPath;
    FolderConfiguration top = AddRoot("top", Status::OutOfSync, true, false);
    top.serverPath = "/REMOTE/";  // the server's own root: never asked for, never created
    Put(top);
    const QString broken = AddRoot("broken", Status::NotSynchronized, true, false).localPath;
    const QString full = AddRoot("full", Status::NotSynchronized, true, false).localPath;
    AddRoot("after", Status::NotSynchronized, true, false);  // a full server ends the cycle first
    server->FailOn("/remote/broken", 401);
    server->FailOn("CreateFolder", 507, 2);  // the second creation, of /remote/full
    LogCapture log;
    const SyncResults total = Run();
    EXPECT_TRUE(QFileInfo(deep).isDir());
    EXPECT_FALSE(QFileInfo(both).exists());
    EXPECT_EQ(server->Listing(),
              (QStringList{"server /remote/", "server /remote/deep/", "server /remote/deep/local/",
                           "server /remote/new/", "server /remote/new/serverless/"}));
    EXPECT_TRUE(log.Contains(
        ERROR,
        "Both server root folder '/remote/both' and local root folder '" + both + "' not found"));
    EXPECT_TRUE(log.Contains(ERROR,
                             "Failed to create server root folder /remote/broken. Failed to read "
                             "server folder /remote/broken"));
    EXPECT_EQ(store->GetFolderById(serverless).getServerFolderId(),
              server->Find("/remote/new/serverless")->id);
    EXPECT_EQ(total.FolderLocalCreations, 1);
    EXPECT_EQ(total.FolderServerCreations, 1);
    // A root whose creation failed is reported with the server's status and not planned: 401
    // asks for credentials, 507 ends the cycle.
    EXPECT_EQ(total.FolderServerCreationErrorPaths,
              (QStringList{"/remote/broken", "/remote/full"}));
    EXPECT_EQ(total.errorCodes, (QMap<int, int>{{401, 1}, {507, 1}}));
    EXPECT_EQ(recorder->Matching("Begin "),
              (QStringList{"Begin 1 1", "Begin 2 1", "Begin 3 1", "Begin 4 0"}));
    EXPECT_EQ(recorder->Matching("F"),
              (QStringList{"Finished 1 1", "Finished 2 1", "Finished 3 1", "Finished 4 0",
                           "FolderAuthenticationError 5", "FolderSyncError " + broken + " 5 401",
                           "Finished 5 1", "FolderSyncError " + full + " 6 507", "Finished 6 1",
                           "FinishedSyncingFolders 1"}));
}

TEST_F(SynchronizerTest, PlannedResultsAreAnnouncedAndFinalDoneListsExcludeFailures) {
    AddRoot("a");
    AddRoot("canceled");  // the host refuses it after planning
    auto depot = std::make_shared<SyncTaskDepot>();
    for (const char* p : {"/a/one", "/a/two", "/a/three", "/a/c"}) {
        FileConfiguration f;
        f.localPath = f.serverPath = p;
        using namespace sync::syncService;
        FileSyncTask t(f.localPath == "/a/c" ? FileConflictMarking : LocalFileCreation, f, NoChange,
                       Added, nullptr, nullptr, nullptr, nullptr, nullptr);
        depot->AddSyncTask(t);
    }
    for (const char* p : {"/a/d1", "/a/d2"}) {
        FolderConfiguration f;
        f.localPath = f.serverPath = p;
        using namespace sync::syncService;
        FolderSyncTask t(LocalFolderCreation, f, NoChange, Added, nullptr, nullptr, nullptr,
                         nullptr, nullptr);
        depot->AddSyncTask(t);
    }
    ON_CALL(*runner, Process).WillByDefault(Return(depot));
    ON_CALL(*host, PreProcessFiles).WillByDefault([](auto& root, auto) { return root.id == 1; });
    engineResults[1].FileLocalCreations = 2;
    engineResults[1].FileLocalCreationErrors = 1;
    engineResults[1].FileLocalCreationErrorPaths << "/A/TWO";  // compared without regard to case
    engineResults[1].FolderLocalCreationErrors = 1;
    engineResults[1].FolderLocalCreationErrorPaths << "/a/d2";
    EXPECT_CALL(*host, PostProcessFiles(Field(&FolderConfiguration::id, 1), depot, _));
    LogCapture log;
    Run();
    EXPECT_TRUE(log.Contains(
        INFO, "Canceling sync. ISyncHostApplication::PreProcessFiles returned false."));
    ASSERT_EQ(recorder->begun.size(), 2);
    for (const SyncResults& planned : recorder->begun) {
        EXPECT_EQ(planned.FileLocalCreations, 3);  // the conflict marking is not counted
        EXPECT_THAT(planned.FileLocalCreationPaths,
                    UnorderedElementsAre("/a/one", "/a/two", "/a/three"));
        EXPECT_THAT(planned.FolderLocalCreationPaths, UnorderedElementsAre("/a/d1", "/a/d2"));
        EXPECT_FALSE(planned.anyErrors());
    }
    ASSERT_EQ(recorder->finished.size(), 2);
    const SyncResults& final = recorder->finished[0];
    EXPECT_EQ(final.FileLocalCreationErrors, 1);
    EXPECT_EQ(final.FileLocalCreationErrorPaths, QStringList{"/A/TWO"});
    EXPECT_THAT(final.FileLocalCreationPaths, UnorderedElementsAre("/a/one", "/a/three"));
    EXPECT_EQ(final.FolderLocalCreationPaths, QStringList{"/a/d1"});
    EXPECT_FALSE(recorder->finished[1].anyWorkDone());
}

// A root folder lost its server folder: its content must be uploaded again, not deleted locally
// as if the server had deleted it. Whatever the root's status, its records are marked and that
// is committed before the server folder is created, so that neither a failed creation nor the
// end of the process during it can leave records that claim a server copy; if the marking
// fails, none of it is kept, nothing is created and the root fails for this cycle.
TEST_F(SynchronizerTest, VanishedServerRootIsMarkedAndCommittedBeforeItIsCreated) {
    struct Row {
        const char* name;
        Status before;
        bool interrupted;
        const char* failingWrite;  // the first such write of the marking fails
    };
    const Row rows[] = {{"out of sync", Status::OutOfSync, false, nullptr},
                        {"never synchronized", Status::NotSynchronized, false, nullptr},
                        {"out of sync, interrupted", Status::OutOfSync, true, nullptr},
                        {"folder marking fails", Status::OutOfSync, false, "UpdateFolder"},
                        {"file marking fails", Status::OutOfSync, false, "UpdateFile"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        auto interrupting = std::make_shared<InterruptedServer>();
        if (row.interrupted) server = interrupting;
        const FolderConfiguration root = AddRoot("a", row.before, true, false);
        FolderConfiguration sub;
        sub.rootId = sub.parentId = root.id;
        sub.localPath = root.localPath + "/sub";
        sub.setSyncStatus(Status::Synchronized);
        store->AddFolder(sub);
        FileConfiguration file;
        file.rootId = root.id;
        file.localPath = root.localPath + "/f.txt";
        file.syncStatus = FileStatus::Synchronized;
        store->AddFile(file);
        if (row.failingWrite) store->FailOn(row.failingWrite, 1);
        const bool marked = !row.failingWrite, created = marked && !row.interrupted;
        EXPECT_CALL(*runner, Process).Times(created ? 1 : 0);
        LogCapture log;
        const SyncResults total = Run();
        EXPECT_EQ(log.Count(WARN, "Server root folder /remote/a of " + root.localPath +
                                      " has vanished. Marking its content as not synchronized "
                                      "so that it is uploaded again."),
                  1);
        EXPECT_EQ(store->GetFolderById(sub.id).getSyncStatus(),
                  marked ? Status::NotSynchronized : Status::Synchronized);
        EXPECT_EQ(store->GetFileById(file.id).syncStatus,
                  marked ? FileStatus::NotSynchronized : FileStatus::Synchronized);
        EXPECT_EQ(server->Find("/remote/a") != nullptr, created);
        EXPECT_EQ(interrupting->openBatches, row.interrupted ? 0 : -1);
        EXPECT_EQ(total.FolderServerCreationErrors, int(!marked));
        EXPECT_EQ(recorder->Matching("FolderSyncError").size(), int(!created));
        EXPECT_EQ(store->GetFolderById(root.id).getSyncStatus(),
                  created ? Status::Synchronized : Status::OutOfSync);
        VerifyMocks();
    }
}

// A root folder that fails, by its result or by an exception, is reported its own way, and the
// next root folder still runs. (401 and 507 are the root creation's rows.)
TEST_F(SynchronizerTest, FailedRootFolderIsReportedAndTheLoopGoesOn) {
    enum Kind { Result, Http, Service, Std, UnauthorizedAfterRemoval };
    struct Row {
        const char* name;
        Kind kind;
        QMap<int, int> codes;
        int code;
        QString entry;  // the action-log entry after "3 a", empty: none
        QStringList errorLines;
    };
    const QString errors = " 12:0,0,0,0,2,0,0,0,0,0,0,1", path = tmp.filePath("a"),
                  unknown = "Caught unknown, unexpected exception.  Swallowing exception.";
    const QStringList report{
        "Sync finished with errors for root folder " + path +
            ". Errors: FileServerCreationErrors: 2 FolderLocalDeletionErrors: 1",
        "FileServerCreationErrors: Failed to upload the following files:\n/x/1\n/x/2"};
    const Row rows[] = {
        {"several keys", Result, {{500, 1}, {401, 2}}, -1, errors, report},
        {"no key", Result, {}, 0, errors, report},
        {"http", Http, {}, 503, " http 503 https://files.example/remote/a", {"unavailable"}},
        {"service", Service, {}, 0, "", {"broken invariant"}},
        // The reason follows, so that a database or disk failure is not a mystery.
        {"std", Std, {}, 0, " 0:", {unknown, "boom"}},
        {"401 for a removed root", UnauthorizedAfterRemoval, {}, 0, QString(), {}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        AddRoot("a");
        const QString b = AddRoot("b").localPath;
        SyncResults& r = engineResults[1];
        r.FileServerCreationErrors = 2;
        r.FolderLocalDeletionErrors = 1;
        r.FileServerCreationErrorPaths = QStringList{"/x/1", "/x/2"};
        r.errorCodes = row.codes;
        ON_CALL(*runner, Process(Field(&FolderConfiguration::id, 1))).WillByDefault([&](auto&) {
            if (row.kind == Http) throw sync::http::HttpException(503, "unavailable");
            if (row.kind == Service)
                throw sync::syncService::SyncServiceException("broken invariant");
            if (row.kind == Std) throw std::runtime_error("boom");
            if (row.kind == UnauthorizedAfterRemoval) {
                store->RemoveRootFolder(1);
                throw sync::http::HttpException(401, "gone");
            }
            return std::make_shared<SyncTaskDepot>();
        });
        LogCapture log;
        const SyncResults total = Run();
        const bool reported = row.kind != UnauthorizedAfterRemoval;
        QStringList reports{"Finished 1 0", "Finished 2 0",
                            QString("FinishedSyncingFolders %1").arg(int(reported))};
        if (reported) reports.prepend(QString("FolderSyncError %1 1 %2").arg(path).arg(row.code));
        EXPECT_EQ(recorder->Matching("F"), reports);
        EXPECT_EQ(core->ActionLogLines(),
                  reported ? QStringList{"3 a" + row.entry + " " + path} : QStringList());
        EXPECT_EQ(log.Messages(ERROR), row.errorLines);
        EXPECT_EQ(total.errorCodes.value(503), int(row.kind == Http));
        EXPECT_TRUE(!reported || store->GetFolderById(1).getSyncStatus() == Status::OutOfSync);
        EXPECT_EQ(log.Contains(INFO, "Sync finished with errors"), reported);
        EXPECT_TRUE(log.Contains(INFO, "Sync finished successfully for root folder " + b));
    }
}

TEST_F(SynchronizerTest, CompletionEntriesFollowTheRootFolderOutcome) {
    struct Row {
        const char* name;
        Status before;
        int uploads, localDeletions, folderCreations, failedDownloads;
        QString entry;  // empty: none
    };
    const Row rows[] = {
        {"uploads", Status::Synchronized, 2, 1, 0, 0, "2 a 16:2,0,0,1"},
        {"folders only", Status::Synchronized, 0, 0, 1, 0, "2 a"},
        {"was out of sync", Status::OutOfSync, 0, 0, 0, 0, "2 a"},
        {"quiet", Status::Synchronized, 0, 0, 0, 0, ""},
        {"local deletions only", Status::Synchronized, 0, 3, 0, 0, "2 a 16:0,0,0,3"},
        {"failed download", Status::Synchronized, 1, 0, 0, 1, "3 a 12:1,0,0,0,0,1,0,0,0,0,0,0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        const QString path = AddRoot("a", row.before).localPath;
        SyncResults& r = engineResults[1];
        r.FileServerCreations = row.uploads;
        r.FileLocalDeletions = row.localDeletions;
        r.FolderLocalCreations = row.folderCreations;
        r.FileLocalCreationErrors = row.failedDownloads;
        Run();
        EXPECT_EQ(core->ActionLogLines(),
                  row.entry.isEmpty() ? QStringList() : QStringList{row.entry + " " + path});
    }
}

TEST_F(SynchronizerTest, BaseCopiesWithoutSourceOrFileAreCleanedUp) {
    const int rootId = AddRoot("a").id;
    const QString backup = tmp.filePath("a/.{SyncBackup}"), kept = tmp.filePath("b/.{SyncBackup}");
    QDir().mkpath(backup);
    QDir().mkpath(kept);
    auto add = [&](FileConfiguration f, const QString& path, bool onDisk) {
        f.rootId = rootId;
        f.localPath = path;
        QFile file(path);
        EXPECT_TRUE(!onDisk || (file.open(QIODevice::WriteOnly) && file.write("base") == 4));
        store->AddFile(f);
        return f.id;
    };
    const int source = add(FileConfiguration(), tmp.filePath("a/source.txt"), false);
    FileConfiguration base;
    base.isGenerated = 1;
    base.generatedKind = sync::config::GeneratedBaseCopy;
    base.parentFileId = source + 100;
    add(base, backup + "/orphan.BASE", true);  // source record deleted
    base.parentFileId = source;
    add(base, kept + "/missing.BASE", false);                    // base file gone
    const int bothThere = add(base, kept + "/kept.BASE", true);  // both still there
    Run();
    QList<int> left;
    for (const FileConfiguration& f : store->GetGeneratedFilesByKind(base.generatedKind))
        left << f.id;
    EXPECT_EQ(left, QList<int>{bothThere});
    EXPECT_FALSE(QFileInfo::exists(backup));
    EXPECT_TRUE(QFileInfo::exists(kept + "/kept.BASE"));
}

// The retrievers' notices reach the task engine directly and the host on its own thread, after
// everything queued before them.
TEST_F(SynchronizerTest, FilterNoticesReachTheTaskEngineAndReportsTheHostOnItsOwnThread) {
    AddRoot("a", Status::NotSynchronized);
    QThread hostThread;
    QSharedPointer<Recorder> hostSignals(new Recorder);
    hostSignals->moveToThread(&hostThread);
    hostThread.start();
    EXPECT_CALL(*engine, HandleSubFolderFilteredOut(QString("n"))).Times(2);
    EXPECT_CALL(*engine, HandleFileFilteredOut(QString("f")));
    EXPECT_CALL(*engine, SetFilteredLocalFolderCount(1)).Times(2);
    EXPECT_CALL(*engine, SetFilteredLocalFileCount(1));
    EXPECT_CALL(*engine, SetFilteredServerFolderCount(1));
    EXPECT_CALL(*engine, SetFilteredServerFileCount(1));
    {
        auto s = Make(hostSignals);
        emit localRetriever->SubFolderNameNotAllowed("n");
        emit localRetriever->FolderFilteredOut("n");
        emit localRetriever->FileFilteredOut("f");
        emit serverRetriever->FolderFilteredOut("s");
        emit serverRetriever->FileFilteredOut("s");
        s->Synchronize();
    }
    QMetaObject::invokeMethod(
        hostSignals.data(), [] {}, Qt::BlockingQueuedConnection);
    hostThread.quit();
    hostThread.wait();
    EXPECT_EQ(hostSignals->lines,
              (QStringList{"SubFolderNameNotAllowed n", "SyncingFolders", "Begin 1 1",
                           "Finished 1 1", "FinishedSyncingFolders 0"}));
    EXPECT_TRUE(hostSignals->allOnOwnThread);
}

}  // namespace
