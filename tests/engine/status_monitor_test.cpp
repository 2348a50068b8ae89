#include <gtest/gtest.h>

#include <QFileInfo>
#include <QSet>
#include <QStringList>
#include <memory>
#include <random>

#include "DatabaseException.h"
#include "FakeConfigStore.h"
#include "FolderUtilities.h"
#include "SyncStatusMonitor.h"
#include "SyncTaskDepot.h"
#include "TransactionalScope.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::test::FakeConfigStore;
using FileStatus = sync::config::FileSynchronizationStatus;
using FolderStatus = sync::config::FolderSynchronizationStatus;
using syncStatusMonitor::Walker;
using TaskPtr = std::shared_ptr<sync::interf::ISyncTask>;

QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

namespace {

void AddTask(SyncTaskDepot& depot, SyncTaskType type, FileConfiguration file) {
    if (!FileSyncTask::IsFileTaskType(type)) {
        FolderConfiguration folder;
        folder.localPath = folder.serverPath = file.localPath;
        FolderSyncTask task(type, folder, NoChange, Added, nullptr, nullptr, nullptr, nullptr,
                            nullptr);
        return depot.AddSyncTask(task);
    }
    FileSyncTask task(type, file, NoChange, Added, nullptr, nullptr, nullptr, nullptr, nullptr);
    depot.AddSyncTask(task);
}

// A root folder /r of account 1 with Synchronized database records /r, /r/A, /r/A/B and, outside
// the root, /rx.
struct World {
    World() {
        for (const char* path : {"/r", "/r/A", "/r/A/B", "/rx"}) {
            FolderConfiguration f;
            f.localPath = path;
            f.authenticationId = 1;
            f.syncStatus = FolderStatus::Synchronized;
            store->AddFolder(f);
            if (f.localPath == "/r") root = f;
        }
    }
    // "up /r/A/f": a task by type name and path; stored: its file has a database record.
    void Add(const QString& line, bool stored = false) {
        static const QStringList types{"",      "smkdir", "srmdir", "up", "srm",
                                       "mkdir", "rmdir",  "down",   "rm", "conflict"};
        FileConfiguration f;
        f.localPath = f.serverPath = line.section(' ', 1);
        if (stored) store->AddFile(f);
        AddTask(depot, SyncTaskType(types.indexOf(line.section(' ', 0, 0))), f);
    }
    // "1 1 1 0 | f=2 B=1": the database's /r, /r/A, /r/A/B, /rx, then each monitored task's
    // record by name.
    QString Statuses() {
        QStringList out, records;
        for (const char* path : {"/r", "/r/A", "/r/A/B", "/rx"})
            out << QString::number(int(store->GetFolderByPath(path, 1).getSyncStatus()));
        for (int type = ServerFolderCreation; type <= LocalFileDeletion; ++type) {
            const auto tasks = depot.GetSyncTaskList(SyncTaskType(type));
            for (const TaskPtr& t : tasks ? *tasks : QList<TaskPtr>()) {
                const bool file = t->IsFileTask();
                records << QString("%1=%2").arg(
                    (file ? t->GetFileConfig().localPath : t->GetFolderConfig().localPath)
                        .section('/', -1),
                    QString::number(file ? int(t->GetFileConfig().syncStatus)
                                         : int(t->GetFolderConfig().getSyncStatus())));
            }
        }
        records.sort();
        return out.join(' ') + " | " + records.join(' ');
    }

    std::shared_ptr<FakeConfigStore> store = std::make_shared<FakeConfigStore>();
    FolderConfiguration root;
    SyncTaskDepot depot;
    SyncStatusMonitor monitor{store, store};
};

struct Transactions {
    explicit Transactions(FakeConfigStore& store) {
        sync::database::TransactionalScope::SetBackend(store.TransactionBackend());
    }
    ~Transactions() { sync::database::TransactionalScope::SetBackend(nullptr); }
};

}  // namespace

