// Planning cost of a large root folder in which nothing changed since the last synchronisation:
// the local tree from the disk, the config tree from the SQLite database, and the local and
// server diffs against the config tree. None of it may read file content.
//
// Usage: planning_bench [folders] [filesPerFolder] [dataDirectory]   (defaults 1000, 100, and a
// temporary directory under TMPDIR). A data directory is prepared once and reused by later runs.
// The data is built in a child process, so that neither the setup's time nor its memory counts;
// the walk then runs with the directory in the page cache.

#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <atomic>
#include <cstdio>
#include <memory>

#include "ConfigDatabase.h"
#include "ConfigEntryInfoTreeRetriever.h"
#include "CoreFactory.h"
#include "ExcludedEntryPruner.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "FolderUtilities.h"
#include "ISyncFilter.h"
#include "LocalConfigTreeDiffer.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "ServerConfigTreeDiffer.h"
#include "SyncLog.h"
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

// The real hash service, counted: an unchanged tree must never be hashed.
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

// Hands the counting hash to the local differ's constructor; nothing else is asked of it.
class HashOnlyFactory : public sync::interf::factory::ICoreFactory {
public:
    explicit HashOnlyFactory(std::shared_ptr<sync::interf::ICryptographicHash> hash)
        : _hash(std::move(hash)) {}
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
    std::shared_ptr<sync::interf::ICryptographicHash> _hash;
};

long PeakRssKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // KiB on Linux
}

bool WriteFile(const QString& path, int n) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return false;
    const QByteArray content = QByteArray("content of file ") + QByteArray::number(n);
    return file.write(content) == content.size();
}

// The state the database holds after the last synchronisation: every folder and file of the
// disk, as it is now, with whole-second times.
void RecordSynchronisedState(const EntryInfoTree& disk, FolderConfiguration& root,
                             sync::interf::IFolderConfigManager& folders,
                             sync::interf::IFileConfigManager& files) {
    sync::database::TransactionalScope scope;
    QHash<QString, int> folderIds;
    folderIds.insert(EntryInfoTree::KeyOf(root.serverPath), root.id);
    QList<FolderConfiguration> sorted = disk.folderMap.values();
    std::sort(sorted.begin(), sorted.end(),
              [](const FolderConfiguration& a, const FolderConfiguration& b) {
                  return a.serverPath.size() < b.serverPath.size();
              });
    int n = 0;
    for (FolderConfiguration folder : sorted) {
        const QString key = EntryInfoTree::KeyOf(folder.serverPath);
        if (folderIds.contains(key)) continue;
        folder.authenticationId = root.authenticationId;
        folder.rootId = root.id;
        folder.inheritedId = root.inheritedId;
        folder.parentId = folderIds.value(EntryInfoTree::KeyOf(
            sync::core::FolderUtilities::GetParentFolderPath(folder.serverPath)));
        folder.serverFolderId = QStringLiteral("folder-%1").arg(++n);
        folder.setSyncStatus(FolderSynchronizationStatus::Synchronized);
        folders.AddFolder(folder);
        folderIds.insert(key, folder.id);
    }
    for (FileConfiguration file : disk.fileMap) {
        file.folderId = folderIds.value(EntryInfoTree::KeyOf(
            sync::core::FolderUtilities::GetParentFolderPath(file.serverPath)));
        file.rootId = root.id;
        file.inheritedId = root.inheritedId;
        QDateTime seconds = file.lastModified.toUTC();
        file.lastModified = seconds.addMSecs(-seconds.time().msec());
        file.checksum = QStringLiteral("sha-%1").arg(++n);
        file.serverChecksum = file.checksum;
        file.serverFileId = QStringLiteral("file-%1").arg(n);
        file.properties.insert(QStringLiteral("version"), QStringLiteral("1"));
        file.syncStatus = FileSynchronizationStatus::Synchronized;
        files.AddFile(file);
    }
    scope.commit();
}

// What an unchanged server would list: the synchronised records themselves.
std::shared_ptr<EntryInfoTree> ServerListing(const EntryInfoTree& config) {
    auto server = std::make_shared<EntryInfoTree>();
    server->folderMap = config.folderMap;
    server->fileMap = config.fileMap;
    server->fileMap.detach();
    server->folderMap.detach();
    return server;
}

}  // namespace

