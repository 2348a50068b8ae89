#pragma once

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QTemporaryDir>
#include <algorithm>
#include <functional>
#include <memory>

#include "ConfigDatabase.h"
#include "ConfigurationFactory.h"
#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "FakeServer.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "LocalFileCreationWorker.h"
#include "LocalFileDeletionWorker.h"
#include "LocalFolderCreationWorker.h"
#include "LocalFolderDeletionWorker.h"
#include "QDirWrapper.h"
#include "SyncConsts.h"
#include "SyncStatusMonitor.h"
#include "SyncTaskDepot.h"
#include "TransactionalScope.h"

// The world of the local workers' tests: one root folder between a temporary folder and the fake
// server, the real database or the in-memory store, a depot and a status monitor.

namespace localWorkerTest {

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;

inline const QStringList kStatus{"Synchronized", "Synchronizing", "OutOfSync", "NotSynchronized"};

// The real core services, with a switch that makes every directory refuse to be removed.
class Core : public sync::test::FakeCore {
public:
    class RefusingDir : public sync::core::QDirWrapper {
    public:
        using QDirWrapper::QDirWrapper;
        bool RemoveDirectory(const QString&) override { return false; }
    };
    std::shared_ptr<sync::interf::IQDirWrapper> CreateQDirWrapper(
        std::shared_ptr<QDir> dir) override {
        if (refuseRemoval) return std::make_shared<RefusingDir>(dir);
        return FakeCore::CreateQDirWrapper(dir);
    }
    bool refuseRemoval = false;
};

// Hands the batch on to the server and remembers each database record the worker prepared.
class RecordingDownloads : public sync::interf::IFileDownloadClient {
public:
    explicit RecordingDownloads(std::shared_ptr<sync::test::FakeServer> s) : server(s) {}
    SyncResults DownloadFiles(const sync::config::ServerConfiguration& config,
                              const FolderConfiguration& root,
                              QList<sync::thread::SynchronizedFileConfiguration>& files) override {
        for (const auto& f : files)
            prepared << QString("%1 id%2 folder%3 dir%4 %5")
                            .arg(f.databaseRecord.serverPath)
                            .arg(f.databaseRecord.id)
                            .arg(f.databaseRecord.folderId)
                            .arg(f.databaseRecord.transferDirection)
                            .arg(kStatus[int(f.databaseRecord.syncStatus)]);
        return server->DownloadFiles(config, root, files);
    }
    std::shared_ptr<sync::test::FakeServer> server;
    QStringList prepared;
};

// One root folder /Docs between a temporary folder and the fake server, with the real database
// (or the in-memory store, which fails on demand), the depot of the tasks and a status monitor.
// Paths that tests pass are below the root; a trailing "/" makes a folder.
struct World {
    explicit World(bool fakeStore = false) {
        base = tmp.filePath("Docs");
        QDir().mkpath(base);
        core->SetTrashFolder(tmp.filePath("trash"));
        if (fakeStore) {
            store = std::make_shared<sync::test::FakeConfigStore>();
            sync::database::TransactionalScope::SetBackend(store->TransactionBackend());
            sync::factory::ConfigurationFactory::SetServerConfigManagerMaker(
                [s = store] { return std::shared_ptr<sync::interf::IServerConfigManager>(s); });
            folders = store;
            files = store;
        } else {
            db = sync::database::ConfigDatabase::Open(tmp.filePath("sync.db"));
            sync::database::ConfigDatabase::Install(db);
            folders = std::make_shared<sync::database::FolderConfigManager>(db);
            files = std::make_shared<sync::database::FileConfigManager>(db);
        }
        root.authenticationId = 1;
        root.name = "Docs";
        root.localPath = base;
        root.serverPath = "/Docs";
        root.serverRootPath = "/";
        root.setSyncStatus(sync::config::FolderSynchronizationStatus::Synchronized);
        folders->AddFolder(root);
        server->PutFolder("/Docs");
        monitor = std::make_unique<SyncStatusMonitor>(folders, files);
    }
    ~World() {
        sync::database::TransactionalScope::SetBackend(nullptr);
        sync::factory::ConfigurationFactory::SetServerConfigManagerMaker(nullptr);
    }

    QString Local(const QString& below) const { return base + "/" + below; }
    QString Shown(QString path) const { return path.remove(base + "/"); }

