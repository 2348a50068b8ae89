#include <gtest/gtest.h>

#include <QStringList>
#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "BaseFileWorker.h"
#include "BaseFolderWorker.h"
#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "LogCapture.h"
#include "SyncStatusMonitor.h"
#include "SyncTaskDepot.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;
using FileStatus = sync::config::FileSynchronizationStatus;
using FolderStatus = sync::config::FolderSynchronizationStatus;
using TaskList = SyncStatusMonitor::TaskList;
using TaskPtr = std::shared_ptr<sync::interf::ISyncTask>;

namespace {

// Settles its tasks as real workers do: asks the exit check before each, counts it and reports
// it OutOfSync through Done; then runs what the case adds.
template <typename Base>
class Worker : public Base {
public:
    using Base::Base;
    SyncResults InnerWork(const FolderConfiguration&, TaskList tasks) override {
        ++innerCalls;
        SyncResults results;
        for (const TaskPtr& task : *tasks) {
            if (this->_checkForExit->ShouldExit()) break;
            ++results.FileServerCreations;
            if constexpr (std::is_same<Base, BaseFileWorker>::value)
                emit this->Done(task->GetFileConfig().localPath, FileStatus::OutOfSync);
            else
                emit this->Done(task->GetFolderConfig().localPath, FolderStatus::OutOfSync);
        }
        if (after) after();
        return results;
    }
    bool PopulateParentData(FolderConfiguration& folder) {
        return this->_PopulateParentData(folder);
    }
    std::function<void()> after;
    int innerCalls = 0;
};

// A root folder /r with /r/A in the database, an upload of /r/A/f.txt and a creation of /r/A/B in
// the depot, and a started monitor.
struct World {
    World() {
        for (const char* path : {"/r", "/r/A"}) {
            FolderConfiguration f;
            f.localPath = path;
            f.authenticationId = 1;
            f.rootId = f.inheritedId = root.id;
            f.inheritedValue = 4;
            store->AddFolder(f);
            if (root.id == -1) root = f;
        }
        FileConfiguration f;
        f.localPath = "/r/A/f.txt";
        FileSyncTask upload(ServerFileCreation, f, NoChange, Added, {}, {}, {}, {}, {});
        depot.AddSyncTask(upload);
        FolderConfiguration b;
        b.localPath = "/r/A/B";
        FolderSyncTask mkdir(LocalFolderCreation, b, Added, NoChange, {}, {}, {}, {}, {});
        depot.AddSyncTask(mkdir);
        monitor.Start(root, depot);
    }
    TaskList Uploads() { return depot.GetSyncTaskList(ServerFileCreation); }
    TaskList Mkdirs() { return depot.GetSyncTaskList(LocalFolderCreation); }
    QString Statuses() {  // the upload's and the creation's records, the database's /r/A
        return QString("%1 %2 %3")
            .arg(int(Uploads()->first()->GetFileConfig().syncStatus))
            .arg(int(Mkdirs()->first()->GetFolderConfig().getSyncStatus()))
            .arg(int(store->GetFolderByPath("/r/A", 1).getSyncStatus()));
    }

    std::shared_ptr<sync::test::FakeConfigStore> store =
        std::make_shared<sync::test::FakeConfigStore>();
    std::shared_ptr<sync::test::FakeCore> core = std::make_shared<sync::test::FakeCore>();
    FolderConfiguration root;
    SyncTaskDepot depot;
    SyncStatusMonitor monitor{store, store};
    Worker<BaseFileWorker> files{store, core->CreateCheckForExit()};
    Worker<BaseFolderWorker> folders{store, store, core->CreateCheckForExit()};
};

}  // namespace

TEST(WorkerBaseTest, DoneReachesTheMonitorOnlyWhenThereIsWork) {
    for (const bool null : {true, false}) {
        World w;
        const TaskList none = null ? nullptr : std::make_shared<TaskList::element_type>();
        EXPECT_FALSE(w.files.Work(w.root, none, w.monitor).anyWorkDone());
        EXPECT_FALSE(w.folders.Work(w.root, none, w.monitor).anyWorkDone());
        EXPECT_EQ(w.files.innerCalls + w.folders.innerCalls, 0);
        // Nothing was connected: a report now does not reach the monitor.
        emit w.files.Done("/r/A/f.txt", FileStatus::OutOfSync);
        emit w.folders.Done("/r/A/B", FolderStatus::OutOfSync);
        EXPECT_EQ(w.Statuses(), "1 1 1") << null;
    }

    World w;
    EXPECT_EQ(w.files.Work(w.root, w.Uploads(), w.monitor).FileServerCreations, 1);
    EXPECT_EQ(w.Statuses(), "2 1 2");
    EXPECT_EQ(w.folders.Work(w.root, w.Mkdirs(), w.monitor).FileServerCreations, 1);
    EXPECT_EQ(w.Statuses(), "2 2 2");

    // The worker asks the exit check it was built with.
    World stopped;
    stopped.core->RequestStop();
    EXPECT_FALSE(
        stopped.files.Work(stopped.root, stopped.Uploads(), stopped.monitor).anyWorkDone());
    EXPECT_EQ(stopped.Statuses(), "1 1 1");
}

