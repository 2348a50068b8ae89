// Status monitoring of a large root folder against the SQLite database: Start over 100,000 file
// tasks in 10,000 folders, one UpdateFile per file as the workers report them, and End; then the
// local folder creation worker making 10,000 new folders on the disk under a second root, with
// the monitor. Prints the time of each phase and the database statements it cost, counted by
// wrappers around the managers and the transaction backend.
//
// Usage: status_monitor_bench [folders] [filesPerFolder]   (defaults 10000 and 10). The folders
// are 100 top folders under the root, each holding an equal share of the others.

#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>

#include "ConfigDatabase.h"
#include "CoreFactory.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "LocalFolderCreationWorker.h"
#include "SyncLog.h"
#include "SyncStatusMonitor.h"
#include "SyncTaskDepot.h"
#include "TransactionalScope.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

// Statements by kind; reads and writes of both managers, and transactions begun.
struct Counts {
    long reads = 0;
    long writes = 0;
    long transactions = 0;
    long Total() const { return reads + writes + transactions; }
};
Counts g_counts;

class CountingFolders : public sync::interf::IFolderConfigManager {
public:
    explicit CountingFolders(std::shared_ptr<sync::interf::IFolderConfigManager> real)
        : _real(std::move(real)) {}
    FolderConfiguration GetFolderById(int id) override {
        return ++g_counts.reads, _real->GetFolderById(id);
    }
    FolderConfiguration GetFolderByPath(const QString& path, int account) override {
        ++g_counts.reads;
        return _real->GetFolderByPath(path, account);
    }
    QVector<FolderConfiguration> GetFoldersByRootId(int rootId) override {
        ++g_counts.reads;
        return _real->GetFoldersByRootId(rootId);
    }
    QVector<FolderConfiguration> GetFoldersOfMissingRootFolders() override {
        ++g_counts.reads;
        return _real->GetFoldersOfMissingRootFolders();
    }
    bool UpdateFolder(const FolderConfiguration& f) override {
        ++g_counts.writes;
        return _real->UpdateFolder(f);
    }
    bool AddFolder(FolderConfiguration& f) override {
        ++g_counts.writes;
        return _real->AddFolder(f);
    }
    void RemoveFolder(int id) override { ++g_counts.writes, _real->RemoveFolder(id); }
    bool DeleteFolderById(int id) override {
        return ++g_counts.writes, _real->DeleteFolderById(id);
    }
    QVector<FolderConfiguration> GetRootFolders() override {
        ++g_counts.reads;
        return _real->GetRootFolders();
    }
    bool IsAuthenticationInUse(int account) override {
        ++g_counts.reads;
        return _real->IsAuthenticationInUse(account);
    }
    void ReleaseMemory() override { _real->ReleaseMemory(); }
    bool RemoveRootFolder(int id) override {
        return ++g_counts.writes, _real->RemoveRootFolder(id);
    }

private:
    std::shared_ptr<sync::interf::IFolderConfigManager> _real;
};

class CountingFiles : public sync::interf::IFileConfigManager {
public:
    explicit CountingFiles(std::shared_ptr<sync::interf::IFileConfigManager> real)
        : _real(std::move(real)) {}
    FileConfiguration GetFileById(int id) override {
        return ++g_counts.reads, _real->GetFileById(id);
    }
    FileConfiguration GetGeneratedFileById(int id) override {
        return ++g_counts.reads, _real->GetGeneratedFileById(id);
    }
    QVector<FileConfiguration> GetFilesOfMissingRootFolders() override {
        return ++g_counts.reads, _real->GetFilesOfMissingRootFolders();
    }
    FileConfiguration GetFileByPath(const QString& path, int account) override {
        return ++g_counts.reads, _real->GetFileByPath(path, account);
    }
    QVector<FileConfiguration> GetFilesByRootId(int rootId, bool generatedToo) override {
        return ++g_counts.reads, _real->GetFilesByRootId(rootId, generatedToo);
    }
    QVector<FileConfiguration> GetGeneratedFilesByRootId(int rootId, bool flag) override {
        return ++g_counts.reads, _real->GetGeneratedFilesByRootId(rootId, flag);
    }
    QVector<FileConfiguration> GetGeneratedFilesByKind(int kind) override {
        return ++g_counts.reads, _real->GetGeneratedFilesByKind(kind);
    }
    bool UpdateFile(const FileConfiguration& f) override {
        return ++g_counts.writes, _real->UpdateFile(f);
    }
    bool AddFile(FileConfiguration& f) override { return ++g_counts.writes, _real->AddFile(f); }
    void RemoveFile(int id) override { ++g_counts.writes, _real->RemoveFile(id); }
    void RemoveGeneratedFileById(int id) override {
        ++g_counts.writes, _real->RemoveGeneratedFileById(id);
    }
    void RemoveGeneratedFile(int id) override { ++g_counts.writes, _real->RemoveGeneratedFile(id); }

private:
    std::shared_ptr<sync::interf::IFileConfigManager> _real;
};

