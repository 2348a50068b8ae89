#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QSharedPointer>
#include <QTemporaryDir>
#include <QThread>
#include <algorithm>
#include <stdexcept>

#include "CoreFactory.h"
#include "HttpException.h"
#include "LogCapture.h"
#include "SyncServiceException.h"
#include "SyncTaskDepot.h"
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
using sync::config::FileSynchronizationStatus;
using sync::config::FolderSynchronizationStatus;
using sync::core::SyncDetails;
using sync::core::SyncResults;
using sync::syncService::Synchronizer;
using ::testing::_;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;

namespace {

const auto INFO = log4cplus::INFO_LOG_LEVEL;
const auto WARN = log4cplus::WARN_LOG_LEVEL;
const auto ERROR = log4cplus::ERROR_LOG_LEVEL;
const auto DEBUG = log4cplus::DEBUG_LOG_LEVEL;

QStringList Sorted(QStringList l) {
    l.sort();
    return l;
}

// The host's receiver, living on its own thread like the real one.
class RecordingSignals : public sync::interf::ISyncSignalsAndSlots {
public:
    void HandleConnectionError(int code) override {
        Add(QStringLiteral("ConnectionError %1").arg(code));
    }
    void HandleSyncingFolders() override { Add(QStringLiteral("SyncingFolders")); }
    void HandleFolderSyncError(QString path, long id, int code) override {
        Add(QStringLiteral("FolderSyncError %1 %2 %3").arg(path).arg(id).arg(code));
    }
    void HandleFolderAuthenticationError(long id) override {
        Add(QStringLiteral("FolderAuthenticationError %1").arg(id));
    }
    void HandleFinishedSyncingFolders(bool wasError) override {
        Add(QStringLiteral("FinishedSyncingFolders %1").arg(wasError ? 1 : 0));
    }
    void HandleBeginSyncingRootFolder(long id, SyncResults r, bool first) override {
        Add(QStringLiteral("Begin %1 %2 %3").arg(id).arg(r.FileLocalCreations).arg(first ? 1 : 0));
    }
    void HandleFinishedSyncingRootFolder(long id, SyncResults r, bool first) override {
        Add(QStringLiteral("Finished %1 %2 %3")
                .arg(id)
                .arg(r.FileLocalCreationErrors)
                .arg(first ? 1 : 0));
    }
    void HandleSubFolderNameNotAllowed(QString path) override {
        Add(QStringLiteral("SubFolderNameNotAllowed %1").arg(path));
    }

    QStringList Calls() {
        QMutexLocker lock(&_mutex);
        return _calls;
    }
    bool AllOnOwnThread() {
        QMutexLocker lock(&_mutex);
        return _allOnOwnThread;
    }

private:
    void Add(const QString& call) {
        QMutexLocker lock(&_mutex);
        _calls << call;
        if (QThread::currentThread() != thread()) _allOnOwnThread = false;
    }
    QMutex _mutex;
    QStringList _calls;
    bool _allOnOwnThread = true;
};

// What the synchronizer emitted, in order, each signal as one line.
struct Emitted {
    QStringList lines;
    QList<SyncResults> begun, finished;
    SyncResults total;

