// Planning cost of a large root folder: the whole planning pass of one cycle (local tree from
// the disk, config tree from the SQLite database, server tree from the in-memory fake server,
// reconciliation, pre-processing, both diffs, pairing and resolution into the depot), once with
// nothing changed and once with 1% of the files changed on each side.
//
// Usage: planning_bench [folders] [filesPerFolder] [dataDirectory]   (defaults 1000, 100, and a
// temporary directory under TMPDIR). A data directory is prepared once and reused by later runs.
// Setup and each measured pass run in child processes of their own, so that neither the setup's
// time nor its memory counts, and each pass's peak memory is its own; the walk runs with the
// directory in the page cache.

#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <atomic>
#include <cstdio>
#include <memory>

#include "ConfigDatabase.h"
#include "ConfigEntryInfoTreeRetriever.h"
#include "ConflictResolverFactory.h"
#include "CoreFactory.h"
#include "FakeServer.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "FolderUtilities.h"
#include "ISyncFilter.h"
#include "LocalConfigTreeDiffer.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "ServerConfigTreeDiffer.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "SyncLog.h"
#include "SynchronizationPreProcessor.h"
#include "SynchronizeRunner.h"
#include "TransactionalScope.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

const QString kServerRoot = QStringLiteral("/Bench/Root");

class AcceptAllFilter : public sync::interf::ISyncFilter {
public:
    int FilterFile(const QString&, qint64, bool) override { return 0; }
    int FilterFolder(const QString&, bool) override { return 0; }
};

// The real hash service, counted: planning never needs to read a file whose size changed or
// whose time did not.
class CountingHash : public sync::interf::ICryptographicHash {
public:
    explicit CountingHash(std::shared_ptr<sync::interf::ICryptographicHash> inner)
        : _inner(std::move(inner)) {}
    QString GetFileHash(const QString& filePath) override {
        ++calls;
        return _inner->GetFileHash(filePath);
    }
    std::atomic<int> calls{0};

private:
    std::shared_ptr<sync::interf::ICryptographicHash> _inner;
};

// The local differ takes its hash service from the process-wide core factory at construction:
// this delegate hands it the counting one, and must not forward anything else (it would forward
// to itself).
class HashOnlyCore : public sync::interf::factory::ICoreFactory {
public:
    explicit HashOnlyCore(std::shared_ptr<CountingHash> hash) : _hash(std::move(hash)) {}
    std::shared_ptr<sync::interf::ICryptographicHash> CreateCryptographicHash() override {
        return _hash;
    }
    std::shared_ptr<sync::interf::IQFileWrapper> CreateRecycler() override { return {}; }
    std::shared_ptr<sync::interf::IQDirWrapper> CreateQDirWrapper(std::shared_ptr<QDir>) override {
        return {};
    }
    std::shared_ptr<sync::interf::IQFileWrapper> CreateFileWrapper() override { return {}; }
    std::shared_ptr<sync::interf::IConnectedToNetwork> CreateConnectedToNetwork() override {
        return {};
    }
    std::shared_ptr<sync::interf::ICheckForExit> CreateCheckForExit() override { return {}; }
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> CreateQDirIterator(
        const QString&, QDir::Filters, QDirIterator::IteratorFlags) override {
        return {};
    }
    std::shared_ptr<sync::interf::IActionLog> CreateActionLog() override { return {}; }

private:
    std::shared_ptr<CountingHash> _hash;
};

// The real core services with the counting hash.
class CountingCore : public sync::factory::CoreFactory {
public:
    explicit CountingCore(std::shared_ptr<CountingHash> hash) : _hash(std::move(hash)) {}
    std::shared_ptr<sync::interf::ICryptographicHash> CreateCryptographicHash() override {
        return _hash;
    }

private:
    std::shared_ptr<CountingHash> _hash;
};

// Time spent in the injected steps, so that the runner's own share is what remains.
struct StepTimes {
    qint64 localTree = 0, configTree = 0, serverTree = 0, localDiff = 0, serverDiff = 0,
           preProcess = 0;
};

long CurrentRssKiB();

class TimedRetriever : public sync::interf::IEntryInfoTreeRetriever {
public:
    TimedRetriever(std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> inner, qint64& ns)
        : _inner(std::move(inner)), _ns(ns) {}
    std::shared_ptr<EntryInfoTree> GetEntryInfoTree(FolderConfiguration& root) override {
        QElapsedTimer timer;
        timer.start();
        auto tree = _inner->GetEntryInfoTree(root);
        _ns += timer.nsecsElapsed();
        rssAfterKiB = CurrentRssKiB();
        return tree;
    }
    long rssAfterKiB = 0;
    bool IsTreeModified() const override { return _inner->IsTreeModified(); }

private:
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _inner;
    qint64& _ns;
};

