#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <stdexcept>

#include "CoreFactory.h"
#include "HttpException.h"
#include "LogCapture.h"
#include "QDirWrapper.h"
#include "SyncServiceException.h"
#include "Synchronizer.h"
#include "SynchronizerMocks.h"
#include "TransactionalScope.h"

// Readable failure messages for Qt strings.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

using namespace sync::test;
using FileStatus = sync::config::FileSynchronizationStatus;
using Status = sync::config::FolderSynchronizationStatus;
using sync::core::SyncDetails;
using sync::database::TransactionalScope;
using sync::syncService::SyncTaskDepot;
using ::testing::_;
using ::testing::Field;
using ::testing::Return;
using ::testing::UnorderedElementsAre;

namespace {

const auto INFO = log4cplus::INFO_LOG_LEVEL;
const auto WARN = log4cplus::WARN_LOG_LEVEL;
const auto ERROR = log4cplus::ERROR_LOG_LEVEL;

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

// A nice mock made at once.
template <class T>
struct Nice : std::shared_ptr<::testing::NiceMock<T>> {
    Nice() : std::shared_ptr<::testing::NiceMock<T>>(new ::testing::NiceMock<T>) {}
};

class SynchronizerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        ON_CALL(*coreFactory, CreateCheckForExit).WillByDefault(Return(checkForExit));
        ON_CALL(*coreFactory, CreateConnectedToNetwork).WillByDefault(Return(network));
        ON_CALL(*network, IsConnected).WillByDefault(Return(true));
        actionLog->Record();
        sync::factory::CoreFactory::SetActionLog(actionLog);
        folders.Attach(*folderDb);
        files.Attach(*fileDb);
        ON_CALL(*remoteFactory, CreateRemoteFolderManager).WillByDefault(Return(remote));
        ON_CALL(*remote, GetFolderInfo).WillByDefault(Return(true));
        ON_CALL(*runner, Process).WillByDefault([](auto&) {
            return std::make_shared<SyncTaskDepot>();
        });
        // Like the status monitor, marks a root that ran without errors as synchronised.
        ON_CALL(*engine, Process).WillByDefault([this](const FolderConfiguration& root, auto) {
            const SyncResults r = engineResults.value(root.id);
            if (!r.anyErrors() && folders.contains(root.id))
                folders[root.id].setSyncStatus(Status::Synchronized);
            return r;
        });
        ON_CALL(*host, PreProcessFiles).WillByDefault(Return(true));
        ON_CALL(*host, GetRootFolderText).WillByDefault(Return(QString("root text")));
        sync::config::ServerConfiguration server;
        server.baseUrl = "https://files.example/";  // joined with exactly one "/"
        ON_CALL(*serverConfig, GetServerConfiguration).WillByDefault(Return(server));
    }

    void TearDown() override {
        sync::factory::CoreFactory::SetActionLog(nullptr);
        TransactionalScope::SetBackend(nullptr);
    }

    std::unique_ptr<sync::syncService::Synchronizer> Make(QSharedPointer<Recorder> receiver = {}) {
        return std::make_unique<sync::syncService::Synchronizer>(
            auth, serverConfig, host, fileDb, folderDb, remoteFactory, dir, engine, coreFactory,
            nullptr, receiver, localRetriever, nullptr, serverRetriever, runner, filter);
    }

    // One cycle; the reports it queued for the host are delivered before it returns.
    SyncResults Run() {
        const SyncResults total = Make(recorder)->Synchronize();
        QCoreApplication::sendPostedEvents();
        return total;
    }

    // A table row starts from an empty database and no reports, and ends checking its calls.
    void Reset() {
        folders.clear();
        files.clear();
        engineResults.clear();
        actionLog->entries.clear();
        recorder.reset(new Recorder);
    }
    void VerifyMocks() {
        for (void* m :
             {(void*)actionLog.get(), (void*)auth.get(), (void*)runner.get(), (void*)remote.get(),
              (void*)fileDb.get(), (void*)folderDb.get(), (void*)host.get()})
            ::testing::Mock::VerifyAndClearExpectations(m);
    }

    // A root folder record; its local directory exists unless told otherwise.
    FolderConfiguration& AddRoot(int id, const QString& name, Status status = Status::Synchronized,
                                 bool createLocal = true) {
        FolderConfiguration f;
        f.id = f.rootId = f.inheritedId = id;
        f.authenticationId = 1;
        f.name = name;
        f.localPath = tmp.filePath(name);
        f.serverPath = "/remote/" + name;
        f.serverRootPath = "/remote";
        f.privilegeInfo = "info";
        f.setSyncStatus(status);
        if (createLocal) QDir().mkpath(f.localPath);
        folders.Put(f);
        return folders[id];
    }

    QTemporaryDir tmp;
    FolderStore folders;
    FileStore files;
    QMap<int, SyncResults> engineResults;
    QSharedPointer<Recorder> recorder{new Recorder};

    Nice<MockAuthenticationConfigManager> auth;
    Nice<MockServerConfigManager> serverConfig;
    Nice<MockSyncHostApplication> host;
    Nice<MockFileConfigManager> fileDb;
    Nice<MockFolderConfigManager> folderDb;
    Nice<MockRemoteFolderManagerFactory> remoteFactory;
    Nice<MockRemoteFolderManager> remote;
    std::shared_ptr<sync::core::QDirWrapper> dir = std::make_shared<sync::core::QDirWrapper>();
    Nice<MockSyncTaskEngine> engine;
    Nice<MockCoreFactory> coreFactory;
    Nice<MockCheckForExit> checkForExit;
    Nice<MockConnectedToNetwork> network;
    Nice<MockEntryInfoTreeRetriever> localRetriever, serverRetriever;
    Nice<MockSynchronizeRunner> runner;
    Nice<MockActionLog> actionLog;
    std::shared_ptr<MockFolderFilter> filter;
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
        AddRoot(1, "reset").setSyncOption(sync::config::RootFolderReset);  // skipped silently
        ON_CALL(*network, IsConnected).WillByDefault(Return(row.connected));
        ON_CALL(*checkForExit, ShouldExit).WillByDefault(Return(row.stop));
        const int runs = row.connected && !row.stop;
        EXPECT_CALL(*folderDb, GetFoldersOfMissingRootFolders).Times(runs);
        EXPECT_CALL(*fileDb, GetFilesOfMissingRootFolders).Times(runs);
        EXPECT_CALL(*host, SyncStarted).Times(runs);
        EXPECT_CALL(*host, SyncFinished).Times(runs);
        EXPECT_CALL(*folderDb, ReleaseMemory);
        EXPECT_CALL(*runner, Process).Times(0);
        LogCapture log;
        Run();
        EXPECT_EQ(log.Messages(row.connected ? INFO : ERROR), row.log);
        EXPECT_EQ(log.Lines().size(), size_t(row.log.size()));
        EXPECT_EQ(recorder->lines, row.reports);
        VerifyMocks();
    }
}