    void Attach(Synchronizer& s) {
        QObject::connect(&s, &Synchronizer::SyncingFolders, [this] { lines << "SyncingFolders"; });
        QObject::connect(&s, &Synchronizer::ConnectionError,
                         [this](int c) { lines << QStringLiteral("ConnectionError %1").arg(c); });
        QObject::connect(&s, &Synchronizer::BeginSyncingRootFolder,
                         [this](long id, SyncResults r, bool first) {
                             lines << QStringLiteral("Begin %1 %2").arg(id).arg(first ? 1 : 0);
                             begun << r;
                         });
        QObject::connect(&s, &Synchronizer::FinishedSyncingRootFolder,
                         [this](long id, SyncResults r, bool first) {
                             lines << QStringLiteral("Finished %1 %2").arg(id).arg(first ? 1 : 0);
                             finished << r;
                         });
        QObject::connect(&s, &Synchronizer::FolderSyncError, [this](QString p, long id, int c) {
            lines << QStringLiteral("FolderSyncError %1 %2 %3").arg(p).arg(id).arg(c);
        });
        QObject::connect(&s, &Synchronizer::FolderAuthenticationError, [this](long id) {
            lines << QStringLiteral("FolderAuthenticationError %1").arg(id);
        });
        QObject::connect(&s, &Synchronizer::FinishedSyncingFolders, [this](bool e) {
            lines << QStringLiteral("FinishedSyncingFolders %1").arg(e ? 1 : 0);
        });
    }
    QStringList Matching(const QString& prefix) const {
        QStringList out;
        for (const QString& l : lines)
            if (l.startsWith(prefix)) out << l;
        return out;
    }
};

sync::syncService::FileSyncTask FileTask(sync::syncService::SyncTaskType type,
                                         const QString& path) {
    FileConfiguration f;
    f.localPath = path;
    f.serverPath = QStringLiteral("/srv") + path;
    return sync::syncService::FileSyncTask(type, f, sync::syncService::NoChange,
                                           sync::syncService::Added, nullptr, nullptr, nullptr,
                                           nullptr, nullptr);
}

template <class T>
using Nice = std::shared_ptr<NiceMock<T>>;
template <class T>
Nice<T> MakeNice() {
    return std::make_shared<NiceMock<T>>();
}

class SynchronizerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        ON_CALL(*coreFactory, CreateCheckForExit).WillByDefault(Return(checkForExit));
        ON_CALL(*coreFactory, CreateConnectedToNetwork).WillByDefault(Return(network));
        ON_CALL(*network, IsConnected).WillByDefault(Return(true));
        actionLog->BuildRealDetails();
        sync::factory::CoreFactory::SetActionLog(actionLog);
        folders.Attach(*folderDb);
        files.Attach(*fileDb);
        dir->DelegateToDisk();
        ON_CALL(*remoteFactory, CreateRemoteFolderManager).WillByDefault(Return(remote));
        ON_CALL(*remote, GetFolderInfo).WillByDefault(Return(true));
        ON_CALL(*runner, Process).WillByDefault(Invoke([](FolderConfiguration&) {
            return std::make_shared<sync::syncService::SyncTaskDepot>();
        }));
        // The status monitor would mark a root that ran without errors as synchronised.
        ON_CALL(*engine, Process)
            .WillByDefault(Invoke([this](const FolderConfiguration& root,
                                         std::shared_ptr<sync::interf::ISyncTaskDepot>) {
                const SyncResults r = engineResults.value(root.id);
                if (!r.anyErrors() && folders.folders.contains(root.id))
                    folders.folders[root.id].setSyncStatus(
                        FolderSynchronizationStatus::Synchronized);
                return r;
            }));
        ON_CALL(*host, PreProcessFiles).WillByDefault(Return(true));
        ON_CALL(*host, GetRootFolderText).WillByDefault(Return(QStringLiteral("root text")));
        sync::config::ServerConfiguration server;
        server.baseUrl = QStringLiteral("https://files.example");
        ON_CALL(*serverConfig, GetServerConfiguration).WillByDefault(Return(server));
    }

    void TearDown() override {
        sync::factory::CoreFactory::SetActionLog(nullptr);
        sync::database::TransactionalScope::SetBackend(nullptr);
    }

    std::unique_ptr<Synchronizer> Make(
        QWeakPointer<sync::interf::ISyncSignalsAndSlots> hostSignals = {}) {
        auto s = std::make_unique<Synchronizer>(auth, serverConfig, host, fileDb, folderDb,
                                                remoteFactory, dir, engine, coreFactory,
                                                credentials, hostSignals, localRetriever,
                                                configRetriever, serverRetriever, runner, nullptr);
        emitted.Attach(*s);
        return s;
    }

    SyncResults Run() {
        emitted.total = Make()->Synchronize();
        return emitted.total;
    }

    // A root folder record; its local directory exists unless told otherwise.
    FolderConfiguration& AddRoot(
        int id, const QString& name,
        FolderSynchronizationStatus status = FolderSynchronizationStatus::Synchronized,
        bool createLocal = true) {
        FolderConfiguration f;
        f.id = f.rootId = f.inheritedId = id;
        f.authenticationId = 1;
        f.name = name;
        f.localPath = tmp.filePath(name);
        f.serverPath = QStringLiteral("/remote/") + name;
        f.serverRootPath = QStringLiteral("/remote");
        f.serverFolderId = QStringLiteral("sid-") + name;
        f.privilegeInfo = QStringLiteral("info");
        f.setSyncStatus(status);
        if (createLocal) QDir().mkpath(f.localPath);
        folders.Put(f);
        return folders.folders[id];
    }

    QTemporaryDir tmp;
    FolderStore folders;
    FileStore files;
    QMap<int, SyncResults> engineResults;
    Emitted emitted;

    Nice<MockAuthenticationConfigManager> auth = MakeNice<MockAuthenticationConfigManager>();
    Nice<MockServerConfigManager> serverConfig = MakeNice<MockServerConfigManager>();
    Nice<MockSyncHostApplication> host = MakeNice<MockSyncHostApplication>();
    Nice<MockFileConfigManager> fileDb = MakeNice<MockFileConfigManager>();
    Nice<MockFolderConfigManager> folderDb = MakeNice<MockFolderConfigManager>();
    Nice<MockRemoteFolderManagerFactory> remoteFactory = MakeNice<MockRemoteFolderManagerFactory>();
    Nice<MockRemoteFolderManager> remote = MakeNice<MockRemoteFolderManager>();
    Nice<MockQDirWrapper> dir = MakeNice<MockQDirWrapper>();
    Nice<MockSyncTaskEngine> engine = MakeNice<MockSyncTaskEngine>();
    Nice<MockCoreFactory> coreFactory = MakeNice<MockCoreFactory>();
    Nice<MockCheckForExit> checkForExit = MakeNice<MockCheckForExit>();
    Nice<MockConnectedToNetwork> network = MakeNice<MockConnectedToNetwork>();
    Nice<MockValidateLoginCredentials> credentials = MakeNice<MockValidateLoginCredentials>();
    Nice<MockEntryInfoTreeRetriever> localRetriever = MakeNice<MockEntryInfoTreeRetriever>();
    Nice<MockEntryInfoTreeRetriever> configRetriever = MakeNice<MockEntryInfoTreeRetriever>();
    Nice<MockEntryInfoTreeRetriever> serverRetriever = MakeNice<MockEntryInfoTreeRetriever>();
    Nice<MockSynchronizeRunner> runner = MakeNice<MockSynchronizeRunner>();
    Nice<MockActionLog> actionLog = MakeNice<MockActionLog>();
};