TEST(StatusMonitorTest, ReportsSettleTheEntryAndEveryFolderUpToTheRoot) {
    struct Row {
        const char* name;
        QStringList tasks;    // or "filtered-file path" / "filtered-folder path"
        QStringList reports;  // "file path status", "folder path status", "end"
        QString expected;
    };
    const QStringList inB{"up /r/A/B/f1", "down /r/A/B/f2"}, aAndB{"mkdir /r/A/B", "down /r/A/f"};
    // clang-format off
    const Row rows[] = {
        {"Start marks",                  inB, {},                                       "1 1 1 0 | f1=1 f2=1"},
        {"failed file, sibling running", inB, {"file /r/A/B/f1 2"},                     "1 1 1 0 | f1=2 f2=1"},
        {"failed file, sibling done",    inB, {"file /r/A/B/f1 2", "file /r/A/B/f2 0"}, "2 2 2 0 | f1=2 f2=0"},
        {"all done", {"up /r/A/B/f1", "rm /r/f2"}, {"file /r/A/B/f1 0", "file /r/f2 0"}, "0 0 0 0 | f1=0 f2=0"},
        {"failed folder, nothing below", {"mkdir /r/A/B"}, {"folder /r/A/B/ 2"},        "2 2 2 0 | B=2"},
        {"Synchronized over running", {"smkdir /r/A", "down /r/A/f"}, {"folder /r/A 0"}, "1 1 0 0 | A=1 f=1"},
        {"Synchronized over failed", {"smkdir /r/A", "down /r/A/f"}, {"file /r/A/f 2", "folder /r/A 0"},
                                                                                        "2 2 0 0 | A=2 f=2"},
        {"running file, failed folder",  aAndB, {"folder /r/A/B 2"},                    "1 1 2 0 | B=2 f=1"},
        {"failed file, running folder",  aAndB, {"file /r/A/f 2"},                      "2 2 1 0 | B=1 f=2"},
        {"other letter case",   {"up /r/A/f"}, {"file /R/a/F 2"},                       "2 2 0 0 | f=2"},
        {"other case, not ASCII", {"up /r/A/\u00c4\u212a"}, {"file /R/a/\u00e4k 2"},        "2 2 0 0 | \u00c4\u212a=2"},
        {"outside the root",    {"up /r/A/f"}, {"file /rx/f 2", "folder /rx 2", "folder / 2", "folder r 2"},
                                                                                        "1 1 0 0 | f=1"},
        {"filtered-out entries take no part",
         {"filtered-file /r/A/ignored", "filtered-folder /r/A/skipped", "up /r/A/f"}, {"file /r/A/f 0"},
                                                                                        "0 0 0 0 | f=0"},
        {"conflicts not monitored", {"conflict /r/A/B/c"}, {"file /r/A/B/c 2"},         "0 0 0 0 | "},
        {"after End",           {"up /r/A/f"}, {"end", "file /r/A/f 2"},                "1 1 0 0 | f=1"},
    };
    // clang-format on
    for (const Row& row : rows) {
        World w;
        for (const QString& task : row.tasks) {
            if (task.startsWith("filtered-file"))
                w.monitor.HandleFileFilteredOut(task.section(' ', 1));
            else if (task.startsWith("filtered-folder"))
                w.monitor.HandleSubFolderFilteredOut(task.section(' ', 1));
            else
                w.Add(task);
        }
        w.monitor.Start(w.root, w.depot);
        for (const QString& report : row.reports) {
            const QString path = report.section(' ', 1, 1);
            const int status = report.section(' ', 2, 2).toInt();
            if (report == "end")
                w.monitor.End();
            else if (report.startsWith("file"))
                w.monitor.UpdateFile(path, FileStatus(status));
            else
                w.monitor.UpdateFolder(path, FolderStatus(status));
        }
        EXPECT_EQ(w.Statuses(), row.expected) << row.name;
    }
}