// A filtered root is skipped without a word; a duplicate differing only in case is removed.
// Neither is synchronised.
TEST_F(SynchronizerTest, FilteredAndDuplicateRootsAreNotSynchronized) {
    const QString docs = AddRoot(1, "Docs").localPath;
    AddRoot(2, "dup").localPath = tmp.filePath("DOCS");
    AddRoot(4, "filtered");
    filter = Nice<MockFolderFilter>();
    ON_CALL(*filter, IsRootFolderIncluded).WillByDefault([](auto& f) { return f.id != 4; });
    EXPECT_CALL(*runner, Process).Times(1);
    LogCapture log;
    Run();
    EXPECT_EQ(log.Messages(INFO), (QStringList{"Sync beginning", "Syncing root folder " + docs,
                                               "Sync finished successfully for root folder " + docs,
                                               "Sync finished successfully"}));
    EXPECT_EQ(log.Messages(WARN),
              QStringList{"Duplicate root folder record " + tmp.filePath("DOCS") +
                          " found in database. Removing it."});
    EXPECT_EQ(folders.keys(), (QList<int>{1, 4}));
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
        FolderConfiguration& root = AddRoot(4, "gone", Status::Synchronized, false);
        root.inheritedValue = row.kind;
        if (row.keepOnRemoval) root.setSyncOption(sync::config::KeepRootFolderOnRemoval);
        const QString path = root.localPath;
        if (row.otherRootOfAccount) AddRoot(2, "kept");
        const bool removed = row.kind % 2 == 1;
        // The account goes with its last root, unless the root is added back parked: it
        // still needs its credentials then.
        EXPECT_CALL(*auth, RemoveAuthentication(1))
            .Times(removed && !row.otherRootOfAccount && !row.keepOnRemoval);
        LogCapture log;
        Run();
        VerifyMocks();
        EXPECT_EQ(actionLog->entries,
                  QStringList{QString(removed ? "27 gone 19:%1 %1" : "4 gone 3:%1 %1").arg(path)});
        QStringList expected{QString("FinishedSyncingFolders %1").arg(removed ? 0 : 1)};
        if (row.otherRootOfAccount) expected.prepend("Finished 2 0");
        EXPECT_EQ(recorder->Matching("Finished"), expected);
        EXPECT_TRUE(log.Contains(
            INFO, removed ? "Sync finished successfully" : "Sync finished with errors"));
        const auto left = folders.Where([&](auto& f) { return f.localPath == path; });
        EXPECT_EQ(left.size(), removed ? int(row.keepOnRemoval) : 1);
        for (const FolderConfiguration& f : left) {  // kept as it is, or added back parked
            EXPECT_EQ(f.id != 4, removed);
            EXPECT_EQ(f.hasSyncOption(sync::config::RootFolderReset), removed);
            EXPECT_EQ(f.getSyncStatus(), removed ? Status::NotSynchronized : Status::OutOfSync);
        }
    }
}