// ---------------------------------------------------------------------------------------------
// The cycle around the root folders

TEST_F(SynchronizerTest, CycleWithoutRootFoldersAuditsAndFinishesSuccessfully) {
    LogCapture log;
    EXPECT_CALL(*folderDb, GetFoldersOfMissingRootFolders).Times(1);
    EXPECT_CALL(*fileDb, GetFilesOfMissingRootFolders).Times(1);
    EXPECT_CALL(*host, SyncStarted).Times(1);
    EXPECT_CALL(*host, SyncFinished).Times(1);
    EXPECT_CALL(*folderDb, ReleaseMemory).Times(1);

    Run();

    EXPECT_EQ(log.Messages(INFO), (QStringList{"Sync beginning", "No folder is enabled for sync",
                                               "Sync finished successfully"}));
    EXPECT_EQ(emitted.lines, (QStringList{"SyncingFolders", "FinishedSyncingFolders 0"}));
}

TEST_F(SynchronizerTest, NoNetworkOrStopRequestEndsTheCycleBeforeItStarts) {
    {
        LogCapture log;
        ON_CALL(*network, IsConnected).WillByDefault(Return(false));
        EXPECT_CALL(*folderDb, ReleaseMemory).Times(1);
        EXPECT_CALL(*folderDb, GetRootFolders).Times(0);
        Run();
        EXPECT_EQ(log.Messages(ERROR), QStringList{"No internet connection"});
        EXPECT_EQ(emitted.lines, QStringList{"ConnectionError 3"});
    }
    ::testing::Mock::VerifyAndClearExpectations(folderDb.get());
    emitted.lines.clear();
    {
        LogCapture log;
        ON_CALL(*network, IsConnected).WillByDefault(Return(true));
        ON_CALL(*checkForExit, ShouldExit).WillByDefault(Return(true));
        EXPECT_CALL(*folderDb, GetRootFolders).Times(0);
        Run();
        EXPECT_TRUE(log.Lines().empty());
        EXPECT_TRUE(emitted.lines.isEmpty());
    }
}

TEST_F(SynchronizerTest, DuplicateRootDifferingInCaseIsRemovedAndNotSynchronized) {
    AddRoot(1, QStringLiteral("Docs"));
    FolderConfiguration& dup = AddRoot(2, QStringLiteral("dup"));
    dup.localPath = tmp.filePath(QStringLiteral("DOCS"));
    LogCapture log;
    EXPECT_CALL(*runner, Process).Times(1);

    Run();

    EXPECT_EQ(log.Count(WARN, QStringLiteral("Duplicate root folder record %1 found in database. "
                                             "Removing it.")
                                  .arg(tmp.filePath("DOCS"))),
              1);
    EXPECT_FALSE(folders.folders.contains(2));
    EXPECT_EQ(emitted.Matching("Finished "), QStringList{"Finished 1 0"});
}

TEST_F(SynchronizerTest, ResetOrFilteredRootIsSkippedSilently) {
    AddRoot(1, QStringLiteral("reset")).setSyncOption(sync::config::RootFolderReset);
    AddRoot(2, QStringLiteral("filtered"));
    auto filter = std::make_shared<NiceMock<MockFolderFilter>>();
    ON_CALL(*filter, IsRootFolderIncluded).WillByDefault(Invoke([](const FolderConfiguration& f) {
        return f.id != 2;
    }));
    LogCapture log;
    EXPECT_CALL(*runner, Process).Times(0);
    EXPECT_CALL(*dir, SetPath).Times(0);

    Synchronizer s(auth, serverConfig, host, fileDb, folderDb, remoteFactory, dir, engine,
                   coreFactory, credentials, {}, localRetriever, configRetriever, serverRetriever,
                   runner, filter);
    s.Synchronize();

    EXPECT_EQ(log.Messages(INFO), (QStringList{"Sync beginning", "No folder is enabled for sync",
                                               "Sync finished successfully"}));
    EXPECT_TRUE(log.Messages(WARN).isEmpty());
}

TEST_F(SynchronizerTest, RecordRepairFillsPrivilegeInfoAndRootIdBeforeSynchronizing) {
    FolderConfiguration& root = AddRoot(7, QStringLiteral("a"));
    root.privilegeInfo.clear();
    root.inheritedId = -1;
    LogCapture log;

    Run();

    EXPECT_EQ(folders.folders[7].privilegeInfo, QStringLiteral("root text"));
    EXPECT_EQ(folders.folders[7].inheritedId, 7);
    EXPECT_EQ(log.Count(WARN, QStringLiteral("Incorrect RootId found in database for root "
                                             "folder %1. Fixing it.")
                                  .arg(tmp.filePath("a"))),
              1);
    log.Clear();
    Run();
    EXPECT_TRUE(log.Messages(WARN).isEmpty());
}