// Two paths name the same entry exactly when their keys are equal: cleaned, every letter
// folded (beyond ASCII too, where a letter may fold to an ASCII one), nothing else touched.
TEST(StatusMonitorTest, PathKeysCleanAndFoldEveryLetter) {
    const struct {
        QString path, key;
    } rows[] = {
        {"/R/A/f.TXT", "/r/a/f.txt"},
        {"/r//a/./b/../F/", "/r/a/f"},
        {"/", ""},
        {"", ""},
        {"/Stra\u00dfe/\u00c4\u03a3", "/stra\u00dfe/\u00e4\u03c3"},
        {"/\u212a/Z", "/k/z"},
        {"/{A}[Z]@`", "/{a}[z]@`"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(syncStatusMonitor::PathKey(row.path), row.key) << row.path.toStdString();
        EXPECT_TRUE(
            syncStatusMonitor::IsSameOrBelow(syncStatusMonitor::PathKey(row.path + "/x"), row.key))
            << row.path.toStdString();
    }
}

TEST(StatusMonitorTest, DatabaseWritesAreFewAndBatched) {
    struct Row {
        const char* name;
        QStringList tasks;  // the first one's file has a database record
        QList<int> calls;   // of Start: GetFolderByPath, UpdateFolder, UpdateFile, Begin
    };
    // clang-format off
    const Row rows[] = {
        {"empty depot",           {},                                        {0, 0, 0, 0}},
        {"conflict marking only", {"conflict /r/A/f"},                       {0, 0, 0, 0}},
        {"shared parents once",   {"up /r/A/B/f1", "down /r/A/B/F2", "rm /r/a/b/f3", "mkdir /r/A/B", "srm /r/A/f4"},
                                                                             {3, 3, 1, 1}},
        {"outside the root",      {"up /rx/f", "down /other/f"},             {0, 0, 1, 1}},
    };
    // clang-format on
    auto calls = [](FakeConfigStore& s) {
        return QList<int>{s.Calls("GetFolderByPath"), s.Calls("UpdateFolder"),
                          s.Calls("UpdateFile"), s.Calls("Begin")};
    };
    for (const Row& row : rows) {
        World w;
        Transactions transactions(*w.store);
        for (int i = 0; i < row.tasks.size(); ++i) w.Add(row.tasks[i], i == 0);
        w.monitor.Start(w.root, w.depot);
        EXPECT_EQ(calls(*w.store), row.calls) << row.name;
    }

    // A report writes what changed up to the root in one transaction, and opens none when
    // nothing changed; one that fails half-way leaves none of its writes behind.
    World w;
    Transactions transactions(*w.store);
    w.Add("up /r/A/B/f1");
    w.Add("up /r/A/B/f2");
    w.monitor.Start(w.root, w.depot);
    w.monitor.UpdateFile("/r/A/B/f1", FileStatus::Synchronized);
    EXPECT_EQ(calls(*w.store), QList<int>({3 + 3, 3, 0, 1}));
    w.monitor.UpdateFile("/r/A/B/f2", FileStatus::OutOfSync);
    EXPECT_EQ(calls(*w.store), QList<int>({6 + 3, 6, 0, 2}));
    w.monitor.UpdateFile("/r/A/B/f2", FileStatus::Synchronized);
    w.store->FailOn("GetFolderByPath", 3);
    EXPECT_THROW(w.monitor.UpdateFile("/r/A/B/f2", FileStatus::OutOfSync),
                 sync::database::DatabaseException);
    w.store->ClearFaults();
    EXPECT_EQ(w.Statuses(), "0 0 0 0 | f1=0 f2=2");
}

namespace {

// The monitor's rules as plain walks over every record for every question.
struct LiteralMonitor {
    static bool Below(const QString& path, const QString& folder) {
        return sync::core::FolderUtilities::IsParent(path, folder, Qt::CaseInsensitive);
    }
    bool InRoot(const QString& path) {
        return !path.compare(root.localPath, Qt::CaseInsensitive) || Below(path, root.localPath);
    }
    void Start() {
        QSet<QString> visited;
        auto mark = [&](QString p) {
            for (; InRoot(p) && !visited.contains(p.toLower()); p = Walker::GetParentFolder(p)) {
                FolderConfiguration f = store->GetFolderByPath(p, 1);
                if (f.id != -1 && f.getSyncStatus() != FolderStatus::Synchronizing) {
                    f.setSyncStatus(FolderStatus::Synchronizing);
                    store->UpdateFolder(f);
                }
                visited.insert(p.toLower());
            }
        };
        for (FolderConfiguration& f : folders) {
            f.setSyncStatus(FolderStatus::Synchronizing);
            mark(f.localPath);
        }
        for (FileConfiguration& f : files) {
            f.syncStatus = FileStatus::Synchronizing;
            f.syncStatusSet = true;
            if (f.id != -1) store->UpdateFile(f);
            mark(QFileInfo(f.localPath).absolutePath());
        }
    }
    void Decide(const QString& path, FolderStatus reported) {
        if (!InRoot(path)) return;
        bool fileRunning = false, fileFailed = false, folderRunning = false, folderFailed = false;
        for (const FileConfiguration& f : files) {
            fileRunning |= Below(f.localPath, path) && f.syncStatus == FileStatus::Synchronizing;
            fileFailed |= Below(f.localPath, path) && f.syncStatus != FileStatus::Synchronized;
        }
        for (const FolderConfiguration& f : folders) {
            const FolderStatus s = f.getSyncStatus();
            folderRunning |= Below(f.localPath, path) && s == FolderStatus::Synchronizing;
            folderFailed |= Below(f.localPath, path) && s != FolderStatus::Synchronized;
        }
        FolderStatus status = fileRunning || (!fileFailed && folderRunning)
                                  ? FolderStatus::Synchronizing
                              : fileFailed || folderFailed || reported == FolderStatus::OutOfSync
                                  ? FolderStatus::OutOfSync
                                  : FolderStatus::Synchronized;
        for (FolderConfiguration& f : folders)
            if (!f.localPath.compare(path, Qt::CaseInsensitive)) {
                f.setSyncStatus(status);
                break;
            }
        FolderConfiguration stored = store->GetFolderByPath(path, 1);
        if (stored.id != -1 && stored.getSyncStatus() != status) {
            stored.setSyncStatus(status);
            store->UpdateFolder(stored);
        }
        if (Walker::GetParentFolder(path) != path)
            Decide(Walker::GetParentFolder(path), FolderStatus::Synchronizing);
    }
    void UpdateFile(const QString& path, FileStatus status) {
        for (FileConfiguration& f : files)
            if (!f.localPath.compare(path, Qt::CaseInsensitive)) {
                f.syncStatus = status;
                break;
            }
        Decide(QFileInfo(path).absolutePath(), FolderStatus::Synchronizing);
    }

    std::shared_ptr<FakeConfigStore> store = std::make_shared<FakeConfigStore>();
    FolderConfiguration root;
    std::vector<FolderConfiguration> folders;  // copies of the task records, in walk order
    std::vector<FileConfiguration> files;
};

}  // namespace

// Random trees with names that differ in letter case only or share a prefix, entries outside
// the root, several records for one path: after Start and after every report, the task records,
// the database and the number of database calls are those of the literal walk.
TEST(StatusMonitorTest, CountedStatusesEqualTheLiteralWalkOnRandomTrees) {
    std::mt19937 random(20240611);
    auto pick = [&](int n) { return static_cast<int>(random() % n); };
    auto anyCase = [&](QString path) {
        for (QChar& c : path)
            if (pick(3) == 0) c = c.isUpper() ? c.toLower() : c.toUpper();
        return path;
    };
    const QStringList names{"a", "A", "b", "ab", "a b"};
    const SyncTaskType types[] = {ServerFileCreation,  ServerFileDeletion,   LocalFileCreation,
                                  LocalFileDeletion,   ServerFolderCreation, ServerFolderDeletion,
                                  LocalFolderCreation, LocalFolderDeletion};
    for (int round = 0; round < 300; ++round) {
        QStringList tree{"/Root"};
        for (int i = 0; i < 6; ++i) tree << tree[pick(tree.size())] + "/" + names[pick(5)];
        tree << "/Rootx"
             << "/Rootx/a"
             << "/other";
        auto anyFolder = [&] { return anyCase(tree[pick(tree.size())]); };

        LiteralMonitor literal;
        auto counted = std::make_shared<FakeConfigStore>();
        for (int i = 0; i < tree.size(); ++i) {
            if (i > 0 && pick(4) == 0) continue;
            FolderConfiguration f;
            f.localPath = anyCase(tree[i]);
            f.authenticationId = 1;
            f.syncStatus = FolderStatus(pick(4));
            counted->AddFolder(f);
            literal.store->AddFolder(f);
            if (i == 0) literal.root = f;
        }
        SyncTaskDepot depot;
        for (int i = 0, n = 1 + pick(14); i < n; ++i) {
            const SyncTaskType type = types[pick(8)];
            FileConfiguration f;
            f.localPath = anyFolder();
            if (FileSyncTask::IsFileTaskType(type)) {
                f.localPath += "/f" + QString::number(pick(3));
                if (pick(2) == 0) {
                    counted->AddFile(f);
                    literal.store->AddFile(f);
                }
            }
            AddTask(depot, type, f);
        }
        QList<TaskPtr> tasks;
        for (SyncTaskType type : types)
            if (auto list = depot.GetSyncTaskList(type)) tasks << *list;
        for (const TaskPtr& t : tasks)
            t->IsFileTask() ? literal.files.push_back(t->GetFileConfig())
                            : literal.folders.push_back(t->GetFolderConfig());

        auto same = [&](const QString& step) {
            int file = 0, folder = 0;
            for (const TaskPtr& t : tasks) {
                if (t->IsFileTask()) {
                    const FileConfiguration& copy = literal.files[file++];
                    ASSERT_EQ(t->GetFileConfig().syncStatus, copy.syncStatus) << step.toStdString();
                    ASSERT_EQ(t->GetFileConfig().syncStatusSet, copy.syncStatusSet);
                } else {
                    ASSERT_EQ(t->GetFolderConfig().getSyncStatus(),
                              literal.folders[folder++].getSyncStatus())
                        << step.toStdString();
                }
            }
            for (int id = 1; id <= tree.size(); ++id)
                ASSERT_EQ(counted->GetFolderById(id).getSyncStatus(),
                          literal.store->GetFolderById(id).getSyncStatus())
                    << step.toStdString() << " folder " << id;
            for (const char* call : {"UpdateFolder", "UpdateFile"})
                ASSERT_EQ(counted->Calls(call), literal.store->Calls(call)) << step.toStdString();
            // A folder whose status the monitor already knows is not read again.
            ASSERT_LE(counted->Calls("GetFolderByPath"), literal.store->Calls("GetFolderByPath"))
                << step.toStdString();
        };

        SyncStatusMonitor monitor(counted, counted);
        monitor.Start(literal.root, depot);
        literal.Start();
        ASSERT_NO_FATAL_FAILURE(same(QString("round %1 start").arg(round)));
        for (int step = 0; step < 25; ++step) {
            const int status = pick(4);
            QString path = anyFolder() + (pick(2) ? "/g" : "");
            if (!tasks.isEmpty() && pick(3) != 0) {
                const TaskPtr& t = tasks[pick(tasks.size())];
                path = anyCase(t->IsFileTask() ? t->GetFileConfig().localPath
                                               : t->GetFolderConfig().localPath);
            }
            if (pick(3) == 0) {
                monitor.UpdateFolder(path, FolderStatus(status));
                literal.Decide(path, FolderStatus(status));
            } else {
                monitor.UpdateFile(path, FileStatus(status));
                literal.UpdateFile(path, FileStatus(status));
            }
            ASSERT_NO_FATAL_FAILURE(same(
                QString("round %1 step %2: %3 %4").arg(round).arg(step).arg(path).arg(status)));
        }
    }
}