    // A folder on the disk, on the server and in the database, as a finished cycle leaves it.
    void SeedFolder(const QString& below) {
        QDir().mkpath(Local(below));
        server->PutFolder("/Docs/" + below);
        FolderConfiguration f = server->FolderRecord(*server->Find("/Docs/" + below), root);
        f.authenticationId = 1;
        f.parentId = folders->GetFolderByPath(QFileInfo(Local(below)).path(), 1).id;
        f.setSyncStatus(sync::config::FolderSynchronizationStatus::Synchronized);
        folders->AddFolder(f);
    }
    void SeedFile(const QString& below, const QByteArray& content) {
        Write(below, content);
        server->PutFile("/Docs/" + below, content);
        FileConfiguration f = server->FileRecord(*server->Find("/Docs/" + below), root);
        f.folderId = folders->GetFolderByPath(QFileInfo(Local(below)).path(), 1).id;
        f.rootId = root.id;
        f.syncStatus = sync::config::FileSynchronizationStatus::Synchronized;
        // The record describes the local file as the last cycle left it.
        const QFileInfo written(Local(below));
        f.size = written.size();
        QDateTime modified = written.lastModified().toUTC();
        f.lastModified = modified.addMSecs(-modified.time().msec());
        f.checksum = QString::fromLatin1(
            QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
        files->AddFile(f);
    }
    void Write(const QString& below, const QByteArray& content) {
        QDir().mkpath(QFileInfo(Local(below)).path());
        QFile f(Local(below));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(content) == content.size());
    }

    // A task on the database's record of the entry, or on the server's for a new one.
    void Task(SyncTaskType type, const QString& below) {
        const QString path = "/Docs/" + below;
        if (!SyncTask<FileConfiguration>::IsFileTaskType(type)) {
            FolderConfiguration f = folders->GetFolderByPath(Local(below), 1);
            if (f.id == -1) {
                f.name = QFileInfo(below).fileName();
                f.localPath = Local(below);
                f.serverPath = path;
                f.rootId = root.id;
            }
            FolderSyncTask task(type, f, Added, NoChange, serverTree, configTree, {}, {}, {});
            depot.AddSyncTask(task);
            return;
        }
        FileConfiguration stored = files->GetFileByPath(Local(below), 1);
        if (stored.id != -1) configTree->fileMap.insert(EntryInfoTree::KeyOf(path), stored);
        if (const auto* entry = server->Find(path))
            serverTree->fileMap.insert(EntryInfoTree::KeyOf(path),
                                       server->FileRecord(*entry, root));
        FileConfiguration record =
            stored.id != -1 ? stored : serverTree->fileMap.value(path.toLower());
        FileSyncTask task(type, record, Added, NoChange, serverTree, configTree, {}, {}, {});
        depot.AddSyncTask(task);
    }

    // Runs the task type's worker on its tasks. With monitored, the monitor settles every status
    // reported; Done is recorded either way.
    SyncResults Run(SyncTaskType type, bool monitored = true) {
        if (monitored) monitor->Start(root, depot);
        SyncResults results;
        auto run = [&](auto w) {
            Watch(w.get());
            results = w->Work(root, Tasks(type), *monitor);
        };
        if (type == LocalFileCreation)
            run(std::make_shared<LocalFileCreationWorker>(nullptr, downloads, folders, files,
                                                          server, core->CreateCheckForExit()));
        if (type == LocalFileDeletion) run(std::make_shared<LocalFileDeletionWorker>(files, core));
        if (type == LocalFolderCreation)
            run(std::make_shared<LocalFolderCreationWorker>(core, folders, files));
        if (type == LocalFolderDeletion)
            run(std::make_shared<LocalFolderDeletionWorker>(core, folders, files));
        monitor->End();
        return results;
    }
    // The depot's tasks in a known order, the reverse of the one the worker must work in
    // (deletions children first, everything else by path).
    SyncStatusMonitor::TaskList Tasks(SyncTaskType type) {
        auto tasks = depot.GetSyncTaskList(type);
        const bool ascending = type == LocalFolderDeletion;
        std::sort(tasks->begin(), tasks->end(), [=](const auto& a, const auto& b) {
            return ascending ? a->GetKey() < b->GetKey() : a->GetKey() > b->GetKey();
        });
        return tasks;
    }
    void Watch(sync::interf::IFileTaskWorker* w) {
        QObject::connect(w, &sync::interf::IFileTaskWorker::Done, w,
                         [this](const QString& p, sync::config::FileSynchronizationStatus s) {
                             done << Shown(p) + " " + kStatus[int(s)];
                         });
    }
    void Watch(sync::interf::IFolderTaskWorker* w) {
        QObject::connect(w, &sync::interf::IFolderTaskWorker::Done, w,
                         [this](const QString& p, sync::config::FolderSynchronizationStatus s) {
                             done << Shown(p) + " " + kStatus[int(s)];
                         });
    }