// Location kinds 1, 3 and 5 are local disks: a missing root is gone for good. Any other kind
// may be a network drive that is only unreachable now.
TEST_F(SynchronizerTest, MissingLocalRootIsRemovedOrMarkedByLocationKind) {
    struct Row {
        int kind;
        bool keepOnRemoval;
        bool removed;
    };
    const Row rows[] = {
        {1, false, true}, {3, false, true}, {5, true, true}, {2, false, false}, {0, false, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.kind);
        folders.folders.clear();
        emitted = Emitted();
        ::testing::Mock::VerifyAndClearExpectations(actionLog.get());
        FolderConfiguration& root =
            AddRoot(4, QStringLiteral("gone"), FolderSynchronizationStatus::Synchronized, false);
        root.inheritedValue = row.kind;
        if (row.keepOnRemoval) root.setSyncOption(sync::config::KeepRootFolderOnRemoval);
        const QString path = root.localPath;
        if (row.removed) {
            EXPECT_CALL(*actionLog, AddFolderEntryWithDetails(27, path, QStringLiteral("gone"),
                                                              SyncDetails(19, {path})));
            // The account goes with its last root, even when the root is added back parked.
            EXPECT_CALL(*auth, RemoveAuthentication(1)).Times(1);
        } else {
            EXPECT_CALL(*actionLog, AddFolderEntryWithDetails(4, path, QStringLiteral("gone"),
                                                              SyncDetails(3, {path})));
        }
        EXPECT_CALL(*runner, Process).Times(0);
        LogCapture log;

        Run();

        ::testing::Mock::VerifyAndClearExpectations(auth.get());
        EXPECT_TRUE(emitted.Matching("Finished ").isEmpty());
        if (row.removed) {
            EXPECT_FALSE(folders.folders.contains(4));
            ASSERT_EQ(folders.folders.size(), row.keepOnRemoval ? 1 : 0);
            if (row.keepOnRemoval) {
                const FolderConfiguration readded = folders.folders.first();
                EXPECT_TRUE(readded.hasSyncOption(sync::config::RootFolderReset));
                EXPECT_EQ(readded.getSyncStatus(), FolderSynchronizationStatus::NotSynchronized);
                EXPECT_EQ(readded.localPath, path);
            }
            EXPECT_TRUE(log.Contains(INFO, "Sync finished successfully"));
        } else {
            EXPECT_EQ(folders.folders[4].getSyncStatus(), FolderSynchronizationStatus::OutOfSync);
            EXPECT_TRUE(log.Contains(INFO, "Sync finished with errors"));
            EXPECT_EQ(emitted.Matching("FinishedSyncingFolders"),
                      QStringList{"FinishedSyncingFolders 1"});
        }
    }
}

TEST_F(SynchronizerTest, RemovingOneOfTwoRootsOfAnAccountKeepsTheAccount) {
    AddRoot(1, QStringLiteral("gone"), FolderSynchronizationStatus::Synchronized, false)
        .inheritedValue = 1;
    AddRoot(2, QStringLiteral("kept"));
    EXPECT_CALL(*auth, RemoveAuthentication).Times(0);
    Run();
    EXPECT_FALSE(folders.folders.contains(1));
}

// ---------------------------------------------------------------------------------------------
// Root folder creation and planning

TEST_F(SynchronizerTest, NeverSynchronizedRootGetsItsMissingSideCreated) {
    // Local side missing, server side present: the local folder is made with its parents.
    FolderConfiguration& localMissing = AddRoot(
        1, QStringLiteral("deep/local"), FolderSynchronizationStatus::NotSynchronized, false);
    // Server side missing, local side present: the server folder is created and stored.
    AddRoot(2, QStringLiteral("serverless"), FolderSynchronizationStatus::NotSynchronized);
    const QString localPath = localMissing.localPath;
    ON_CALL(*remote, GetFolderInfo)
        .WillByDefault(Invoke([](const FolderConfiguration& f, FolderConfiguration&) {
            return !f.serverPath.endsWith(QLatin1String("serverless"));
        }));
    EXPECT_CALL(*remote, CreateFolder(_, QString(), true))
        .WillOnce(Invoke([](FolderConfiguration& f, const QString&, bool) {
            f.setServerFolderId(QStringLiteral("new-id"));
            return SyncResults();
        }));
    EXPECT_CALL(*runner, Process).Times(2);
    LogCapture log;

    Run();

    EXPECT_TRUE(QFileInfo(localPath).isDir());
    EXPECT_TRUE(log.Contains(
        INFO, QStringLiteral("Local root folder %1 doesn't exist. Creating it.").arg(localPath)));
    EXPECT_TRUE(log.Contains(INFO,
                             "Server root folder doesn't exist: /remote/serverless. "
                             "Creating it."));
    EXPECT_EQ(folders.folders[2].getServerFolderId(), QStringLiteral("new-id"));
    EXPECT_EQ(emitted.Matching("Finished "), (QStringList{"Finished 1 1", "Finished 2 1"}));
    EXPECT_EQ(emitted.total.FolderLocalCreations, 1);
    EXPECT_EQ(emitted.total.FolderServerCreations, 1);
}