TEST(WorkerBaseTest, StandardExceptionIsLoggedAndDropsTheStepsResults) {
    World w;
    sync::test::LogCapture log;
    w.files.after = [] { throw std::runtime_error("upload batch lost"); };
    w.folders.after = [] { throw std::out_of_range("no such folder"); };
    EXPECT_FALSE(w.files.Work(w.root, w.Uploads(), w.monitor).anyWorkDone());
    EXPECT_FALSE(w.folders.Work(w.root, w.Mkdirs(), w.monitor).anyWorkDone());
    EXPECT_EQ(log.Messages(log4cplus::ERROR_LOG_LEVEL),
              QStringList({"upload batch lost", "no such folder"}));
    w.files.after = [] { throw 42; };
    EXPECT_THROW(w.files.Work(w.root, w.Uploads(), w.monitor), int);
}

TEST(WorkerBaseTest, FolderOrderingsAreStrictAndPutParentsFirstOrLast) {
    auto tasks = [](const QStringList& paths) {
        QList<TaskPtr> list;
        for (const QString& p : paths) {
            FolderConfiguration f;
            f.serverPath = p;
            list << std::make_shared<FolderSyncTask>(ServerFolderDeletion, f, Deleted, NoChange,
                                                     nullptr, nullptr, nullptr, nullptr, nullptr);
        }
        return list;
    };
    const QStringList paths{"B/c", "a", "B", "b", "A", "B-x", "b/C", "a/b/c", "A/B"};
    const QList<TaskPtr> t = tasks(paths);
    using Compare = bool (*)(const TaskPtr&, const TaskPtr&);
    for (Compare less : {&BaseFolderWorker::LessThan, &BaseFolderWorker::GreatThan}) {
        // What std::sort requires, over every triple: irreflexive, transitive, and "neither is
        // before the other" transitive; equal and case-different paths included.
        auto same = [&](int x, int y) { return !less(t[x], t[y]) && !less(t[y], t[x]); };
        for (int a = 0; a < t.size(); ++a) {
            ASSERT_FALSE(less(t[a], t[a])) << paths[a].toStdString();
            for (int b = 0; b < t.size(); ++b)
                for (int c = 0; c < t.size(); ++c) {
                    ASSERT_TRUE(!less(t[a], t[b]) || !less(t[b], t[c]) || less(t[a], t[c]));
                    ASSERT_TRUE(!same(a, b) || !same(b, c) || same(a, c));
                }
        }
    }
    auto sorted = [&](Compare less, const QStringList& input) {
        QList<TaskPtr> list = tasks(input);
        std::sort(list.begin(), list.end(), less);
        QStringList out;
        for (const TaskPtr& task : list) out << task->GetFolderConfig().serverPath.toLower();
        return out.join(' ');
    };
    EXPECT_EQ(sorted(&BaseFolderWorker::LessThan, {"B/c", "a", "B"}), "a b b/c");
    EXPECT_EQ(sorted(&BaseFolderWorker::GreatThan, {"B/c", "a", "B"}), "b/c b a");
    EXPECT_EQ(sorted(&BaseFolderWorker::GreatThan, paths), "b/c b/c b-x b b a/b/c a/b a a");
}

TEST(WorkerBaseTest, ParentDataComesFromTheParentsRecord) {
    struct Row {
        QString localPath;
        int parentId;
        bool ok;
        QString result;  // parentId inheritedId inheritedValue, lookups, error logged
    };
    const Row rows[] = {
        {"/r/A/New", -1, true, "2 1 4, 1, "},
        {"/r/Gone/New", -1, false,
         "-1 -1 0, 1, Parent folder info cannot be found in the config db: /r/Gone"},
        {"/r/Gone/New", 77, true, "77 -1 0, 0, "},
    };
    for (const Row& row : rows) {
        World w;
        sync::test::LogCapture log;
        FolderConfiguration folder;
        folder.localPath = row.localPath;
        folder.authenticationId = 1;
        folder.parentId = row.parentId;
        const int lookups = w.store->Calls("GetFolderByPath");
        EXPECT_EQ(w.folders.PopulateParentData(folder), row.ok);
        EXPECT_EQ(QString("%1 %2 %3, %4, %5")
                      .arg(folder.parentId)
                      .arg(folder.inheritedId)
                      .arg(folder.inheritedValue)
                      .arg(w.store->Calls("GetFolderByPath") - lookups)
                      .arg(log.Messages(log4cplus::ERROR_LOG_LEVEL).join("")),
                  row.result);
    }
}