TEST_F(SynchronizerTest, NeverSynchronizedRootGetsItsMissingSideCreated) {
    const QString deep = AddRoot(1, "deep/local", Status::NotSynchronized, false).localPath;
    AddRoot(2, "serverless", Status::NotSynchronized);
    const QString both = AddRoot(3, "both", Status::NotSynchronized, false).localPath;
    AddRoot(4, "top", Status::OutOfSync).serverPath = "/REMOTE/";  // the server's own root
    const QString broken = AddRoot(5, "broken", Status::NotSynchronized).localPath;
    const QString full = AddRoot(6, "full", Status::NotSynchronized).localPath;
    AddRoot(7, "after", Status::NotSynchronized);  // a full server ends the cycle before it
    ON_CALL(*remote, GetFolderInfo).WillByDefault([](auto& f, auto&) -> bool {
        if (f.id == 5) throw sync::http::HttpException(401, "denied");
        return f.id == 1;
    });
    EXPECT_CALL(*remote, GetFolderInfo).Times(5);
    EXPECT_CALL(*remote, CreateFolder(Field(&FolderConfiguration::id, 6), QString(), true))
        .WillOnce([](FolderConfiguration&, auto&, bool) {
            SyncResults r;
            r.FolderServerCreationErrors = 1;
            r.errorCodes[507] = 1;
            return r;
        });
    EXPECT_CALL(*remote, GetFolderInfo(Field(&FolderConfiguration::id, 4), _)).Times(0);
    EXPECT_CALL(*remote, CreateFolder(Field(&FolderConfiguration::id, 2), QString(), true))
        .WillOnce([](FolderConfiguration& f, auto&, bool) {
            f.setServerFolderId("new-id");
            return SyncResults();
        });
    LogCapture log;
    const SyncResults total = Run();
    EXPECT_TRUE(QFileInfo(deep).isDir());
    EXPECT_FALSE(QFileInfo(both).exists());
    EXPECT_TRUE(log.Contains(INFO, "Local root folder " + deep + " doesn't exist. Creating it."));
    EXPECT_TRUE(
        log.Contains(INFO, "Server root folder doesn't exist: /remote/serverless. Creating it."));
    EXPECT_TRUE(log.Contains(
        ERROR,
        "Both server root folder '/remote/both' and local root folder '" + both + "' not found"));
    EXPECT_TRUE(log.Contains(ERROR, "Failed to create server root folder /remote/broken. denied"));
    EXPECT_EQ(folders[2].getServerFolderId(), QString("new-id"));
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
    AddRoot(1, "a");
    AddRoot(2, "canceled");  // the host refuses it after planning
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
// is committed before the server folder is created, so that neither a failed creation nor a
// crash after it can leave records that claim a server copy; if the marking fails, nothing is
// created and the root fails for this cycle.
TEST_F(SynchronizerTest, VanishedServerRootIsMarkedAndCommittedBeforeItIsCreated) {
    struct Backend : sync::database::ITransactionBackend {
        int commits = 0, rollbacks = 0;
        void Begin(int) override {}
        void Commit(int depth) override { commits += depth == 0; }
        void Rollback(int depth) noexcept override { rollbacks += depth == 0; }
    };
    struct Row {
        const char* name;
        Status before;
        bool markingFails;
    };
    const Row rows[] = {{"out of sync", Status::OutOfSync, false},
                        {"never synchronized", Status::NotSynchronized, false},
                        {"marking fails", Status::OutOfSync, true}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        auto backend = std::make_shared<Backend>();
        TransactionalScope::SetBackend(backend);
        const QString path = AddRoot(1, "a", row.before).localPath;
        FolderConfiguration sub = folders[1];  // a folder below the root
        sub.id = 2;
        sub.setSyncStatus(Status::Synchronized);
        folders.Put(sub);
        FileConfiguration file;
        file.id = 10;
        file.rootId = 1;
        file.syncStatus = FileStatus::Synchronized;
        files.Put(file);
        if (row.markingFails) ON_CALL(*fileDb, UpdateFile).WillByDefault(Return(false));
        ON_CALL(*remote, GetFolderInfo).WillByDefault(Return(false));
        EXPECT_CALL(*remote, CreateFolder).Times(row.markingFails ? 0 : 1);
        ON_CALL(*remote, CreateFolder).WillByDefault([&](auto&, auto&, bool) {
            EXPECT_EQ(TransactionalScope::Depth(), 0);
            EXPECT_EQ(backend->commits, 1);
            EXPECT_EQ(folders[2].getSyncStatus(), Status::NotSynchronized);
            EXPECT_EQ(files[10].syncStatus, FileStatus::NotSynchronized);
            return SyncResults();
        });
        EXPECT_CALL(*runner, Process).Times(row.markingFails ? 0 : 1);
        LogCapture log;
        const SyncResults total = Run();
        EXPECT_EQ(log.Count(WARN, "Server root folder /remote/a of " + path +
                                      " has vanished. Marking its content as not synchronized "
                                      "so that it is uploaded again."),
                  1);
        EXPECT_EQ(backend->rollbacks, int(row.markingFails));
        EXPECT_EQ(total.FolderServerCreationErrors, int(row.markingFails));
        EXPECT_EQ(recorder->Matching("FolderSyncError").size(), int(row.markingFails));
        EXPECT_EQ(folders[1].getSyncStatus(),
                  row.markingFails ? Status::OutOfSync : Status::Synchronized);
        VerifyMocks();
    }
}

// A root folder that fails, by its result or by an exception, is reported its own way; the
// next root folder still runs unless the server is full.
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
        {"one key", Result, {{401, 1}}, 401, errors, report},
        {"several keys", Result, {{500, 1}, {401, 2}}, -1, errors, report},
        {"no key", Result, {}, 0, errors, report},
        {"insufficient storage", Result, {{507, 1}}, 507, errors, report},
        {"http", Http, {}, 503, " http 503 https://files.example/remote/a", {"unavailable"}},
        {"service", Service, {}, 0, "", {"broken invariant"}},
        // The reason follows, so that a database or disk failure is not a mystery.
        {"std", Std, {}, 0, " 0:", {unknown, "boom"}},
        {"401 for a removed root", UnauthorizedAfterRemoval, {}, 0, QString(), {}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Reset();
        AddRoot(1, "a");
        const QString b = AddRoot(2, "b").localPath;
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
                folders.remove(1);
                throw sync::http::HttpException(401, "gone");
            }
            return std::make_shared<SyncTaskDepot>();
        });
        LogCapture log;
        const SyncResults total = Run();
        const bool reported = row.kind != UnauthorizedAfterRemoval;
        QStringList reports{"Finished 1 0", "Finished 2 0",
                            QString("FinishedSyncingFolders %1").arg(int(reported))};
        if (row.code == 507) reports.removeAt(1);  // a full server stops the cycle
        if (reported) reports.prepend(QString("FolderSyncError %1 1 %2").arg(path).arg(row.code));
        if (row.code == 401) reports.prepend("FolderAuthenticationError 1");
        EXPECT_EQ(recorder->Matching("F"), reports);
        EXPECT_EQ(actionLog->entries,
                  reported ? QStringList{"3 a" + row.entry + " " + path} : QStringList());
        EXPECT_EQ(log.Messages(ERROR), row.errorLines);
        EXPECT_EQ(total.errorCodes.value(503), int(row.kind == Http));
        EXPECT_TRUE(!reported || folders[1].getSyncStatus() == Status::OutOfSync);
        EXPECT_EQ(log.Contains(INFO, "Sync finished with errors"), reported);
        EXPECT_EQ(log.Contains(INFO, "Sync finished successfully for root folder " + b),
                  row.code != 507);
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
        const QString path = AddRoot(1, "a", row.before).localPath;
        SyncResults& r = engineResults[1];
        r.FileServerCreations = row.uploads;
        r.FileLocalDeletions = row.localDeletions;
        r.FolderLocalCreations = row.folderCreations;
        r.FileLocalCreationErrors = row.failedDownloads;
        Run();
        EXPECT_EQ(actionLog->entries,
                  row.entry.isEmpty() ? QStringList() : QStringList{row.entry + " " + path});
    }
}