TEST_F(SynchronizerTest, RootCreationEdgeCases) {
    // Both sides missing: logged, nothing counted, planning goes ahead.
    FolderConfiguration& both =
        AddRoot(1, QStringLiteral("both"), FolderSynchronizationStatus::NotSynchronized, false);
    // The server's own root is never asked for.
    FolderConfiguration& serverRoot =
        AddRoot(2, QStringLiteral("top"), FolderSynchronizationStatus::OutOfSync);
    serverRoot.serverPath = QStringLiteral("/REMOTE/");
    const QString bothPath = both.localPath;
    EXPECT_CALL(*remote, GetFolderInfo(::testing::Field(&FolderConfiguration::id, 1), _))
        .WillOnce(Return(false));
    EXPECT_CALL(*remote, GetFolderInfo(::testing::Field(&FolderConfiguration::id, 2), _)).Times(0);
    EXPECT_CALL(*remote, CreateFolder).Times(0);
    EXPECT_CALL(*runner, Process).Times(2);
    LogCapture log;

    Run();

    EXPECT_TRUE(log.Contains(ERROR, QStringLiteral("Both server root folder '/remote/both' and "
                                                   "local root folder '%1' not found")
                                        .arg(bothPath)));
    EXPECT_FALSE(emitted.total.anyWorkDone());
}

TEST_F(SynchronizerTest, FailedServerRootCreationSkipsPlanning) {
    AddRoot(1, QStringLiteral("a"), FolderSynchronizationStatus::NotSynchronized);
    ON_CALL(*remote, GetFolderInfo)
        .WillByDefault(::testing::Throw(sync::http::HttpException(401, "unauthorized")));
    EXPECT_CALL(*runner, Process).Times(0);
    LogCapture log;

    Run();

    EXPECT_TRUE(log.Contains(ERROR, "Failed to create server root folder /remote/a. unauthorized"));
    EXPECT_EQ(emitted.total.FolderServerCreationErrorPaths, QStringList{"/remote/a"});
    EXPECT_EQ(emitted.Matching("Folder"),
              (QStringList{"FolderAuthenticationError 1",
                           QStringLiteral("FolderSyncError %1 1 401").arg(tmp.filePath("a"))}));
}

TEST_F(SynchronizerTest, PlannedResultsAreAnnouncedAndFinalDoneListsExcludeFailures) {
    AddRoot(1, QStringLiteral("a"));
    auto depot = std::make_shared<sync::syncService::SyncTaskDepot>();
    for (const char* p : {"/a/one", "/a/two", "/a/three"}) {
        auto t = FileTask(sync::syncService::LocalFileCreation, p);
        depot->AddSyncTask(t);
    }
    auto conflict = FileTask(sync::syncService::FileConflictMarking, "/a/c");
    depot->AddSyncTask(conflict);
    ON_CALL(*runner, Process).WillByDefault(Return(depot));
    SyncResults executed;
    executed.FileLocalCreations = 2;
    executed.FileLocalCreationErrors = 1;
    executed.FileLocalCreationErrorPaths << "/A/TWO";  // compared without regard to case
    engineResults[1] = executed;
    EXPECT_CALL(*host, PostProcessFiles(_, depot, _)).Times(1);

    Run();

    ASSERT_EQ(emitted.begun.size(), 1);
    const SyncResults& planned = emitted.begun[0];
    EXPECT_EQ(planned.FileLocalCreations, 3);
    EXPECT_EQ(Sorted(planned.FileLocalCreationPaths),
              (QStringList{"/a/one", "/a/three", "/a/two"}));
    EXPECT_FALSE(planned.anyErrors());
    ASSERT_EQ(emitted.finished.size(), 1);
    const SyncResults& final = emitted.finished[0];
    EXPECT_EQ(final.FileLocalCreationErrors, 1);
    EXPECT_EQ(final.FileLocalCreationErrorPaths, QStringList{"/A/TWO"});
    EXPECT_EQ(Sorted(final.FileLocalCreationPaths), (QStringList{"/a/one", "/a/three"}));
}

TEST_F(SynchronizerTest, HostCanCancelARootFolderAfterPlanning) {
    AddRoot(1, QStringLiteral("a"));
    ON_CALL(*host, PreProcessFiles).WillByDefault(Return(false));
    EXPECT_CALL(*engine, Process).Times(0);
    LogCapture log;
    Run();
    EXPECT_TRUE(log.Contains(INFO,
                             "Canceling sync. ISyncHostApplication::PreProcessFiles "
                             "returned false."));
    EXPECT_EQ(emitted.Matching("Begin").size(), 1);
}