class TimedDiffer : public sync::interf::IEntryInfoTreeDiffer {
public:
    TimedDiffer(std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> inner, qint64& ns)
        : _inner(std::move(inner)), _ns(ns) {}
    EntryInfoTreeChange Diff(EntryInfoTree& config, EntryInfoTree& other, bool flag) override {
        QElapsedTimer timer;
        timer.start();
        EntryInfoTreeChange change = _inner->Diff(config, other, flag);
        _ns += timer.nsecsElapsed();
        return change;
    }
    bool DetectFileModified(FileConfiguration& a, FileConfiguration& b) override {
        return _inner->DetectFileModified(a, b);
    }
    bool DetectFileAdded(FileConfiguration& f, EntryInfoTree& c, EntryInfoTree& o) override {
        return _inner->DetectFileAdded(f, c, o);
    }
    bool DetectFileDeleted(FileConfiguration& f) override { return _inner->DetectFileDeleted(f); }
    bool DetectFolderAdded(FolderConfiguration& f, EntryInfoTree& c, EntryInfoTree& o) override {
        return _inner->DetectFolderAdded(f, c, o);
    }
    bool DetectFolderDeleted(FolderConfiguration& f) override {
        return _inner->DetectFolderDeleted(f);
    }

private:
    std::shared_ptr<sync::interf::IEntryInfoTreeDiffer> _inner;
    qint64& _ns;
};

class TimedPreProcessor : public sync::interf::ISynchronizationPreProcessor {
public:
    TimedPreProcessor(std::shared_ptr<sync::interf::ISynchronizationPreProcessor> inner, qint64& ns)
        : _inner(std::move(inner)), _ns(ns) {}
    void PreProcess(std::shared_ptr<EntryInfoTree> local, std::shared_ptr<EntryInfoTree> config,
                    std::shared_ptr<EntryInfoTree> server) override {
        QElapsedTimer timer;
        timer.start();
        _inner->PreProcess(std::move(local), std::move(config), std::move(server));
        _ns += timer.nsecsElapsed();
    }

private:
    std::shared_ptr<sync::interf::ISynchronizationPreProcessor> _inner;
    qint64& _ns;
};

long PeakRssKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // KiB on Linux
}

long CurrentRssKiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

QByteArray ContentOf(int n) {
    return QByteArray("content of file ") + QByteArray::number(n);
}

QString FolderName(int d) {
    return QStringLiteral("folder%1").arg(d, 4, 10, QLatin1Char('0'));
}

QString FileName(int f) {
    return QStringLiteral("file%1.txt").arg(f, 3, 10, QLatin1Char('0'));
}

// The server as the last synchronisation left it, built in the same order every time, so that
// its ids and version ids are those the database recorded. It keeps no hashes, like many
// servers: versions tell its changes.
std::shared_ptr<sync::test::FakeServer> ServerOf(int folderCount, int filesPerFolder) {
    auto server = std::make_shared<sync::test::FakeServer>();
    server->reportsHashes = false;
    server->PutFolder(kServerRoot);
    for (int d = 0; d < folderCount; ++d) {
        const QString folder = kServerRoot + QLatin1Char('/') + FolderName(d);
        server->PutFolder(folder);
        for (int f = 0; f < filesPerFolder; ++f)
            server->PutFile(folder + QLatin1Char('/') + FileName(f),
                            ContentOf(d * filesPerFolder + f));
    }
    return server;
}