TEST_F(SynchronizerTest, AuditRepairsRootsAndRemovesStaleRecords) {
    FolderConfiguration& root = AddRoot(7, "a");
    root.privilegeInfo.clear();
    root.inheritedId = -1;
    QVector<FolderConfiguration> orphanFolders(3);
    QVector<FileConfiguration> orphanFiles(2);
    for (int i = 0; i < 3; ++i) {
        orphanFolders[i].id = 50 + i;
        orphanFolders[i].localPath = QString("/old/f%1").arg(i);
        EXPECT_CALL(*folderDb, RemoveFolder(50 + i));
    }
    for (int i = 0; i < 2; ++i) {
        orphanFiles[i].id = 60 + i;
        orphanFiles[i].localPath = QString("/old/x%1").arg(i);
        EXPECT_CALL(*fileDb, RemoveFile(60 + i));
    }
    ON_CALL(*folderDb, GetFoldersOfMissingRootFolders).WillByDefault(Return(orphanFolders));
    ON_CALL(*fileDb, GetFilesOfMissingRootFolders).WillByDefault(Return(orphanFiles));
    LogCapture log;
    Run();
    EXPECT_EQ(folders[7].inheritedId, 7);
    EXPECT_EQ(folders[7].privilegeInfo, QString("root text"));
    EXPECT_EQ(log.Messages(WARN),
              (QStringList{"Incorrect RootId found in database for root folder " + root.localPath +
                               ". Fixing it.",
                           "3 folder(s) found in database whose root folders don't exist. "
                           "Removing these invalid folders.",
                           "2 file(s) found in database whose root folders don't exist. "
                           "Removing these invalid files."}));
    EXPECT_EQ(
        log.Messages(log4cplus::DEBUG_LOG_LEVEL),
        (QStringList{"List of folder(s) whose root folders don't exist:\n/old/f0\n/old/f1\n/old/f2",
                     "List of file(s) whose root folders don't exist:\n/old/x0\n/old/x1"}));
}