// A root folder that was synchronised before lost its server folder: its content must be
// uploaded again, not deleted locally as if the server had deleted it.
TEST_F(SynchronizerTest, VanishedServerRootMarksContentNotSynchronizedBeforePlanning) {
    struct Backend : sync::database::ITransactionBackend {
        int begins = 0;
        void Begin(int depth) override { begins += depth == 0; }
        void Commit(int) override {}
        void Rollback(int) noexcept override {}
    };
    auto backend = std::make_shared<Backend>();
    sync::database::TransactionalScope::SetBackend(backend);

    FolderConfiguration& root =
        AddRoot(1, QStringLiteral("a"), FolderSynchronizationStatus::OutOfSync);
    FolderConfiguration sub;
    sub.id = 2;
    sub.rootId = 1;
    sub.localPath = root.localPath + "/sub";
    sub.setSyncStatus(FolderSynchronizationStatus::Synchronized);
    folders.Put(sub);
    for (int id : {10, 11}) {
        FileConfiguration f;
        f.id = id;
        f.rootId = 1;
        f.syncStatus = FileSynchronizationStatus::Synchronized;
        files.Put(f);
    }
    ON_CALL(*remote, GetFolderInfo).WillByDefault(Return(false));
    EXPECT_CALL(*remote, CreateFolder).WillOnce(Return(SyncResults()));
    ON_CALL(*fileDb, UpdateFile).WillByDefault(Invoke([this](const FileConfiguration& f) {
        EXPECT_EQ(sync::database::TransactionalScope::Depth(), 1);
        files.files[f.id] = f;
        return true;
    }));
    int beginsBeforeMarking = -1;
    ON_CALL(*folderDb, UpdateFolder).WillByDefault(Invoke([&](const FolderConfiguration& f) {
        if (f.id == 1 && beginsBeforeMarking < 0) beginsBeforeMarking = backend->begins;
        folders.folders[f.id] = f;
        return true;
    }));
    EXPECT_CALL(*runner, Process).WillOnce(Invoke([this](FolderConfiguration&) {
        EXPECT_EQ(folders.folders[2].getSyncStatus(), FolderSynchronizationStatus::NotSynchronized);
        for (const FileConfiguration& f : files.files)
            EXPECT_EQ(f.syncStatus, FileSynchronizationStatus::NotSynchronized);
        return std::make_shared<sync::syncService::SyncTaskDepot>();
    }));
    LogCapture log;

    Run();

    EXPECT_EQ(log.Count(WARN, QStringLiteral("Server root folder /remote/a of %1 has vanished. "
                                             "Marking its content as not synchronized so that "
                                             "it is uploaded again.")
                                  .arg(tmp.filePath("a"))),
              1);
    // The root record and the content were written in one transaction.
    EXPECT_EQ(beginsBeforeMarking, 1);
    EXPECT_EQ(backend->begins, 1);
    EXPECT_NE(folders.folders[1].getSyncStatus(), FolderSynchronizationStatus::NotSynchronized);
}

TEST_F(SynchronizerTest, NeverSynchronizedRootWithoutServerFolderKeepsItsRecords) {
    AddRoot(1, QStringLiteral("a"), FolderSynchronizationStatus::NotSynchronized);
    FileConfiguration f;
    f.id = 10;
    f.rootId = 1;
    f.syncStatus = FileSynchronizationStatus::Synchronizing;
    files.Put(f);
    ON_CALL(*remote, GetFolderInfo).WillByDefault(Return(false));
    ON_CALL(*remote, CreateFolder).WillByDefault(Return(SyncResults()));
    EXPECT_CALL(*fileDb, UpdateFile).Times(0);
    Run();
}

// ---------------------------------------------------------------------------------------------
// Errors of one root folder

TEST_F(SynchronizerTest, ErrorCodeComesFromTheResultsErrorCodes) {
    struct Row {
        QMap<int, int> codes;
        int expected;
        bool authentication;
    };
    const Row rows[] = {{{{401, 1}}, 401, true}, {{{500, 1}, {401, 2}}, -1, false}, {{}, 0, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.expected);
        folders.folders.clear();
        emitted = Emitted();
        AddRoot(3, QStringLiteral("a"));
        SyncResults r;
        r.FileServerCreationErrors = 2;
        r.FolderLocalDeletionErrors = 1;
        r.FileServerCreationErrorPaths << "/x/1"
                                       << "/x/2";
        r.errorCodes = row.codes;
        engineResults[3] = r;
        LogCapture log;

        Run();

        QStringList expected;
        if (row.authentication) expected << "FolderAuthenticationError 3";
        expected
            << QStringLiteral("FolderSyncError %1 3 %2").arg(tmp.filePath("a")).arg(row.expected);
        EXPECT_EQ(emitted.Matching("Folder"), expected);
        EXPECT_EQ(folders.folders[3].getSyncStatus(), FolderSynchronizationStatus::OutOfSync);
        EXPECT_EQ(log.Messages(ERROR),
                  (QStringList{QStringLiteral("Sync finished with errors for root folder %1. "
                                              "Errors: FileServerCreationErrors: 2 "
                                              "FolderLocalDeletionErrors: 1")
                                   .arg(tmp.filePath("a")),
                               "FileServerCreationErrors: Failed to upload the following "
                               "files:\n/x/1\n/x/2"}));
        EXPECT_TRUE(log.Contains(INFO, "Sync finished with errors"));
        EXPECT_EQ(emitted.Matching("FinishedSyncingFolders"),
                  QStringList{"FinishedSyncingFolders 1"});
    }
}

TEST_F(SynchronizerTest, InsufficientStorageEndsTheLoop) {
    AddRoot(1, QStringLiteral("a"));
    AddRoot(2, QStringLiteral("b"));
    SyncResults full;
    full.FileServerCreationErrors = 1;
    full.errorCodes[507] = 1;
    engineResults[1] = full;
    EXPECT_CALL(*runner, Process).Times(1);
    Run();
    EXPECT_EQ(emitted.Matching("Finished "), QStringList{"Finished 1 0"});
}

