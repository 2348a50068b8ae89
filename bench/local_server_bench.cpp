// The local-folder server end to end, as foldersync runs it: the first sync of a new tree into
// an empty server folder, the cycle that finds nothing to do, and the cost of listing the
// server folder against the engine's walk of the local folder (the same tree).
//
// Usage: local_server_bench [folders] [filesPerFolder] [fileBytes] [directory]
// (defaults 1000, 100, 1024, a temporary directory under /dev/shm). The folders are spread
// three levels deep (10 x 10 x 10 for 1000). Prints each figure and the peak memory.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <cstdio>
#include <memory>

#include "CoreFactory.h"
#include "HostSetup.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "LocalFolderServer.h"
#include "Registration.h"
#include "SyncIgnoreFilter.h"
#include "SyncLog.h"
#include "SyncMetaTypes.h"
#include "SynchronizationServiceFactory.h"

namespace {

// CPU time of the whole process, all threads, in seconds: on a shared machine the wall clock
// moves with the load, the CPU time much less.
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

// Writes the tree with plain system calls, so that making it costs little next to syncing it.
bool MakeTree(const QString& root, int folders, int filesPerFolder, int bytes) {
    const QByteArray content(bytes, 'x');
    for (int f = 0; f < folders; ++f) {
        const QString folder =
            QStringLiteral("%1/a%2/b%3/c%4").arg(root).arg(f / 100).arg((f / 10) % 10).arg(f % 10);
        if (!QDir().mkpath(folder)) return false;
        for (int i = 0; i < filesPerFolder; ++i) {
            const QByteArray path = QFile::encodeName(folder + QStringLiteral("/f%1.txt").arg(i));
            const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0 || ::write(fd, content.constData(), size_t(bytes)) != bytes) return false;
            ::close(fd);
        }
    }
    return true;
}

// Wall seconds; cpu receives the CPU seconds.
double Cycle(sync::host::HostSetup& setup, sync::core::SyncResults& total, double& cpu) {
    auto companions = setup.Companions();
    auto filter = std::make_shared<sync::host::SyncIgnoreFilter>();
    companions.fileFilter = filter;
    companions.folderFilter = filter;
    companions.rootFolderFilter = filter;
    sync::syncService::SynchronizationServiceFactory factory(companions);
    QElapsedTimer timer;
    timer.start();
    const double cpuAtStart = CpuSeconds();
    total = factory
                .CreateSynchronizer(QWeakPointer<sync::interf::ISyncSignalsAndSlots>(),
                                    setup.configuration)
                ->Synchronize();
    cpu = CpuSeconds() - cpuAtStart;
    return double(timer.nsecsElapsed()) / 1e9;
}

}  // namespace

int main(int argc, char* argv[]) {
    // As the program does.
    sync::host::HostSetup::TuneAllocator();
    QCoreApplication app(argc, argv);
    sync::core::RegisterSyncMetaTypes();
    sync::core::ConfigureLogging(QStringLiteral("WARN"));
    const int folders = argc > 1 ? atoi(argv[1]) : 1000;
    const int perFolder = argc > 2 ? atoi(argv[2]) : 100;
    const int bytes = argc > 3 ? atoi(argv[3]) : 1024;
    QTemporaryDir temporary(argc > 4 ? QString::fromLocal8Bit(argv[4]) + "/lsb-XXXXXX"
                                     : QStringLiteral("/dev/shm/lsb-XXXXXX"));
    if (!temporary.isValid()) {
        std::fprintf(stderr, "no temporary directory\n");
        return 2;
    }
    const QString local = temporary.filePath(QStringLiteral("local/Bench"));
    const QString server = temporary.filePath(QStringLiteral("server/Bench"));
    qputenv("XDG_DATA_HOME", temporary.filePath(QStringLiteral("data")).toLocal8Bit());
    if (!MakeTree(local, folders, perFolder, bytes)) {
        std::fprintf(stderr, "cannot write the tree\n");
        return 2;
    }
    std::printf("tree: %d folders x %d files of %d bytes in %s\n", folders, perFolder, bytes,
                qPrintable(temporary.path()));

    sync::host::HostSetup setup(temporary.filePath(QStringLiteral("sync.db")));
    sync::host::Registration registration(setup);
    const int rootId = registration.Register(local, server);
    if (rootId < 0) {
        std::fprintf(stderr, "%s\n", qPrintable(registration.Error()));
        return 2;
    }
    const long baseline = PeakRssKiB();
    sync::core::SyncResults total;
    double firstCpu = 0, againCpu = 0;
    const double first = Cycle(setup, total, firstCpu);
    std::printf("first sync: %.2f s (cpu %.2f s), %d files uploaded, %d errors, peak %ld MiB\n",
                first, firstCpu, total.FileServerCreations, total.FileServerCreationErrors,
                PeakRssKiB() / 1024);
    const double again = Cycle(setup, total, againCpu);
    std::printf(
        "no-change cycle: %.2f s (cpu %.2f s), work done: %s, peak %ld MiB (baseline %ld MiB)\n",
        again, againCpu, total.anyWorkDone() ? "yes" : "no", PeakRssKiB() / 1024, baseline / 1024);

    // The server listing against the engine's local walk, best of three each.
    sync::config::FolderConfiguration root = setup.folders->GetFolderById(rootId);
    auto backend = setup.remote->Backend(root.authenticationId);
    auto filter = std::make_shared<sync::host::SyncIgnoreFilter>();
    sync::syncService::LocalEntryInfoTreeRetriever walker(
        setup.folders, setup.files, std::make_shared<sync::factory::CoreFactory>(), filter, filter);
    double listing = 1e9, walk = 1e9, listingCpu = 1e9, walkCpu = 1e9;
    for (int round = 0; round < 3; ++round) {
        QElapsedTimer timer;
        timer.start();
        double cpuAtStart = CpuSeconds();
        auto listedFolders = std::make_shared<QVector<sync::config::FolderConfiguration>>();
        auto listedFiles = std::make_shared<QVector<sync::config::FileConfiguration>>();
        const int status = backend->GetFolderTree(root, listedFolders, listedFiles);
        listing = std::min(listing, double(timer.nsecsElapsed()) / 1e9);
        listingCpu = std::min(listingCpu, CpuSeconds() - cpuAtStart);
        if (status != 0 || listedFiles->size() != folders * perFolder) {
            std::fprintf(stderr, "listing answered %d with %lld files\n", status,
                         static_cast<long long>(listedFiles->size()));
            return 1;
        }
        timer.restart();
        cpuAtStart = CpuSeconds();
        const auto tree = walker.GetEntryInfoTree(root);
        walk = std::min(walk, double(timer.nsecsElapsed()) / 1e9);
        walkCpu = std::min(walkCpu, CpuSeconds() - cpuAtStart);
    }
    std::printf(
        "server listing: %.3f s (cpu %.3f s), local walk: %.3f s (cpu %.3f s), ratio %.2f\n",
        listing, listingCpu, walk, walkCpu, listing / walk);
    return 0;
}