TEST_F(SynchronizerTest, BaseCopiesWithoutSourceOrFileAreCleanedUp) {
    AddRoot(1, "a");
    const QString backup = tmp.filePath("a/.{SyncBackup}"), kept = tmp.filePath("b/.{SyncBackup}");
    QDir().mkpath(backup);
    QDir().mkpath(kept);
    auto base = [](int id, int parent, const QString& path, bool onDisk) {
        FileConfiguration b;
        b.id = id;
        b.parentFileId = parent;
        b.localPath = path;
        QFile f(path);
        EXPECT_TRUE(!onDisk || (f.open(QIODevice::WriteOnly) && f.write("base") == 4));
        return b;
    };
    FileConfiguration source;
    source.id = 5;
    files.Put(source);
    ON_CALL(*fileDb, GetGeneratedFilesByKind(2))
        .WillByDefault(Return(QVector<FileConfiguration>{
            base(20, 99, backup + "/orphan.BASE", true),  // source record deleted
            base(21, 5, kept + "/missing.BASE", false),   // base file gone
            base(22, 5, kept + "/kept.BASE", true)}));    // both still there
    EXPECT_CALL(*fileDb, RemoveGeneratedFileById(20));
    EXPECT_CALL(*fileDb, RemoveGeneratedFileById(21));
    EXPECT_CALL(*fileDb, RemoveGeneratedFileById(22)).Times(0);
    Run();
    EXPECT_FALSE(QFileInfo::exists(backup));
    EXPECT_TRUE(QFileInfo::exists(kept + "/kept.BASE"));
}