// The state the database holds after the last synchronisation: every folder and file of the
// server listing, completed with what the disk shows (whole-second times, content hashes).
void RecordSynchronisedState(sync::test::FakeServer& server, const EntryInfoTree& disk,
                             FolderConfiguration& root, sync::interf::IFolderConfigManager& folders,
                             sync::interf::IFileConfigManager& files) {
    auto serverFolders = std::make_shared<QVector<FolderConfiguration>>();
    auto serverFiles = std::make_shared<QVector<FileConfiguration>>();
    server.GetFolderTree(root, serverFolders, serverFiles);
    auto hash = sync::factory::CoreFactory().CreateCryptographicHash();

    sync::database::TransactionalScope scope;
    QHash<QString, int> folderIds;
    folderIds.insert(EntryInfoTree::KeyOf(root.serverPath), root.id);
    std::sort(serverFolders->begin(), serverFolders->end(), &SynchronizeRunner::LessThan);
    for (FolderConfiguration folder : *serverFolders) {
        const QString key = EntryInfoTree::KeyOf(folder.serverPath);
        if (folderIds.contains(key)) continue;
        folder.authenticationId = root.authenticationId;
        folder.rootId = root.id;
        folder.inheritedId = root.inheritedId;
        folder.parentId = folderIds.value(EntryInfoTree::KeyOf(
            sync::core::FolderUtilities::GetParentFolderPath(folder.serverPath)));
        folder.setSyncStatus(FolderSynchronizationStatus::Synchronized);
        folders.AddFolder(folder);
        folderIds.insert(key, folder.id);
    }
    for (FileConfiguration file : *serverFiles) {
        const FileConfiguration local = disk.fileMap.value(EntryInfoTree::KeyOf(file.serverPath));
        file.folderId = folderIds.value(EntryInfoTree::KeyOf(
            sync::core::FolderUtilities::GetParentFolderPath(file.serverPath)));
        file.rootId = root.id;
        file.inheritedId = root.inheritedId;
        QDateTime seconds = local.lastModified.toUTC();
        file.lastModified = seconds.addMSecs(-seconds.time().msec());
        file.checksum = hash->GetFileHash(local.localPath);
        file.syncStatus = FileSynchronizationStatus::Synchronized;
        files.AddFile(file);
    }
    scope.commit();
}

// The disk, and the database as the last synchronisation left it.
int Prepare(const QString& workPath, int folderCount, int filesPerFolder) {
    const QString rootPath = workPath + QStringLiteral("/Root");
    for (int d = 0; d < folderCount; ++d) {
        const QString folder = rootPath + QLatin1Char('/') + FolderName(d);
        QDir().mkpath(folder);
        for (int f = 0; f < filesPerFolder; ++f) {
            QFile file(folder + QLatin1Char('/') + FileName(f));
            const QByteArray content = ContentOf(d * filesPerFolder + f);
            if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
                std::fprintf(stderr, "cannot write the test files\n");
                return 2;
            }
        }
    }

    auto database = sync::database::ConfigDatabase::Open(workPath + QStringLiteral("/sync.db"));
    sync::database::ConfigDatabase::Install(database);
    auto folderManager = std::make_shared<sync::database::FolderConfigManager>(database);
    auto fileManager = std::make_shared<sync::database::FileConfigManager>(database);

    FolderConfiguration root;
    root.authenticationId = 1;
    root.name = QStringLiteral("Root");
    root.localPath = rootPath;
    root.serverPath = kServerRoot;
    root.path = kServerRoot;
    root.syncScope = 0;
    root.setSyncStatus(FolderSynchronizationStatus::Synchronized);
    const auto server = ServerOf(folderCount, filesPerFolder);
    root.serverFolderId = server->Find(kServerRoot)->id;
    if (!folderManager->AddFolder(root)) {
        std::fprintf(stderr, "cannot add the root folder record\n");
        return 2;
    }
    auto filter = std::make_shared<AcceptAllFilter>();
    LocalEntryInfoTreeRetriever disk(
        folderManager, fileManager, std::make_shared<sync::factory::CoreFactory>(), filter, filter);
    RecordSynchronisedState(*server, *disk.GetEntryInfoTree(root), root, *folderManager,
                            *fileManager);
    sync::database::ConfigDatabase::Uninstall();
    return 0;
}

// Local edits change the first file of every hundredth-of-the-files folder slice; server edits
// the second: 1% of the files on each side, none on both.
struct Edits {
    QStringList localFiles;
    QList<QByteArray> originalContent;
    QList<QDateTime> originalTimes;
};

int CountTasks(const SyncTaskDepot& depot, SyncTaskType type) {
    const auto keys = depot.GetSyncTaskListKeys(type);
    return keys ? keys->size() : 0;
}