// Each kind of exception is reported its own way; the next root folder still runs.
TEST_F(SynchronizerTest, ExceptionsAreCaughtPerRootFolder) {
    enum Kind { Http, Service, Std };
    struct Row {
        Kind kind;
        int code;
        QString errorLine;
    };
    const Row rows[] = {
        {Http, 503, "service unavailable"},
        {Service, 0, "broken invariant"},
        {Std, 0, "Caught unknown, unexpected exception.  Swallowing exception."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.errorLine.toStdString());
        folders.folders.clear();
        emitted = Emitted();
        ::testing::Mock::VerifyAndClearExpectations(actionLog.get());
        const QString path = AddRoot(1, QStringLiteral("a")).localPath;
        AddRoot(2, QStringLiteral("b"));
        EXPECT_CALL(*runner, Process)
            .WillOnce(Invoke(
                [&](FolderConfiguration&) -> std::shared_ptr<sync::syncService::SyncTaskDepot> {
                    if (row.kind == Http)
                        throw sync::http::HttpException(503, "service unavailable");
                    if (row.kind == Service)
                        throw sync::syncService::SyncServiceException("broken invariant");
                    throw std::runtime_error("boom");
                }))
            .WillOnce(Return(std::make_shared<sync::syncService::SyncTaskDepot>()));
        EXPECT_CALL(*actionLog,
                    AddHttpErrorEntry(3, 503, path, QStringLiteral("a"),
                                      QStringLiteral("https://files.example//remote/a")))
            .Times(row.kind == Http ? 1 : 0);
        EXPECT_CALL(*actionLog, AddFolderEntry(3, path, QStringLiteral("a")))
            .Times(row.kind == Service ? 1 : 0);
        EXPECT_CALL(*actionLog,
                    AddFolderEntryWithDetails(3, path, QStringLiteral("a"), SyncDetails(0)))
            .Times(row.kind == Std ? 1 : 0);
        LogCapture log;

        const SyncResults total = Run();

        EXPECT_EQ(log.Messages(ERROR), QStringList{row.errorLine});
        EXPECT_EQ(total.errorCodes.value(503), row.kind == Http ? 1 : 0);
        EXPECT_EQ(emitted.Matching("FolderSyncError"),
                  QStringList{QStringLiteral("FolderSyncError %1 1 %2").arg(path).arg(row.code)});
        EXPECT_EQ(emitted.Matching("Finished "), (QStringList{"Finished 1 0", "Finished 2 0"}));
        EXPECT_EQ(folders.folders[1].getSyncStatus(), FolderSynchronizationStatus::OutOfSync);
        EXPECT_TRUE(
            log.Contains(INFO, "Sync finished successfully for root folder " + tmp.filePath("b")));
    }
}

TEST_F(SynchronizerTest, UnauthorizedForARemovedRootIsNotReported) {
    AddRoot(1, QStringLiteral("a"));
    EXPECT_CALL(*runner, Process)
        .WillOnce(Invoke(
            [this](FolderConfiguration&) -> std::shared_ptr<sync::syncService::SyncTaskDepot> {
                folders.folders.remove(1);
                throw sync::http::HttpException(401, "gone");
            }));
    EXPECT_CALL(*actionLog, AddHttpErrorEntry).Times(0);
    Run();
    EXPECT_TRUE(emitted.Matching("Folder").isEmpty());
    EXPECT_EQ(emitted.Matching("Finished "), QStringList{"Finished 1 0"});
}

// ---------------------------------------------------------------------------------------------
// Action log