class CountingTransactions : public sync::database::ITransactionBackend {
public:
    explicit CountingTransactions(std::shared_ptr<sync::database::ITransactionBackend> real)
        : _real(std::move(real)) {}
    void Begin(int depth) override {
        ++g_counts.transactions;
        _real->Begin(depth);
    }
    void Commit(int depth) override { _real->Commit(depth); }
    void Rollback(int depth) noexcept override { _real->Rollback(depth); }
    void ReportLostBatch(const std::exception& reason) noexcept override {
        _real->ReportLostBatch(reason);
    }

private:
    std::shared_ptr<sync::database::ITransactionBackend> _real;
};

double CpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

long PeakRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Times one phase and reports its statements.
template <typename Phase>
void Measure(const char* name, Phase phase) {
    const Counts before = g_counts;
    const double cpu = CpuSeconds();
    QElapsedTimer timer;
    timer.start();
    phase();
    const double seconds = timer.nsecsElapsed() / 1e9;
    std::printf(
        "%-28s %8.3f s (CPU %.3f s)  statements %7ld: %ld reads, %ld writes, %ld transactions\n",
        name, seconds, CpuSeconds() - cpu, g_counts.Total() - before.Total(),
        g_counts.reads - before.reads, g_counts.writes - before.writes,
        g_counts.transactions - before.transactions);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    sync::core::ConfigureLogging(QStringLiteral("WARN"));
    const int folderCount = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 10000;
    const int filesPerFolder = argc > 2 ? QString::fromLocal8Bit(argv[2]).toInt() : 10;
    const int topCount = std::min(100, folderCount);

    QTemporaryDir dir;
    auto db = sync::database::ConfigDatabase::Open(dir.filePath(QStringLiteral("sync.db")));
    sync::database::ConfigDatabase::Install(db);
    auto realFolders = std::make_shared<sync::database::FolderConfigManager>(db);
    auto realFiles = std::make_shared<sync::database::FileConfigManager>(db);

    // The database as a previous cycle left it: everything Synchronized.
    FolderConfiguration root;
    root.authenticationId = 1;
    root.localPath = QStringLiteral("/home/user/Documents");
    root.serverPath = QStringLiteral("/Documents");
    root.syncStatus = FolderSynchronizationStatus::Synchronized;
    realFolders->AddFolder(root);
    QVector<FileConfiguration> files;
    {
        sync::database::TransactionalScope scope;
        QVector<FolderConfiguration> tops;
        for (int i = 0; i < folderCount; ++i) {
            const bool top = i < topCount;
            const FolderConfiguration& parent = top ? root : tops[i % topCount];
            FolderConfiguration folder;
            folder.authenticationId = 1;
            folder.rootId = folder.inheritedId = root.id;
            folder.parentId = parent.id;
            folder.name = QStringLiteral("folder-%1").arg(i);
            folder.localPath = parent.localPath + '/' + folder.name;
            folder.serverPath = parent.serverPath + '/' + folder.name;
            folder.syncStatus = FolderSynchronizationStatus::Synchronized;
            realFolders->AddFolder(folder);
            if (top) tops << folder;
            for (int j = 0; j < filesPerFolder; ++j) {
                FileConfiguration file;
                file.folderId = folder.id;
                file.rootId = file.inheritedId = root.id;
                file.name = QStringLiteral("document-%1.txt").arg(j);
                file.localPath = folder.localPath + '/' + file.name;
                file.serverPath = folder.serverPath + '/' + file.name;
                file.size = 1000 + j;
                file.syncStatus = FileSynchronizationStatus::Synchronized;
                realFiles->AddFile(file);
                files << file;
            }
        }
        scope.commit();
    }

    // Half uploads, half downloads; the workers report them in path order, one in a hundred
    // failed.
    SyncTaskDepot depot;
    for (int i = 0; i < files.size(); ++i) {
        FileSyncTask task(i % 2 ? LocalFileCreation : ServerFileCreation, files[i], Modified,
                          NoChange, nullptr, nullptr, nullptr, nullptr, nullptr);
        depot.AddSyncTask(task);
    }
    std::sort(files.begin(), files.end(),
              [](const FileConfiguration& a, const FileConfiguration& b) {
                  return a.localPath < b.localPath;
              });
    std::printf("root with %d folders and %d file tasks; peak RSS after setup %ld KiB\n",
                folderCount + 1, static_cast<int>(files.size()), PeakRssKb());

    sync::database::TransactionalScope::SetBackend(
        std::make_shared<CountingTransactions>(sync::database::TransactionalScope::Backend()));
    SyncStatusMonitor monitor(std::make_shared<CountingFolders>(realFolders),
                              std::make_shared<CountingFiles>(realFiles));
    QElapsedTimer total;
    total.start();
    Measure("Start", [&] { monitor.Start(root, depot); });
    Measure("UpdateFile for every file", [&] {
        for (int i = 0; i < files.size(); ++i)
            monitor.UpdateFile(files[i].localPath, i % 100 == 99
                                                       ? FileSynchronizationStatus::OutOfSync
                                                       : FileSynchronizationStatus::Synchronized);
    });
    Measure("End", [&] { monitor.End(); });
    const double seconds = total.nsecsElapsed() / 1e9;

    // New folders made on the disk by their worker: one database record each, and their statuses.
    FolderConfiguration fresh;
    fresh.authenticationId = 1;
    fresh.localPath = dir.filePath(QStringLiteral("made"));
    fresh.serverPath = QStringLiteral("/Made");
    fresh.syncStatus = FolderSynchronizationStatus::Synchronized;
    QDir().mkpath(fresh.localPath);
    realFolders->AddFolder(fresh);
    SyncTaskDepot creations;
    for (int i = 0; i < folderCount; ++i) {
        const bool top = i < topCount;
        const QString below = top ? QStringLiteral("/top-%1").arg(i)
                                  : QStringLiteral("/top-%1/folder-%2").arg(i % topCount).arg(i);
        FolderConfiguration folder;
        folder.authenticationId = 1;
        folder.rootId = folder.inheritedId = fresh.id;
        folder.name = below.section(QLatin1Char('/'), -1);
        folder.localPath = fresh.localPath + below;
        folder.serverPath = fresh.serverPath + below;
        FolderSyncTask task(LocalFolderCreation, folder, Added, NoChange, nullptr, nullptr, nullptr,
                            nullptr, nullptr);
        creations.AddSyncTask(task);
    }
    SyncStatusMonitor creationMonitor(std::make_shared<CountingFolders>(realFolders),
                                      std::make_shared<CountingFiles>(realFiles));
    LocalFolderCreationWorker worker(std::make_shared<sync::factory::CoreFactory>(),
                                     std::make_shared<CountingFolders>(realFolders),
                                     std::make_shared<CountingFiles>(realFiles));
    int made = 0;
    Measure("LocalFolderCreation (worker)", [&] {
        creationMonitor.Start(fresh, creations);
        const sync::core::SyncResults results =
            worker.Work(fresh, creations.GetSyncTaskList(LocalFolderCreation), creationMonitor);
        creationMonitor.End();
        (void)results;
    });
    const auto createdTasks = creations.GetSyncTaskList(LocalFolderCreation);
    for (const auto& task : *createdTasks)
        if (QFileInfo(task->GetFolderConfig().localPath).isDir()) ++made;
    std::printf("folders made on the disk: %d of %d checked\n", made, folderCount);

    const double allSeconds = total.nsecsElapsed() / 1e9;
    const FolderConfiguration after = realFolders->GetFolderById(root.id);
    std::printf(
        "monitor total %.3f s; all phases %.3f s, %ld statements; root status %d (2 = OutOfSync "
        "expected); peak RSS %ld KiB\n",
        seconds, allSeconds, g_counts.Total(), static_cast<int>(after.getSyncStatus()),
        PeakRssKb());
    sync::database::TransactionalScope::SetBackend(nullptr);
    sync::database::ConfigDatabase::Uninstall();
    return after.getSyncStatus() == FolderSynchronizationStatus::OutOfSync && made == folderCount
               ? 0
               : 1;
}
