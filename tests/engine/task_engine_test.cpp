// The task engine: which workers run in which order, when it stops, what it forwards, and when
// the root folder's last synchronisation time is kept.

#include <gtest/gtest.h>

#include <memory>

#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "SyncTaskDepot.h"
#include "SyncTaskEngine.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::core::SyncResults;

namespace {

// Every worker the engine asks for writes its type into the shared journal when it works.
struct Journal {
    QStringList steps;
    SyncResults resultOfEachStep;
    QString createdFolder;  // reported by the folder creation workers, as failed
};

class JournalFileWorker : public sync::interf::IFileTaskWorker {
public:
    JournalFileWorker(SyncTaskType type, Journal& journal) : _type(type), _journal(journal) {}
    SyncResults Work(const FolderConfiguration& root,
                     std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
                     SyncStatusMonitor&) override {
        return InnerWork(root, tasks);
    }
    SyncResults InnerWork(
        const FolderConfiguration&,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override {
        _journal.steps << QStringLiteral("%1:%2").arg(_type).arg(tasks ? tasks->size() : 0);
        return _journal.resultOfEachStep;
    }

private:
    SyncTaskType _type;
    Journal& _journal;
};

class JournalFolderWorker : public sync::interf::IFolderTaskWorker {
public:
    JournalFolderWorker(SyncTaskType type, Journal& journal) : _type(type), _journal(journal) {}
    SyncResults Work(const FolderConfiguration& root,
                     std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
                     SyncStatusMonitor&) override {
        return InnerWork(root, tasks);
    }
    SyncResults InnerWork(
        const FolderConfiguration&,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override {
        _journal.steps << QStringLiteral("%1:%2").arg(_type).arg(tasks ? tasks->size() : 0);
        if (_type == LocalFolderCreation || _type == ServerFolderCreation)
            Q_EMIT Done(_journal.createdFolder, FolderSynchronizationStatus::OutOfSync);
        return _journal.resultOfEachStep;
    }

private:
    SyncTaskType _type;
    Journal& _journal;
};

class JournalManager : public sync::interf::ITaskWorkerManager {
public:
    explicit JournalManager(Journal& journal) : _journal(journal) {}
    std::shared_ptr<sync::interf::IFileTaskWorker> GetFileTaskWorker(SyncTaskType type) override {
        return std::make_shared<JournalFileWorker>(type, _journal);
    }
    std::shared_ptr<sync::interf::IFolderTaskWorker> GetFolderTaskWorker(
        SyncTaskType type) override {
        return std::make_shared<JournalFolderWorker>(type, _journal);
    }

private:
    Journal& _journal;
};

class SyncTaskEngineTest : public ::testing::Test {
protected:
    SyncTaskEngineTest() {
        root.localPath = QStringLiteral("/home/u/Docs");
        root.serverPath = QStringLiteral("/Docs");
        root.setSyncStatus(FolderSynchronizationStatus::Synchronized);
        root.setLastSyncTime(QDateTime::fromSecsSinceEpoch(1000, Qt::UTC));
        root.setLastServerSyncRequestTime(QDateTime::fromSecsSinceEpoch(2000, Qt::UTC));
        store->AddFolder(root);
    }

    SyncResults Run(std::shared_ptr<SyncTaskDepot> depot) {
        SyncTaskEngine engine(std::make_shared<JournalManager>(journal), store, store,
                              core->CreateCheckForExit());
        QObject::connect(&engine, &SyncTaskEngine::LocalOrServerFolderCreated,
                         [this](const QString& path) { forwarded << path; });
        return engine.Process(root, depot);
    }

    QDateTime LastSyncTime() { return store->GetFolderById(root.id).getLastSyncTime(); }

    FolderConfiguration root;
    Journal journal;
    QStringList forwarded;
    std::shared_ptr<sync::test::FakeConfigStore> store =
        std::make_shared<sync::test::FakeConfigStore>();
    std::shared_ptr<sync::test::FakeCore> core = std::make_shared<sync::test::FakeCore>();
};

TEST_F(SyncTaskEngineTest, NullDepotRunsNothingAndKeepsTheLastSyncTime) {
    EXPECT_FALSE(Run(nullptr).anyWorkDone());
    EXPECT_TRUE(journal.steps.isEmpty());
    EXPECT_EQ(LastSyncTime(), QDateTime::fromSecsSinceEpoch(1000, Qt::UTC));
}

// Conflicts first, folders before their files, uploads before downloads, deletions last.
TEST_F(SyncTaskEngineTest, StepsRunInTheirOrderAndAFaultlessRunKeepsTheRequestTime) {
    auto depot = std::make_shared<SyncTaskDepot>();
    FileConfiguration file;
    file.serverPath = file.localPath = QStringLiteral("/Docs/a.txt");
    FileSyncTask upload(ServerFileCreation, file, NoChange, Added, nullptr, nullptr, nullptr,
                        nullptr, nullptr);
    depot->AddSyncTask(upload);
    Run(depot);
    EXPECT_EQ(journal.steps.join(' ').toStdString(), "9:0 5:0 1:0 3:1 7:0 4:0 8:0 2:0 6:0");
    EXPECT_EQ(LastSyncTime(), QDateTime::fromSecsSinceEpoch(2000, Qt::UTC));
}

TEST_F(SyncTaskEngineTest, AStopOrAFailureLeavesTheRootWithoutALastSyncTime) {
    const struct {
        const char* name;
        int pollsBeforeStop;  // -1: never
        bool fails;
        const char* steps;
    } rows[] = {
        {"stop before the uploads", 3, false, "9:0 5:0 1:0"},
        {"stop before the first step", 0, false, ""},
        {"one failed upload", -1, true, "9:0 5:0 1:0 3:0 7:0 4:0 8:0 2:0 6:0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        journal = Journal();
        journal.resultOfEachStep.FileServerCreationErrors = row.fails ? 1 : 0;
        core->StopAfterPolls(row.pollsBeforeStop);
        Run(std::make_shared<SyncTaskDepot>());
        EXPECT_EQ(journal.steps.join(' ').toStdString(), row.steps);
        EXPECT_FALSE(LastSyncTime().isValid());
    }
}

// A folder creation is forwarded as it is reported, whether it worked or not.
TEST_F(SyncTaskEngineTest, FolderCreationsAreForwardedEvenWhenTheyFail) {
    journal.createdFolder = QStringLiteral("/home/u/Docs/new");
    Run(std::make_shared<SyncTaskDepot>());
    EXPECT_EQ(forwarded, (QStringList{"/home/u/Docs/new", "/home/u/Docs/new"}));
}

}  // namespace