TEST_F(SynchronizerTest, CompletionEntriesFollowTheRootFolderOutcome) {
    struct Row {
        const char* name;
        FolderSynchronizationStatus before;
        SyncResults result;
        int type;  // 0: no entry
        SyncDetails details;
        bool withDetails;
    };
    SyncResults uploads;
    uploads.FileServerCreations = 2;
    uploads.FileLocalDeletions = 1;
    SyncResults folderOnly;
    folderOnly.FolderLocalCreations = 1;
    SyncResults failedDownload;
    failedDownload.FileServerCreations = 1;
    failedDownload.FileLocalCreationErrors = 1;
    const Row rows[] = {
        {"uploads", FolderSynchronizationStatus::Synchronized, uploads, 2,
         SyncDetails(16, {"2", "0", "0", "1"}), true},
        {"folders only", FolderSynchronizationStatus::Synchronized, folderOnly, 2, {}, false},
        {"was out of sync", FolderSynchronizationStatus::OutOfSync, {}, 2, {}, false},
        {"quiet", FolderSynchronizationStatus::Synchronized, {}, 0, {}, false},
        {"failed download", FolderSynchronizationStatus::Synchronized, failedDownload, 3,
         SyncDetails(12, {"1", "0", "0", "0", "0", "1", "0", "0", "0", "0", "0", "0"}), true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        folders.folders.clear();
        ::testing::Mock::VerifyAndClearExpectations(actionLog.get());
        const QString path = AddRoot(1, QStringLiteral("a"), row.before).localPath;
        engineResults[1] = row.result;
        const QString name = QStringLiteral("a");
        EXPECT_CALL(*actionLog, AddFolderEntryWithDetails(_, _, _, _)).Times(0);
        EXPECT_CALL(*actionLog, AddFolderEntry(_, _, _)).Times(0);
        if (row.withDetails)
            EXPECT_CALL(*actionLog, AddFolderEntryWithDetails(row.type, path, name, row.details));
        else if (row.type != 0)
            EXPECT_CALL(*actionLog, AddFolderEntry(row.type, path, name));
        Run();
    }
}

// ---------------------------------------------------------------------------------------------
// Database audit and cleanup

TEST_F(SynchronizerTest, AuditRemovesRecordsOfMissingRootFolders) {
    QVector<FolderConfiguration> orphanFolders(3);
    for (int i = 0; i < 3; ++i) {
        orphanFolders[i].id = 50 + i;
        orphanFolders[i].localPath = QStringLiteral("/old/f%1").arg(i);
    }
    QVector<FileConfiguration> orphanFiles(2);
    for (int i = 0; i < 2; ++i) {
        orphanFiles[i].id = 60 + i;
        orphanFiles[i].localPath = QStringLiteral("/old/x%1").arg(i);
    }
    ON_CALL(*folderDb, GetFoldersOfMissingRootFolders).WillByDefault(Return(orphanFolders));
    ON_CALL(*fileDb, GetFilesOfMissingRootFolders).WillByDefault(Return(orphanFiles));
    for (int id : {50, 51, 52}) EXPECT_CALL(*folderDb, RemoveFolder(id));
    for (int id : {60, 61}) EXPECT_CALL(*fileDb, RemoveFile(id));
    LogCapture log;

    Run();

    EXPECT_EQ(log.Messages(WARN),
              (QStringList{"3 folder(s) found in database whose root folders don't exist. "
                           "Removing these invalid folders.",
                           "2 file(s) found in database whose root folders don't exist. "
                           "Removing these invalid files."}));
    EXPECT_EQ(
        log.Messages(DEBUG),
        (QStringList{"List of folder(s) whose root folders don't exist:\n/old/f0\n/old/f1\n/old/f2",
                     "List of file(s) whose root folders don't exist:\n/old/x0\n/old/x1"}));
}

TEST_F(SynchronizerTest, BaseCopiesWithoutSourceOrFileAreCleanedUp) {
    AddRoot(1, QStringLiteral("a"));
    const QString backup = tmp.filePath("a/.{SyncBackup}");
    const QString keptBackup = tmp.filePath("b/.{SyncBackup}");
    QDir().mkpath(backup);
    QDir().mkpath(keptBackup);
    auto makeBase = [](int id, int parent, const QString& path, bool onDisk) {
        FileConfiguration b;
        b.id = id;
        b.parentFileId = parent;
        b.localPath = path;
        if (onDisk) {
            QFile f(path);
            EXPECT_TRUE(f.open(QIODevice::WriteOnly));
            f.write("base");
        }
        return b;
    };
    FileConfiguration source;
    source.id = 5;
    files.Put(source);
    const QVector<FileConfiguration> bases{
        makeBase(20, 99, backup + "/orphan.BASE", true),       // source record deleted
        makeBase(21, 5, keptBackup + "/missing.BASE", false),  // base file gone
        makeBase(22, 5, keptBackup + "/kept.BASE", true),      // both still there
    };
    ON_CALL(*fileDb, GetGeneratedFilesByKind(2)).WillByDefault(Return(bases));
    EXPECT_CALL(*fileDb, RemoveGeneratedFileById(20));
    EXPECT_CALL(*fileDb, RemoveGeneratedFileById(21));
    EXPECT_CALL(*fileDb, RemoveGeneratedFileById(22)).Times(0);

    Run();

    EXPECT_FALSE(QFileInfo::exists(backup));
    EXPECT_TRUE(QFileInfo::exists(keptBackup + "/kept.BASE"));
}

// ---------------------------------------------------------------------------------------------
// Signals and slots

bool WaitFor(const std::function<bool()>& done) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > 10000) return false;
        QThread::msleep(5);
    }
    return true;
}

TEST_F(SynchronizerTest, HostReceivesReportsOnItsOwnThread) {
    AddRoot(1, QStringLiteral("a"), FolderSynchronizationStatus::NotSynchronized);
    QThread hostThread;
    QSharedPointer<RecordingSignals> hostSignals(new RecordingSignals);
    hostSignals->moveToThread(&hostThread);
    hostThread.start();
    {
        auto s = Make(hostSignals.toWeakRef());
        emit localRetriever->SubFolderNameNotAllowed(QStringLiteral("bad:name"));
        s->Synchronize();
    }
    const QStringList expected{"SubFolderNameNotAllowed bad:name", "SyncingFolders", "Begin 1 0 1",
                               "Finished 1 0 1", "FinishedSyncingFolders 0"};
    EXPECT_TRUE(WaitFor([&] { return hostSignals->Calls().size() >= expected.size(); }));
    hostThread.quit();
    hostThread.wait();
    EXPECT_EQ(hostSignals->Calls(), expected);
    EXPECT_TRUE(hostSignals->AllOnOwnThread());
}

TEST_F(SynchronizerTest, FilteredEntriesReachTheTaskEngine) {
    auto s = Make();  // no host receiver: its connections are simply not made
    EXPECT_CALL(*engine, HandleSubFolderFilteredOut(QString("n"))).Times(2);
    EXPECT_CALL(*engine, HandleFileFilteredOut(QString("f"))).Times(1);
    EXPECT_CALL(*engine, SetFilteredLocalFolderCount(1)).Times(2);
    EXPECT_CALL(*engine, SetFilteredLocalFileCount(1)).Times(1);
    EXPECT_CALL(*engine, SetFilteredServerFolderCount(1)).Times(1);
    EXPECT_CALL(*engine, SetFilteredServerFileCount(1)).Times(1);
    emit localRetriever->SubFolderNameNotAllowed("n");
    emit localRetriever->FolderFilteredOut("n");
    emit localRetriever->FileFilteredOut("f");
    emit serverRetriever->FolderFilteredOut("s");
    emit serverRetriever->FileFilteredOut("s");
    emit configRetriever->FileFilteredOut("c");  // the config tree's notices go nowhere
}

}  // namespace