// One measured planning pass, in a process of its own.
int Plan(const QString& workPath, int folderCount, int filesPerFolder, bool changed) {
    auto database = sync::database::ConfigDatabase::Open(workPath + QStringLiteral("/sync.db"));
    sync::database::ConfigDatabase::Install(database);
    auto folderManager = std::make_shared<sync::database::FolderConfigManager>(database);
    auto fileManager = std::make_shared<sync::database::FileConfigManager>(database);
    const QVector<FolderConfiguration> roots = folderManager->GetRootFolders();
    if (roots.size() != 1) {
        std::fprintf(stderr, "expected one root folder record, found %d\n", int(roots.size()));
        return 2;
    }
    FolderConfiguration root = roots.first();
    const auto server = ServerOf(folderCount, filesPerFolder);

    const int totalFiles = folderCount * filesPerFolder;
    const int editsPerSide = totalFiles / 100;
    Edits edits;
    if (changed) {
        for (int i = 0; i < editsPerSide; ++i) {
            const int d = i % folderCount;
            const int f = (i / folderCount) * 2;
            const QString below = FolderName(d) + QLatin1Char('/') + FileName(f);
            const QString local = root.localPath + QLatin1Char('/') + below;
            QFile file(local);
            if (!file.open(QIODevice::ReadWrite)) {
                std::fprintf(stderr, "cannot edit %s\n", qPrintable(local));
                return 2;
            }
            edits.localFiles << local;
            edits.originalContent << file.readAll();
            edits.originalTimes << QFileInfo(local).lastModified();
            file.write(" edited here");
            file.close();
            const QString serverBelow = FolderName(d) + QLatin1Char('/') + FileName(f + 1);
            server->PutFile(kServerRoot + QLatin1Char('/') + serverBelow,
                            ContentOf(d * filesPerFolder + f + 1) + " edited there");
        }
    }

    StepTimes times;
    auto filter = std::make_shared<AcceptAllFilter>();
    auto hash =
        std::make_shared<CountingHash>(sync::factory::CoreFactory().CreateCryptographicHash());
    auto core = std::make_shared<CountingCore>(hash);
    sync::factory::CoreFactory::SetDelegate(std::make_shared<HashOnlyCore>(hash));
    auto realLocalDiffer = std::make_shared<LocalConfigTreeDiffer>();
    sync::factory::CoreFactory::SetDelegate(nullptr);
    auto localRetriever =
        std::make_shared<TimedRetriever>(std::make_shared<LocalEntryInfoTreeRetriever>(
                                             folderManager, fileManager, core, filter, filter),
                                         times.localTree);
    auto configRetriever = std::make_shared<TimedRetriever>(
        std::make_shared<ConfigEntryInfoTreeRetriever>(fileManager, folderManager),
        times.configTree);
    auto serverRetriever = std::make_shared<TimedRetriever>(
        std::make_shared<ServerEntryInfoTreeRetriever>(folderManager, fileManager, core, server,
                                                       server, filter, filter),
        times.serverTree);
    auto localDiffer = std::make_shared<TimedDiffer>(realLocalDiffer, times.localDiff);
    auto serverDiffer =
        std::make_shared<TimedDiffer>(std::make_shared<ServerConfigTreeDiffer>(), times.serverDiff);
    auto preProcessor = std::make_shared<TimedPreProcessor>(
        std::make_shared<SynchronizationPreProcessor>(core, fileManager, folderManager),
        times.preProcess);
    SynchronizeRunner runner(std::make_shared<ConflictResolverFactory>(), localRetriever,
                             configRetriever, serverRetriever, localDiffer, serverDiffer, core,
                             preProcessor, fileManager, folderManager, nullptr);

    const long baselineKiB = CurrentRssKiB();
    QElapsedTimer timer;
    timer.start();
    std::shared_ptr<SyncTaskDepot> depot = runner.Process(root);
    depot->RemoveConflictAndDuplicateTask();
    const qint64 planNs = timer.nsecsElapsed();
    const int uploads = CountTasks(*depot, ServerFileCreation);
    const int downloads = CountTasks(*depot, LocalFileCreation);
    int tasks = 0;
    for (int type = ServerFolderCreation; type <= FileConflictMarking; ++type)
        tasks += CountTasks(*depot, static_cast<SyncTaskType>(type));
    // The trees live as long as the depot's tasks hold them; letting them go is part of the
    // pass, whether that happens inside Process (nothing planned) or here.
    timer.restart();
    depot.reset();
    const qint64 totalNs = planNs + timer.nsecsElapsed();
    const long peakKiB = PeakRssKiB();
    const qint64 runnerNs = totalNs - times.localTree - times.configTree - times.serverTree -
                            times.localDiff - times.serverDiff - times.preProcess;

    // Put the disk back as it was, so that the data directory can be used again.
    for (int i = 0; i < edits.localFiles.size(); ++i) {
        QFile file(edits.localFiles.at(i));
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            file.write(edits.originalContent.at(i));
            file.setFileTime(edits.originalTimes.at(i), QFileDevice::FileModificationTime);
        }
    }
    sync::database::ConfigDatabase::Uninstall();

    const double limit = changed ? 2.0 : 1.2;
    const char* name = changed ? "1% changed on each side" : "nothing changed";
    std::printf("--- %s (%d files, %d folders)\n", name, totalFiles, folderCount);
    std::printf("local tree:    %8.3f s  (disk walk)\n", times.localTree / 1e9);
    std::printf("config tree:   %8.3f s  (database)\n", times.configTree / 1e9);
    std::printf("server tree:   %8.3f s  (listing of the in-memory fake server)\n",
                times.serverTree / 1e9);
    std::printf("pre-process:   %8.3f s\n", times.preProcess / 1e9);
    std::printf("local diff:    %8.3f s\n", times.localDiff / 1e9);
    std::printf("server diff:   %8.3f s\n", times.serverDiff / 1e9);
    std::printf(
        "runner:        %8.3f s  (pruning, reconciliation, pairing, resolvers, "
        "attributes, releasing the trees)\n",
        runnerNs / 1e9);
    std::printf("total:         %8.3f s  (limit %.1f s)\n", totalNs / 1e9, limit);
    std::printf("tasks:         %d (%d uploads, %d downloads; expected %d and %d)\n", tasks,
                uploads, downloads, changed ? editsPerSide : 0, changed ? editsPerSide : 0);
    std::printf("hash calls:    %d (expected 0)\n", hash->calls.load());
    std::printf(
        "resident:      %.1f MiB after the local tree, %.1f after the config tree, %.1f "
        "after the server tree\n",
        localRetriever->rssAfterKiB / 1024.0, configRetriever->rssAfterKiB / 1024.0,
        serverRetriever->rssAfterKiB / 1024.0);
    std::printf(
        "memory:        %.1f MiB before planning (database, fake server), peak %.1f MiB "
        "(limit 150 MiB)\n",
        baselineKiB / 1024.0, peakKiB / 1024.0);
    const bool ok = totalNs / 1e9 < limit && peakKiB < 150 * 1024 &&
                    tasks == (changed ? 2 * editsPerSide : 0) &&
                    uploads == (changed ? editsPerSide : 0) &&
                    downloads == (changed ? editsPerSide : 0) && hash->calls.load() == 0;
    std::printf("%s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    sync::core::ConfigureLogging(QStringLiteral("WARN"));
    const QStringList args = app.arguments();
    if (args.size() == 5 && args[1] == QLatin1String("--prepare"))
        return Prepare(args[2], args[3].toInt(), args[4].toInt());
    if (args.size() == 6 && args[1] == QLatin1String("--plan"))
        return Plan(args[2], args[3].toInt(), args[4].toInt(), args[5] == QLatin1String("changed"));
    const int folderCount = args.size() > 1 ? args[1].toInt() : 1000;
    const int filesPerFolder = args.size() > 2 ? args[2].toInt() : 100;

    QTemporaryDir temporary;
    const QString workPath = args.size() > 3 ? args[3] : temporary.path();
    if (args.size() <= 3 && !temporary.isValid()) {
        std::fprintf(stderr, "cannot create a temporary directory\n");
        return 2;
    }
    const QStringList sizes{QString::number(folderCount), QString::number(filesPerFolder)};
    if (!QFile::exists(workPath + QStringLiteral("/sync.db"))) {
        QElapsedTimer setup;
        setup.start();
        QDir().mkpath(workPath);
        if (QProcess::execute(app.applicationFilePath(),
                              QStringList{QStringLiteral("--prepare"), workPath} + sizes) != 0) {
            std::fprintf(stderr, "setup failed\n");
            return 2;
        }
        std::printf("setup: %d folders x %d files written and recorded in %.1f s (not timed)\n",
                    folderCount, filesPerFolder, setup.elapsed() / 1000.0);
    }
    std::fflush(stdout);
    int failed = 0;
    for (const char* run : {"unchanged", "changed"}) {
        const int result = QProcess::execute(
            app.applicationFilePath(), QStringList{QStringLiteral("--plan"), workPath} + sizes +
                                           QStringList{QString::fromLatin1(run)});
        if (result != 0) ++failed;
    }
    return failed == 0 ? 0 : 1;
}