// The disk, and the database as the last synchronisation left it.
int Prepare(const QString& workPath, int folderCount, int filesPerFolder) {
    const QString rootPath = workPath + QStringLiteral("/Root");
    for (int d = 0; d < folderCount; ++d) {
        const QString folder =
            rootPath + QStringLiteral("/folder%1").arg(d, 4, 10, QLatin1Char('0'));
        QDir().mkpath(folder);
        for (int f = 0; f < filesPerFolder; ++f) {
            if (!WriteFile(folder + QStringLiteral("/file%1.txt").arg(f, 3, 10, QLatin1Char('0')),
                           d * filesPerFolder + f)) {
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
    root.serverFolderId = QStringLiteral("root");
    root.setSyncStatus(FolderSynchronizationStatus::Synchronized);
    if (!folderManager->AddFolder(root)) {
        std::fprintf(stderr, "cannot add the root folder record\n");
        return 2;
    }
    auto filter = std::make_shared<AcceptAllFilter>();
    LocalEntryInfoTreeRetriever disk(
        folderManager, fileManager, std::make_shared<sync::factory::CoreFactory>(), filter, filter);
    RecordSynchronisedState(*disk.GetEntryInfoTree(root), root, *folderManager, *fileManager);
    sync::database::ConfigDatabase::Uninstall();
    return 0;
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    sync::core::ConfigureLogging(QStringLiteral("WARN"));
    const QStringList args = app.arguments();
    if (args.size() == 5 && args[1] == QLatin1String("--prepare"))
        return Prepare(args[2], args[3].toInt(), args[4].toInt());
    const int folderCount = args.size() > 1 ? args[1].toInt() : 1000;
    const int filesPerFolder = args.size() > 2 ? args[2].toInt() : 100;

    QTemporaryDir temporary;
    const QString workPath = args.size() > 3 ? args[3] : temporary.path();
    if (args.size() <= 3 && !temporary.isValid()) {
        std::fprintf(stderr, "cannot create a temporary directory\n");
        return 2;
    }
    const QString databasePath = workPath + QStringLiteral("/sync.db");
    if (!QFile::exists(databasePath)) {
        QElapsedTimer setup;
        setup.start();
        QDir().mkpath(workPath);
        const int prepared =
            QProcess::execute(app.applicationFilePath(),
                              {QStringLiteral("--prepare"), workPath, QString::number(folderCount),
                               QString::number(filesPerFolder)});
        if (prepared != 0) {
            std::fprintf(stderr, "setup failed\n");
            return 2;
        }
        std::printf("setup: %d folders x %d files written and recorded in %.1f s (not timed)\n",
                    folderCount, filesPerFolder, setup.elapsed() / 1000.0);
    }

    auto database = sync::database::ConfigDatabase::Open(databasePath);
    sync::database::ConfigDatabase::Install(database);
    auto folderManager = std::make_shared<sync::database::FolderConfigManager>(database);
    auto fileManager = std::make_shared<sync::database::FileConfigManager>(database);
    const QVector<FolderConfiguration> roots = folderManager->GetRootFolders();
    if (roots.size() != 1) {
        std::fprintf(stderr, "expected one root folder record, found %d\n", int(roots.size()));
        return 2;
    }
    FolderConfiguration root = roots.first();

    auto filter = std::make_shared<AcceptAllFilter>();
    LocalEntryInfoTreeRetriever localRetriever(
        folderManager, fileManager, std::make_shared<sync::factory::CoreFactory>(), filter, filter);
    ConfigEntryInfoTreeRetriever configRetriever(fileManager, folderManager);
    auto hash =
        std::make_shared<CountingHash>(sync::factory::CoreFactory().CreateCryptographicHash());
    sync::factory::CoreFactory::SetDelegate(std::make_shared<HashOnlyFactory>(hash));
    LocalConfigTreeDiffer localDiffer;
    sync::factory::CoreFactory::SetDelegate(nullptr);
    ServerConfigTreeDiffer serverDiffer;

    // Timed: the planning steps of one cycle in which nothing changed.
    QElapsedTimer timer;
    timer.start();
    const auto localTree = localRetriever.GetEntryInfoTree(root);
    const qint64 localNs = timer.nsecsElapsed();

    timer.restart();
    const auto configTree = configRetriever.GetEntryInfoTree(root);
    const qint64 configNs = timer.nsecsElapsed();

    const auto serverTree = ServerListing(*configTree);  // not timed: stands for the server

    timer.restart();
    ExcludedEntryPruner::Prune(root.serverPath, *configTree, *localTree, *serverTree);
    const qint64 pruneNs = timer.nsecsElapsed();

    timer.restart();
    const EntryInfoTreeChange localChange = localDiffer.Diff(*configTree, *localTree, false);
    const qint64 localDiffNs = timer.nsecsElapsed();

    timer.restart();
    const EntryInfoTreeChange serverChange = serverDiffer.Diff(*configTree, *serverTree, true);
    const qint64 serverDiffNs = timer.nsecsElapsed();

    const double total = (localNs + configNs + pruneNs + localDiffNs + serverDiffNs) / 1e9;
    const int changes =
        localChange.getFileActionMap().size() + localChange.getFolderActionMap().size() +
        serverChange.getFileActionMap().size() + serverChange.getFolderActionMap().size();
    std::printf("local tree:   %8.3f s  (%d files, %d folders)\n", localNs / 1e9,
                int(localTree->fileMap.size()), int(localTree->folderMap.size()));
    std::printf("config tree:  %8.3f s  (%d files, %d folders)\n", configNs / 1e9,
                int(configTree->fileMap.size()), int(configTree->folderMap.size()));
    std::printf("excluded:     %8.3f s  (hidden entries left out)\n", pruneNs / 1e9);
    std::printf("local diff:   %8.3f s\n", localDiffNs / 1e9);
    std::printf("server diff:  %8.3f s\n", serverDiffNs / 1e9);
    std::printf("total:        %8.3f s  (limit 1.000 s)\n", total);
    std::printf("changes found: %d (expected 0)\n", changes);
    std::printf("hash calls:    %d (expected 0)\n", hash->calls.load());
    std::printf("peak memory:   %.1f MiB (maximum resident set)\n", PeakRssKiB() / 1024.0);

    // Control: the counter does sit in the differ. A file touched a few seconds later, same
    // size, must be hashed once.
    const int unchangedHashCalls = hash->calls.load();
    bool counterWorks = false;
    if (!configTree->fileMap.isEmpty()) {
        FileConfiguration configFile = configTree->fileMap.constBegin().value();
        FileConfiguration touched =
            localTree->fileMap.value(configTree->fileMap.constBegin().key());
        touched.lastModified = touched.lastModified.addSecs(5);
        localDiffer.DetectFileModified(configFile, touched);
        counterWorks = hash->calls.load() == unchangedHashCalls + 1;
    }
    std::printf("control:       a touched file is hashed: %s\n", counterWorks ? "yes" : "NO");

    sync::database::ConfigDatabase::Uninstall();
    const bool ok = total < 1.0 && changes == 0 && unchangedHashCalls == 0 && counterWorks &&
                    localTree->fileMap.size() == folderCount * filesPerFolder;
    std::printf("%s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
}
