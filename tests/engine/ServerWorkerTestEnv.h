#pragma once

// The server worker tests' world: a root folder over a temporary directory, the real
// configuration database, the fake server, and a recorder of what the workers hand the server.

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "FakeCore.h"
#include "FakeServer.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "HttpException.h"
#include "SyncTask.h"
#include "TransactionalScope.h"

QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

namespace sync {
namespace test {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;

// Counts the database's transactions; FailCommit(n) fails the n-th commit from then on.
class CountingBackend : public sync::database::ITransactionBackend {
public:
    explicit CountingBackend(std::shared_ptr<ITransactionBackend> real) : _real(std::move(real)) {}
    void Begin(int depth) override { _real->Begin(depth); }
    void Commit(int depth) override {
        if (depth == 0 && ++commits == _failCommit)
            throw sync::database::DatabaseException("sync.db", "disk I/O error");
        _real->Commit(depth);
    }
    void Rollback(int depth) noexcept override { _real->Rollback(depth); }
    void ReportLostBatch(const std::exception& e) noexcept override { _real->ReportLostBatch(e); }
    void FailCommit(int n) { commits = 0, _failCommit = n; }
    int commits = 0;

private:
    std::shared_ptr<ITransactionBackend> _real;
    int _failCommit = 0;
};

// Passes uploads and folder calls on to the fake server and writes each down in calls.
class Recorder : public sync::interf::IFileUploadClient,
                 public sync::interf::factory::IRemoteFolderManagerFactory,
                 public sync::interf::IRemoteFolderManager,
                 public std::enable_shared_from_this<Recorder> {
public:
    Recorder(std::shared_ptr<FakeServer> server, std::shared_ptr<CountingBackend> backend)
        : _server(std::move(server)), _backend(std::move(backend)) {}

    // "upload after N commits: name@versionId ..."; afterUpload may then change the outcome.
    sync::core::SyncResults UploadFiles(const sync::config::ServerConfiguration& account,
                                        const FolderConfiguration& root,
                                        QList<FileConfiguration>& files) override {
        QStringList batch;
        for (const FileConfiguration& f : files)
            batch << f.name + "@" + f.properties.value("versionId");
        calls << QString("upload after %1 commits: ").arg(_backend->commits) + batch.join(' ');
        sync::core::SyncResults results = _server->UploadFiles(account, root, files);
        if (afterUpload) afterUpload(files);
        return results;
    }
    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(int) override {
        return shared_from_this();
    }
    sync::core::SyncResults CreateFolder(FolderConfiguration& folder, const QString& parentId,
                                         bool createParents) override {
        calls << QString("create %1 below %2").arg(folder.serverPath, parentId);
        return _server->CreateFolder(folder, parentId, createParents);
    }
    // A manager may report a status by throwing where the fake server counts it.
    sync::core::SyncResults DeleteFolder(FolderConfiguration& folder) override {
        calls << "delete " + folder.serverPath;
        if (deleteThrows) throw sync::http::HttpException(deleteThrows, "refused");
        return _server->DeleteFolder(folder);
    }
    bool GetFolderInfo(const FolderConfiguration& folder, FolderConfiguration& info) override {
        return _server->GetFolderInfo(folder, info);
    }
    int GetFolderTree(FolderConfiguration& root,
                      std::shared_ptr<QVector<FolderConfiguration>> folders,
                      std::shared_ptr<QVector<FileConfiguration>> files) override {
        return _server->GetFolderTree(root, folders, files);
    }

    QStringList calls;
    int deleteThrows = 0;
    std::function<void(QList<FileConfiguration>&)> afterUpload;

private:
    std::shared_ptr<FakeServer> _server;
    std::shared_ptr<CountingBackend> _backend;
};

struct ServerWorkerEnv {
    ServerWorkerEnv() {
        if (!dir.isValid()) throw std::runtime_error("no temporary folder");
        db = sync::database::ConfigDatabase::Open(dir.filePath("sync.db"));
        sync::database::ConfigDatabase::Install(db);
        backend = std::make_shared<CountingBackend>(sync::database::TransactionalScope::Backend());
        sync::database::TransactionalScope::SetBackend(backend);
        folders = std::make_shared<sync::database::FolderConfigManager>(db);
        files = std::make_shared<sync::database::FileConfigManager>(db);
        // The transfer clients settle the records of what they transferred.
        server->SetDatabase(files);
        recorder = std::make_shared<Recorder>(server, backend);

        sync::config::ServerConfiguration account;
        account.name = account.kind = "fake";
        sync::database::AuthenticationConfigManager(db).AddAccount(account);
        server->PutFolder("/Docs");
        QDir().mkpath(Local(""));
        root.authenticationId = account.id;
        root.name = "Docs";
        root.localPath = Local("");
        root.serverPath = root.path = "/Docs";
        root.serverRootPath = "/";
        root.setServerFolderId(server->Find("/Docs")->id);
        if (!folders->AddFolder(root)) throw std::runtime_error("no root record");
        backend->commits = 0;
    }
    ~ServerWorkerEnv() { sync::database::ConfigDatabase::Uninstall(); }