    // Everything a user could look at, one sorted line each: the disk (`disk a.txt "old"`,
    // `disk sub/`), the trash, the records (`db sub/a.txt Synchronized dir1`, `db sub/`) and the
    // action log with the root's path cut out.
    QString State() {
        QStringList lines;
        auto walk = [&](const QString& dir, const QString& label) {
            QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                            QDirIterator::Subdirectories);
            while (it.hasNext()) {
                const QFileInfo info(it.next());
                const QString name = info.filePath().mid(dir.size() + 1);
                if (info.isDir()) {
                    lines << label + name + "/";
                    continue;
                }
                QFile f(info.filePath());
                f.open(QIODevice::ReadOnly);
                lines << label + name + " \"" + f.readAll() + "\"";
            }
        };
        walk(base, "disk ");
        walk(tmp.filePath("trash"), "trash ");
        for (const FolderConfiguration& f : folders->GetFoldersByRootId(root.id))
            if (f.id != root.id)
                lines << "db " + Shown(f.localPath) + "/ " + kStatus[int(f.getSyncStatus())] +
                             (f.parentId == root.id ? "" : QString(" in %1").arg(f.parentId));
        for (const FileConfiguration& f : files->GetFilesByRootId(root.id))
            lines << QString("db %1 %2 dir%3")
                         .arg(Shown(f.localPath), kStatus[int(f.syncStatus)])
                         .arg(f.transferDirection);
        for (const QString& line : core->ActionLogLines()) lines << "log " + Shown(line);
        lines.sort();
        return lines.join("\n");
    }

    QTemporaryDir tmp;
    QString base;
    std::shared_ptr<Core> core = std::make_shared<Core>();
    sync::test::InstalledCore installed{core};
    std::shared_ptr<sync::test::FakeServer> server = std::make_shared<sync::test::FakeServer>();
    std::shared_ptr<RecordingDownloads> downloads = std::make_shared<RecordingDownloads>(server);
    std::shared_ptr<sync::test::FakeConfigStore> store;
    std::shared_ptr<sync::database::ConfigDatabase> db;
    std::shared_ptr<sync::interf::IFolderConfigManager> folders;
    std::shared_ptr<sync::interf::IFileConfigManager> files;
    FolderConfiguration root;
    std::shared_ptr<EntryInfoTree> serverTree = std::make_shared<EntryInfoTree>();
    std::shared_ptr<EntryInfoTree> configTree = std::make_shared<EntryInfoTree>();
    SyncTaskDepot depot;
    std::unique_ptr<SyncStatusMonitor> monitor;
    QStringList done;
};

// "2 done, 1 failed: b.txt" for one category of the results.
inline QString Counted(const World& w, const SyncResults& r, SyncResults::Category c) {
    QStringList failed;
    for (const QString& p : r.errorPaths(c)) failed << w.Shown(p);
    return QString("%1 done, %2 failed: %3").arg(r.done(c)).arg(r.errors(c)).arg(failed.join(" "));
}

inline const QMap<SyncTaskType, SyncResults::Category> kCategory{
    {LocalFileCreation, SyncResults::FileLocalCreation},
    {LocalFileDeletion, SyncResults::FileLocalDeletion},
    {LocalFolderCreation, SyncResults::FolderLocalCreation},
    {LocalFolderDeletion, SyncResults::FolderLocalDeletion}};

// "2 a, 1 b": how often each word occurs, in word order.
inline QString Tally(const QStringList& words) {
    QMap<QString, int> counts;
    for (const QString& word : words) ++counts[word];
    QStringList out;
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it)
        out << QString("%1 %2").arg(it.value()).arg(it.key());
    return out.join(", ");
}

}  // namespace localWorkerTest