TEST_F(SynchronizerTest, HostReceivesReportsOnItsOwnThread) {
    AddRoot(1, "a", Status::NotSynchronized);
    QThread hostThread;
    QSharedPointer<Recorder> hostSignals(new Recorder);
    hostSignals->moveToThread(&hostThread);
    hostThread.start();
    {
        auto s = Make(hostSignals);
        emit localRetriever->SubFolderNameNotAllowed("bad:name");
        s->Synchronize();
    }
    // Runs on the host's thread after everything queued before it.
    QMetaObject::invokeMethod(
        hostSignals.data(), [] {}, Qt::BlockingQueuedConnection);
    hostThread.quit();
    hostThread.wait();
    EXPECT_EQ(hostSignals->lines,
              (QStringList{"SubFolderNameNotAllowed bad:name", "SyncingFolders", "Begin 1 1",
                           "Finished 1 1", "FinishedSyncingFolders 0"}));
    EXPECT_TRUE(hostSignals->allOnOwnThread);
}

TEST_F(SynchronizerTest, FilteredEntriesAreCountedByTheTaskEngine) {
    auto s = Make();  // without a host receiver its connections are simply not made
    EXPECT_CALL(*engine, HandleSubFolderFilteredOut(QString("n"))).Times(2);
    EXPECT_CALL(*engine, HandleFileFilteredOut(QString("f")));
    EXPECT_CALL(*engine, SetFilteredLocalFolderCount(1)).Times(2);
    EXPECT_CALL(*engine, SetFilteredLocalFileCount(1));
    EXPECT_CALL(*engine, SetFilteredServerFolderCount(1));
    EXPECT_CALL(*engine, SetFilteredServerFileCount(1));
    emit localRetriever->SubFolderNameNotAllowed("n");
    emit localRetriever->FolderFilteredOut("n");
    emit localRetriever->FileFilteredOut("f");
    emit serverRetriever->FolderFilteredOut("s");
    emit serverRetriever->FileFilteredOut("s");
}

}  // namespace