    QString Local(const QString& below) const {
        return QDir::cleanPath(dir.filePath("Docs/" + below));
    }
    void WriteLocal(const QString& below, const QByteArray& content) {
        QFile file(Local(below));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            throw std::runtime_error("cannot write " + below.toStdString());
    }
    // The record the local tree gives for a file, written first when content is given.
    FileConfiguration LocalFile(const QString& below, const QByteArray& content = {}) {
        if (!content.isNull()) WriteLocal(below, content);
        const QFileInfo info(Local(below));
        FileConfiguration f;
        f.name = info.fileName();
        f.localPath = Local(below);
        f.serverPath = "/Docs/" + below;
        f.size = info.size();
        f.lastModified = info.lastModified().toUTC();
        return f;
    }
    // A file in step on both sides, with its database record.
    FileConfiguration Seed(const QString& below, const QByteArray& content) {
        server->PutFile("/Docs/" + below, content);
        FileConfiguration f = server->FileRecord(*server->Find("/Docs/" + below), root);
        f.folderId = f.rootId = f.inheritedId = root.id;
        f.lastModified = LocalFile(below, content).lastModified;
        f.syncStatus = sync::config::FileSynchronizationStatus::Synchronized;
        files->AddFile(f);
        return f;
    }
    FileConfiguration Db(const QString& below) {
        return files->GetFileByPath(Local(below), root.authenticationId);
    }
    FolderConfiguration Folder(const QString& below) {
        FolderConfiguration f;
        f.name = below.section('/', -1);
        f.localPath = Local(below);
        f.serverPath = f.path = "/Docs/" + below;
        return f;
    }
    // A folder's record as an earlier cycle left it.
    FolderConfiguration RecordedFolder(const QString& below, int parentId) {
        FolderConfiguration f = Folder(below);
        f.authenticationId = root.authenticationId;
        f.parentId = parentId;
        f.rootId = f.inheritedId = root.id;
        f.setSyncStatus(sync::config::FolderSynchronizationStatus::Synchronized);
        if (const FakeServer::Entry* entry = server->Find(f.serverPath))
            f.setServerFolderId(entry->id);
        folders->AddFolder(f);
        return f;
    }

    template <typename Record>
    static std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> Tasks(
        sync::syncService::SyncTaskType type, const QList<Record>& records) {
        auto tasks = std::make_shared<QList<std::shared_ptr<sync::interf::ISyncTask>>>();
        for (const Record& r : records)
            tasks->append(std::make_shared<sync::syncService::SyncTask<Record>>(
                type, r, sync::syncService::NoChange, sync::syncService::Added, nullptr, nullptr,
                nullptr, nullptr, nullptr));
        return tasks;
    }
    // Done reports go to done as "path-below-the-root status".
    template <typename Worker>
    Worker& Listen(Worker& worker) {
        QObject::connect(&worker, &Worker::Done, [this](const QString& path, auto status) {
            done << QString("%1 %2").arg(QDir(Local("")).relativeFilePath(path)).arg(int(status));
        });
        return worker;
    }
    static QString Codes(const sync::core::SyncResults& r) {
        QStringList words;
        for (auto it = r.errorCodes.constBegin(); it != r.errorCodes.constEnd(); ++it)
            words << QString("%1:%2").arg(it.key()).arg(it.value());
        return words.join(' ');
    }

    QTemporaryDir dir;
    std::shared_ptr<sync::database::ConfigDatabase> db;
    std::shared_ptr<CountingBackend> backend;
    std::shared_ptr<sync::database::FolderConfigManager> folders;
    std::shared_ptr<sync::database::FileConfigManager> files;
    std::shared_ptr<FakeServer> server = std::make_shared<FakeServer>();
    std::shared_ptr<Recorder> recorder;
    std::shared_ptr<FakeCore> core = std::make_shared<FakeCore>();
    FolderConfiguration root;
    QStringList done;
};

}  // namespace test
}  // namespace sync
