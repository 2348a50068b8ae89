// Whole cycles of the engine, wired as the service wires it, against the in-memory fake server:
// the first cycle downloads a tree of new files into an empty root folder, the second finds
// nothing to do.
//
// Usage: cycle_bench [folders] [filesPerFolder] [fileBytes] [directory]   (defaults 1000, 100,
// 1024, and a temporary directory under /dev/shm, a RAM file system, so that the disk does not
// decide the figures). Prints the time of each cycle, what it did, and the peak memory.

#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <cstdio>
#include <memory>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "CoreFactory.h"
#include "FakeServer.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "ISyncFilter.h"
#include "ISynchronizer.h"
#include "ServerConfigManager.h"
#include "SyncLog.h"
#include "SynchronizationServiceFactory.h"

namespace {

const QString kServerRoot = QStringLiteral("/Bench");

class AcceptAllFilter : public sync::interf::ISyncFilter {
public:
    int FilterFile(const QString&, qint64, bool) override { return 0; }
    int FilterFolder(const QString&, bool) override { return 0; }
};

class NoCustomUpdate : public sync::interf::ICustomFileConfigUpdater {
public:
    void UpdateFileConfig(sync::config::FileConfiguration&) override {}
};

// CPU seconds of the whole process, all threads: on a shared machine the wall clock moves
// with the load, the CPU time much less.
double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long PeakRssKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int CountFiles(const QString& path) {
    int n = 0;
    QDirIterator it(path, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++n;
    }
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    sync::core::ConfigureLogging(QStringLiteral("WARN"));
    const QStringList args = app.arguments();
    const int folderCount = args.size() > 1 ? args[1].toInt() : 1000;
    const int filesPerFolder = args.size() > 2 ? args[2].toInt() : 100;
    const int fileBytes = args.size() > 3 ? args[3].toInt() : 1024;
    QTemporaryDir temporary(args.size() > 4 ? args[4] + QStringLiteral("/cycle-XXXXXX")
                                            : QStringLiteral("/dev/shm/cycle-bench-XXXXXX"));
    if (!temporary.isValid()) {
        std::fprintf(stderr, "cannot create a temporary directory\n");
        return 2;
    }
    // CYCLE_BENCH_KEEP=1 keeps the folder and the database for a look afterwards.
    if (qEnvironmentVariableIntValue("CYCLE_BENCH_KEEP") == 1) {
        temporary.setAutoRemove(false);
        std::printf("directory: %s\n", qPrintable(temporary.path()));
    }
    const QString localRoot = temporary.filePath(QStringLiteral("Root"));
    QDir().mkpath(localRoot);

    auto server = std::make_shared<sync::test::FakeServer>();
    server->PutFolder(kServerRoot);
    const QByteArray content(fileBytes, 'x');
    for (int d = 0; d < folderCount; ++d) {
        const QString folder = kServerRoot + QStringLiteral("/folder%1").arg(d, 4, 10, QChar('0'));
        server->PutFolder(folder);
        for (int f = 0; f < filesPerFolder; ++f)
            server->PutFile(folder + QStringLiteral("/file%1.bin").arg(f, 3, 10, QChar('0')),
                            content);
    }

    auto database = sync::database::ConfigDatabase::Open(temporary.filePath("sync.db"));
    sync::database::ConfigDatabase::Install(database);
    auto folders = std::make_shared<sync::database::FolderConfigManager>(database);
    auto files = std::make_shared<sync::database::FileConfigManager>(database);
    auto accounts = std::make_shared<sync::database::AuthenticationConfigManager>(database);
    auto serverConfigs = std::make_shared<sync::database::ServerConfigManager>(database);
    server->SetDatabase(files);  // its transfer clients settle the records, as real ones do
    sync::config::ServerConfiguration account;
    account.name = QStringLiteral("bench");
    account.kind = QStringLiteral("fake");
    account.baseUrl = QStringLiteral("https://fake.example");
    account.userName = QStringLiteral("bench");
    accounts->AddAccount(account);

    sync::config::FolderConfiguration root;
    root.authenticationId = account.id;
    root.name = QStringLiteral("Root");
    root.localPath = localRoot;
    root.serverPath = kServerRoot;
    root.path = kServerRoot;
    root.serverRootPath = QStringLiteral("/");
    root.syncScope = 0;
    root.serverFolderId = server->Find(kServerRoot)->id;
    root.setSyncStatus(sync::config::FolderSynchronizationStatus::Synchronized);
    folders->AddFolder(root);

    sync::syncService::SynchronizationServiceFactory::Companions companions;
    companions.coreFactory = std::make_shared<sync::factory::CoreFactory>();
    companions.folderConfigManager = folders;
    companions.fileConfigManager = files;
    companions.authenticationConfigManager = accounts;
    companions.serverConfigManager = serverConfigs;
    companions.remoteFolderManagerFactory = server;
    companions.remoteFileManagerFactory = server;
    companions.uploadClient = server;
    companions.downloadClient = server;
    companions.deleteClient = server;
    companions.urlBuilder = server;
    companions.customFileConfigUpdater = std::make_shared<NoCustomUpdate>();
    companions.fileFilter = std::make_shared<AcceptAllFilter>();
    companions.folderFilter = companions.fileFilter;
    sync::syncService::SynchronizationServiceFactory factory(companions);

    const int total = folderCount * filesPerFolder;
    bool ok = true;
    for (int cycle = 1; cycle <= 2; ++cycle) {
        QElapsedTimer timer;
        timer.start();
        const double cpuAtStart = CpuSeconds();
        const sync::core::SyncResults results =
            factory.CreateSynchronizer(QWeakPointer<sync::interf::ISyncSignalsAndSlots>(), nullptr)
                ->Synchronize();
        const double seconds = timer.nsecsElapsed() / 1e9;
        const double cpu = CpuSeconds() - cpuAtStart;
        const int onDisk = CountFiles(localRoot);
        const double limit = cycle == 1 ? 15.0 : 1.5;
        std::printf(
            "cycle %d: %8.3f s (limit %.1f s, cpu %.3f s)  downloads %d, errors %s, files on "
            "disk %d\n",
            cycle, seconds, limit, cpu, results.FileLocalCreations,
            results.anyErrors() ? "yes" : "no", onDisk);
        ok = ok && seconds < limit && !results.anyErrors() && onDisk == total &&
             results.FileLocalCreations == (cycle == 1 ? total : 0);
    }
    std::printf("peak memory: %.1f MiB\n", PeakRssKiB() / 1024.0);
    sync::database::ConfigDatabase::Uninstall();
    std::printf("%s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
}
