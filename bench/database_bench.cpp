// Loads the file records of one root folder with 100,000 files and writes them all back in one
// transaction, as a planning pass and a large upload batch do. Prints records per second and the
// peak resident memory.

#include <sys/resource.h>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <cstdio>
#include <ctime>

#include "ConfigDatabase.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "SyncLog.h"
#include "TransactionalScope.h"

using namespace sync::config;
using namespace sync::database;

namespace {

// CPU time of the process, to tell the work from waiting on a loaded machine.
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

FileConfiguration MakeFile(const FolderConfiguration& root, int i) {
    FileConfiguration f;
    f.folderId = root.id;
    f.rootId = root.id;
    f.inheritedId = root.id;
    f.name = QStringLiteral("document-%1.txt").arg(i);
    f.localPath = root.localPath + QStringLiteral("/sub-%1/").arg(i % 100) + f.name;
    f.serverPath = root.serverPath + QStringLiteral("/sub-%1/").arg(i % 100) + f.name;
    f.checksum = QStringLiteral("%1").arg(i * 7919, 40, 16, QLatin1Char('0'));
    f.contentType = QStringLiteral("text/plain");
    f.lastModified = QDateTime::fromMSecsSinceEpoch(1600000000000LL + i * 1000LL, Qt::UTC);
    f.size = 1000 + i;
    f.transferDirection = 2;
    f.properties.insert(QStringLiteral("version"), QString::number(i % 9));
    f.properties.insert(QStringLiteral("versionId"), QStringLiteral("v-%1").arg(i));
    f.privileges = 31;
    f.serverFileId = QStringLiteral("file-%1").arg(i);
    f.serverChecksum = f.checksum;
    f.serverModified = f.lastModified;
    f.syncStatus = FileSynchronizationStatus::Synchronized;
    return f;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    sync::core::ConfigureLogging(QStringLiteral("WARN"));
    const int count = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 100000;
    QTemporaryDir dir;
    auto db = ConfigDatabase::Open(dir.filePath(QStringLiteral("sync.db")));
    ConfigDatabase::Install(db);
    FolderConfigManager folders(db);
    FileConfigManager files(db);

    FolderConfiguration root;
    root.authenticationId = 1;
    root.localPath = QStringLiteral("/home/user/Documents");
    root.serverPath = QStringLiteral("/Documents");
    folders.AddFolder(root);
    {
        TransactionalScope scope;
        for (int i = 0; i < count; ++i) {
            FileConfiguration f = MakeFile(root, i);
            files.AddFile(f);
        }
    }
    std::printf("records: %d, peak RSS after filling: %ld KiB\n", count, PeakRssKb());

    QElapsedTimer timer;
    timer.start();
    double cpu = CpuSeconds();
    QVector<FileConfiguration> loaded = files.GetFilesByRootId(root.id, false);
    const double readSeconds = timer.nsecsElapsed() / 1e9;
    const double readCpu = CpuSeconds() - cpu;
    if (loaded.size() != count) {
        std::printf("expected %d records, read %d\n", count, static_cast<int>(loaded.size()));
        return 1;
    }
    std::printf("GetFilesByRootId: %d records in %.3f s = %.0f records/s (CPU %.3f s)\n", count,
                readSeconds, count / readSeconds, readCpu);

    timer.restart();
    cpu = CpuSeconds();
    {
        TransactionalScope scope;
        for (auto& f : loaded) {
            f.syncStatus = FileSynchronizationStatus::Synchronizing;
            f.transferPending = true;
            files.UpdateFile(f);
        }
        scope.commit();
    }
    const double writeSeconds = timer.nsecsElapsed() / 1e9;
    const double writeCpu = CpuSeconds() - cpu;
    std::printf(
        "UpdateFile (one transaction): %d records in %.3f s = %.0f records/s (CPU %.3f s)\n", count,
        writeSeconds, count / writeSeconds, writeCpu);
    std::printf("peak RSS: %ld KiB\n", PeakRssKb());

    timer.restart();
    auto reopened = ConfigDatabase::Open(db->Path(), ConfigDatabase::Mode::ReadOnly);
    std::printf("open with integrity check: %.3f s\n", timer.nsecsElapsed() / 1e9);
    ConfigDatabase::Uninstall();
    const bool ok = readSeconds < 0.5 && writeSeconds < 2.0;
    std::printf("targets: read under 0.5 s, write under 2 s: %s\n", ok ? "PASS" : "FAIL");
    return 0;
}
