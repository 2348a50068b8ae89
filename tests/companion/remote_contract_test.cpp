// One suite for every server backend: what the engine may rely on from a listing, the folder
// operations and the transfer clients, checked against the in-memory fake and the local-folder
// server alike.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>
#include <QTemporaryDir>
#include <functional>
#include <iostream>

#include "ApacheServer.h"
#include "FakeConfigStore.h"
#include "FakeServer.h"
#include "HttpException.h"
#include "LocalFolderServer.h"
#include "WebDavServer.h"

namespace {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using Folders = QVector<FolderConfiguration>;
using Files = QVector<FileConfiguration>;

constexpr int kAccount = 7;
// Rules a backend may be known to break.
const std::string kHiddenEntries = "hidden entries are listed only when the root asks";
const std::string kFolderBelowFile = "no folder is created below a file";
const std::string kUnseenVersions = "an upload replaces only a server version the engine has seen";
const std::string kLocalEdits = "a download does not replace a local file edited since planning";

// Seeds one backend's entries by server path and hands out its managers.
class Backend {
public:
    virtual ~Backend() = default;
    virtual std::shared_ptr<sync::interf::IRemoteFolderManager> Folders() = 0;
    virtual std::shared_ptr<sync::interf::IRemoteFileManager> Files() = 0;
    virtual void PutFolder(const QString& path) = 0;
    virtual void PutFile(const QString& path, const QByteArray& content) = 0;
    virtual void Remove(const QString& path) = 0;
    // The file's content; null when there is no file at path.
    virtual QByteArray Content(const QString& path) = 0;
    virtual sync::interf::IFileUploadClient& Uploads() = 0;
    virtual sync::interf::IFileDownloadClient& Downloads() = 0;
    virtual sync::interf::IFileDeleteClient& Deletes() = 0;
    virtual void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) = 0;
    // False when the backend has no unreadable folders.
    virtual bool MakeUnreadable(const QString& path) = 0;
    // Known departures of a backend from the contract, by name: its cases skip, saying so.
    virtual bool Departs(const std::string& rule) const { return rule.empty(); }
    // False, with the reason, when the backend cannot run on this machine.
    virtual bool Usable(std::string*) const { return true; }
};

class FakeBackend : public Backend {
public:
    std::shared_ptr<sync::interf::IRemoteFolderManager> Folders() override {
        return _server->CreateRemoteFolderManager(kAccount);
    }
    std::shared_ptr<sync::interf::IRemoteFileManager> Files() override {
        return _server->CreateRemoteFileManager(kAccount);
    }
    void PutFolder(const QString& path) override { _server->PutFolder(path); }
    void PutFile(const QString& path, const QByteArray& content) override {
        _server->PutFile(path, content);
    }
    void Remove(const QString& path) override { _server->Remove(path); }
    QByteArray Content(const QString& path) override {
        const auto* entry = _server->Find(path);
        return entry && !entry->isFolder ? entry->content : QByteArray();
    }
    sync::interf::IFileUploadClient& Uploads() override { return *_server; }
    sync::interf::IFileDownloadClient& Downloads() override { return *_server; }
    sync::interf::IFileDeleteClient& Deletes() override { return *_server; }
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _server->SetDatabase(std::move(files));
    }
    bool MakeUnreadable(const QString&) override { return false; }
    bool Departs(const std::string& rule) const override {
        return rule == kHiddenEntries || rule == kFolderBelowFile;
    }

private:
    std::shared_ptr<sync::test::FakeServer> _server = std::make_shared<sync::test::FakeServer>();
};

class LocalBackend : public Backend {
public:
    LocalBackend() : _server(std::make_shared<sync::remote::LocalFolderServer>(_dir.path())) {}
    // Unreadable folders would stop the temporary directory's removal.
    ~LocalBackend() override {
        for (const QString& path : _locked) ::chmod(QFile::encodeName(path).constData(), 0700);
    }
    std::shared_ptr<sync::interf::IRemoteFolderManager> Folders() override {
        return _server->CreateRemoteFolderManager(kAccount);
    }
    std::shared_ptr<sync::interf::IRemoteFileManager> Files() override {
        return _server->CreateRemoteFileManager(kAccount);
    }
    void PutFolder(const QString& path) override { ASSERT_TRUE(QDir().mkpath(_dir.path() + path)); }
    void PutFile(const QString& path, const QByteArray& content) override {
        QFile file(_dir.path() + path);
        ASSERT_TRUE(QDir().mkpath(QFileInfo(file).absolutePath()));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    void Remove(const QString& path) override {
        QDir(_dir.path() + path).removeRecursively();
        QFile::remove(_dir.path() + path);
    }
    QByteArray Content(const QString& path) override {
        QFile file(_dir.path() + path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    sync::interf::IFileUploadClient& Uploads() override { return *_server; }
    sync::interf::IFileDownloadClient& Downloads() override { return *_server; }
    sync::interf::IFileDeleteClient& Deletes() override { return *_server; }
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _server->SetDatabase(std::move(files));
    }
    bool MakeUnreadable(const QString& path) override {
        _locked.append(_dir.path() + path);
        return ::chmod(QFile::encodeName(_locked.last()).constData(), 0) == 0;
    }

private:
    QTemporaryDir _dir;
    std::shared_ptr<sync::remote::LocalFolderServer> _server;
    QStringList _locked;
};

// A WebDAV server: one Apache for the whole program, each backend in a fresh folder of it, which
// the account's base URL names. Seeds go straight into that folder on the disk.
class DavBackend : public Backend {
public:
    DavBackend() {
        if (!Apache()) return;
        static int folders = 0;
        const QString name = QStringLiteral("/t%1").arg(++folders);
        _top = Apache()->DocumentRoot() + name;
        QDir().mkpath(_top);
        Apache()->HandOver(_top);
        sync::config::ServerConfiguration account;
        account.kind = QStringLiteral("webdav");
        account.baseUrl = Apache()->Url() + name;
        _server = std::make_shared<sync::remote::WebDavServer>(account, QString());
    }
    ~DavBackend() override {
        for (const QString& path : _locked) ::chmod(QFile::encodeName(path).constData(), 0700);
    }
    bool Usable(std::string* why) const override {
        if (Apache()) return true;
        *why = "no WebDAV server: " + Unavailable().toStdString();
        return false;
    }
    std::shared_ptr<sync::interf::IRemoteFolderManager> Folders() override {
        return _server->CreateRemoteFolderManager(kAccount);
    }
    std::shared_ptr<sync::interf::IRemoteFileManager> Files() override {
        return _server->CreateRemoteFileManager(kAccount);
    }
    void PutFolder(const QString& path) override {
        ASSERT_TRUE(QDir().mkpath(_top + path));
        Apache()->HandOver(_top + path);
    }
    void PutFile(const QString& path, const QByteArray& content) override {
        ASSERT_TRUE(Apache()->Put(_top + path, content));
    }
    void Remove(const QString& path) override {
        QDir(_top + path).removeRecursively();
        QFile::remove(_top + path);
    }
    QByteArray Content(const QString& path) override {
        QFile file(_top + path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    sync::interf::IFileUploadClient& Uploads() override { return *_server; }
    sync::interf::IFileDownloadClient& Downloads() override { return *_server; }
    sync::interf::IFileDeleteClient& Deletes() override { return *_server; }
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _server->SetDatabase(std::move(files));
    }
    bool MakeUnreadable(const QString& path) override {
        _locked.append(_top + path);
        return ::chmod(QFile::encodeName(_locked.last()).constData(), 0) == 0;
    }

private:
    static QString Unavailable() {
        static const QString why = sync::test::ApacheServer::Unavailable();
        return why;
    }
    static sync::test::ApacheServer* Apache() {
        static std::unique_ptr<sync::test::ApacheServer> server = [] {
            std::unique_ptr<sync::test::ApacheServer> started;
            if (!Unavailable().isEmpty()) return started;
            started.reset(new sync::test::ApacheServer);
            QString error;
            if (!started->Start(&error)) {
                ADD_FAILURE() << "Apache did not start: " << error.toStdString();
                started.reset();
            }
            return started;
        }();
        return server.get();
    }

    QString _top;
    std::shared_ptr<sync::remote::WebDavServer> _server;
    QStringList _locked;
};

struct BackendKind {
    const char* name;
    std::function<std::unique_ptr<Backend>()> make;
};

void PrintTo(const BackendKind& kind, std::ostream* os) {
    *os << kind.name;
}

class RemoteContract : public ::testing::TestWithParam<BackendKind> {
protected:
    void SetUp() override {
        backend = GetParam().make();
        std::string why;
        if (!backend->Usable(&why)) GTEST_SKIP() << why;
        root.id = root.rootId = 1;
        root.authenticationId = kAccount;
        root.serverPath = QStringLiteral("/Docs");
        root.localPath = QStringLiteral("/home/u/Docs");
    }

    // Listing status and "path|localPath|name|size" lines (folders end with "/"), sorted, one
    // text for readable failures.
    int List(std::string& text) {
        QStringList lines;
        auto folders = std::make_shared<Folders>();
        auto files = std::make_shared<Files>();
        const int status = backend->Folders()->GetFolderTree(root, folders, files);
        for (const FolderConfiguration& f : *folders)
            lines << QStringLiteral("%1/|%2|%3").arg(f.serverPath, f.localPath, f.name);
        for (const FileConfiguration& f : *files)
            lines
                << QStringLiteral("%1|%2|%3|%4").arg(f.serverPath, f.localPath, f.name).arg(f.size);
        lines.sort();
        text = lines.join(QLatin1Char('\n')).toStdString();
        return status;
    }
    static std::string Sorted(QStringList lines) {
        lines.sort();
        return lines.join(QLatin1Char('\n')).toStdString();
    }
    FileConfiguration FileAt(const QString& serverPath) {
        auto files = std::make_shared<Files>();
        EXPECT_EQ(backend->Folders()->GetFolderTree(root, std::make_shared<Folders>(), files), 0);
        for (const FileConfiguration& f : *files)
            if (f.serverPath == serverPath) return f;
        ADD_FAILURE() << "not listed: " << serverPath.toStdString();
        return {};
    }
    FolderConfiguration FolderAt(const QString& serverPath) {
        FolderConfiguration f;
        f.serverPath = serverPath;
        return f;
    }

    // The transfer cases: the root's local side is a temporary folder, and the clients keep
    // their records in a database.
    void UseDisk() {
        ASSERT_TRUE(disk.isValid());
        root.localPath = disk.path();
        backend->PutFolder(root.serverPath);
        backend->SetDatabase(database);
    }
    QString LocalOf(const QString& serverPath) const {
        return root.localPath + serverPath.mid(root.serverPath.size());
    }
    void WriteLocal(const QString& serverPath, const QByteArray& content) {
        QFile file(LocalOf(serverPath));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray ReadLocal(const QString& serverPath) const {
        QFile file(LocalOf(serverPath));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    // The modification time a record keeps of the local file: UTC, whole seconds.
    QDateTime LocalModified(const QString& serverPath) const {
        const QDateTime t = QFileInfo(LocalOf(serverPath)).lastModified().toUTC();
        return t.addMSecs(-t.time().msec());
    }
    // A record the engine has for the file: none of the server's fields when it is new, else
    // those of the current listing, and the local file's as the database would keep them.
    FileConfiguration Record(const QString& serverPath, bool known) {
        FileConfiguration f = known ? FileAt(serverPath) : FileConfiguration();
        f.rootId = root.id;
        f.name = serverPath.section(QLatin1Char('/'), -1);
        f.serverPath = serverPath;
        f.localPath = LocalOf(serverPath);
        f.checksum = QStringLiteral("old hash");
        if (QFileInfo::exists(f.localPath)) {
            f.size = QFileInfo(f.localPath).size();
            f.lastModified = LocalModified(serverPath);
            QFile local(f.localPath);
            if (local.open(QIODevice::ReadOnly)) f.checksum = Sha256(local.readAll());
        }
        if (known) database->AddFile(f);
        return f;
    }
    static QString Sha256(const QByteArray& content) {
        return QString::fromLatin1(
            QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
    }

    std::unique_ptr<Backend> backend;
    FolderConfiguration root;
    QTemporaryDir disk;
    std::shared_ptr<sync::test::FakeConfigStore> database =
        std::make_shared<sync::test::FakeConfigStore>();
    const sync::config::ServerConfiguration account;
};

TEST_P(RemoteContract, ListsTheWholeTreeBelowTheRootWithEveryField) {
    backend->PutFile(QStringLiteral("/Docs/a b.txt"), "hello");
    backend->PutFile(QStringLiteral("/Docs/Ünï/100%.txt"), "xy");
    backend->PutFolder(QStringLiteral("/Docs/Ünï/deep/empty"));
    backend->PutFile(QStringLiteral("/Other/out.txt"), "no");
    const QDateTime before = QDateTime::currentDateTimeUtc();

    std::string lines;
    ASSERT_EQ(List(lines), 0);
    EXPECT_EQ(lines, Sorted({
                         "/Docs/a b.txt|/home/u/Docs/a b.txt|a b.txt|5",
                         "/Docs/Ünï/|/home/u/Docs/Ünï|Ünï",
                         "/Docs/Ünï/100%.txt|/home/u/Docs/Ünï/100%.txt|100%.txt|2",
                         "/Docs/Ünï/deep/|/home/u/Docs/Ünï/deep|deep",
                         "/Docs/Ünï/deep/empty/|/home/u/Docs/Ünï/deep/empty|empty",
                     }));
    EXPECT_GE(root.getLastServerSyncRequestTime(), before.addSecs(-1));

    const FileConfiguration file = FileAt(QStringLiteral("/Docs/Ünï/100%.txt"));
    EXPECT_FALSE(file.serverFileId.isEmpty());
    EXPECT_FALSE(file.properties.value(QStringLiteral("versionId")).isEmpty());
    EXPECT_TRUE(file.lastModified.isValid());
    const int transfers = sync::config::PrivilegeDownload | sync::config::PrivilegeUpload |
                          sync::config::PrivilegeDelete;
    EXPECT_EQ(file.privileges & transfers, transfers);

    auto rootFiles = std::make_shared<Files>();
    ASSERT_EQ(backend->Files()->GetRootFiles(root, rootFiles), 0);
    ASSERT_EQ(rootFiles->size(), 1);
    EXPECT_EQ(rootFiles->at(0).localPath, QStringLiteral("/home/u/Docs/a b.txt"));
}

TEST_P(RemoteContract, HiddenEntriesOnlyWhenTheRootAsksAndNeverTheEnginesOwnFolders) {
    if (backend->Departs(kHiddenEntries)) GTEST_SKIP() << "known departure: " << kHiddenEntries;
    backend->PutFile(QStringLiteral("/Docs/shown.txt"), "1");
    backend->PutFile(QStringLiteral("/Docs/.hidden"), "2");
    backend->PutFile(QStringLiteral("/Docs/.dir/in.txt"), "3");
    backend->PutFile(QStringLiteral("/Docs/.{SyncTemp}/t.TMP"), "4");
    backend->PutFile(QStringLiteral("/Docs/.{SyncBackup}/b.BASE"), "5");
    // What an upload that died half-way leaves: never content, hidden entries or not.
    backend->PutFile(QStringLiteral("/Docs/.shown.txt.{SyncUpload}1f2e3d.TMP"), "6");
    // A user's own file of a similar name is content like any other.
    backend->PutFile(QStringLiteral("/Docs/.report.2024.TMP"), "7");
    const struct {
        int syncOption;
        QStringList names;
    } rows[] = {
        {sync::config::NoSyncOption, {"shown.txt"}},
        {sync::config::SyncHiddenEntries,
         {".dir", ".hidden", ".report.2024.TMP", "in.txt", "shown.txt"}},
    };
    for (const auto& row : rows) {
        root.setSyncOption(row.syncOption);
        auto folders = std::make_shared<Folders>();
        auto files = std::make_shared<Files>();
        ASSERT_EQ(backend->Folders()->GetFolderTree(root, folders, files), 0);
        QStringList names;
        for (const auto& f : *folders) names << f.name;
        for (const auto& f : *files) names << f.name;
        names.sort();
        EXPECT_EQ(names, row.names) << "syncOption " << row.syncOption;
    }
}

TEST_P(RemoteContract, MissingRootAnswers404AndFillsNothing) {
    backend->PutFile(QStringLiteral("/Other/x.txt"), "x");
    auto folders = std::make_shared<Folders>();
    auto files = std::make_shared<Files>();
    EXPECT_EQ(backend->Folders()->GetFolderTree(root, folders, files), 404);
    EXPECT_EQ(backend->Files()->GetRootFiles(root, files), 404);
    EXPECT_TRUE(folders->isEmpty() && files->isEmpty());
    EXPECT_FALSE(root.getLastServerSyncRequestTime().isValid());
}

TEST_P(RemoteContract, AnUnreadableFolderFailsTheListingInsteadOfShorteningIt) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder";
    backend->PutFile(QStringLiteral("/Docs/top.txt"), "t");
    backend->PutFile(QStringLiteral("/Docs/locked/in.txt"), "l");
    if (!backend->MakeUnreadable(QStringLiteral("/Docs/locked")))
        GTEST_SKIP() << "this backend has no unreadable folders";
    auto folders = std::make_shared<Folders>();
    auto files = std::make_shared<Files>();
    const int status = backend->Folders()->GetFolderTree(root, folders, files);
    EXPECT_NE(status, 0);
    EXPECT_NE(status, 404) << "404 would read as a missing root";
    EXPECT_TRUE(folders->isEmpty() && files->isEmpty());
}

TEST_P(RemoteContract, CreateFolder) {
    backend->PutFile(QStringLiteral("/Docs/file"), "f");
    const struct {
        const char* path;
        bool createParents;
        int errorCode;  // 0: created
    } rows[] = {
        {"/Docs/new", false, 0},  {"/Docs", false, 0},        {"/Docs/x/y/z", false, 409},
        {"/Docs/x/y/z", true, 0}, {"/Docs/file", false, 409}, {"/Docs/file/sub", true, 409},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        if (row.path == std::string("/Docs/file/sub") && backend->Departs(kFolderBelowFile)) {
            std::cout << "known departure, row left out: " << kFolderBelowFile << "\n";
            continue;
        }
        FolderConfiguration folder = FolderAt(QString::fromUtf8(row.path));
        folder.localPath = QStringLiteral("/home/u") + folder.serverPath;
        const auto r = backend->Folders()->CreateFolder(folder, QString(), row.createParents);
        FolderConfiguration info;
        if (row.errorCode == 0) {
            EXPECT_EQ(r.FolderServerCreations, 1);
            EXPECT_EQ(r.FolderServerCreationErrors, 0);
            EXPECT_FALSE(folder.getServerFolderId().isEmpty());
            ASSERT_TRUE(backend->Folders()->GetFolderInfo(folder, info));
            EXPECT_EQ(info.getServerFolderId(), folder.getServerFolderId());
        } else {
            EXPECT_EQ(r.FolderServerCreationErrors, 1);
            EXPECT_EQ(r.FolderServerCreationErrorPaths, QStringList{folder.localPath});
            EXPECT_EQ(r.errorCodes.value(row.errorCode), 1);
            EXPECT_FALSE(backend->Folders()->GetFolderInfo(folder, info));
        }
    }
}

TEST_P(RemoteContract, DeleteFolderTakesTheContentAndAMissingFolderCountsAsDone) {
    backend->PutFile(QStringLiteral("/Docs/full/sub/a.txt"), "a");
    backend->PutFile(QStringLiteral("/Docs/.hid/b"), "b");
    backend->PutFile(QStringLiteral("/Docs/keep.txt"), "k");
    for (const char* path : {"/Docs/full", "/Docs/.hid", "/Docs/never"}) {
        FolderConfiguration folder = FolderAt(QString::fromUtf8(path));
        const auto r = backend->Folders()->DeleteFolder(folder);
        EXPECT_EQ(r.FolderServerDeletions, 1) << path;
        FolderConfiguration info;
        EXPECT_FALSE(backend->Folders()->GetFolderInfo(folder, info)) << path;
    }
    root.setSyncOption(sync::config::SyncHiddenEntries);
    std::string lines;
    ASSERT_EQ(List(lines), 0);
    EXPECT_EQ(lines, "/Docs/keep.txt|/home/u/Docs/keep.txt|keep.txt|1");
}

TEST_P(RemoteContract, GetFolderInfoFindsFoldersOnly) {
    backend->PutFile(QStringLiteral("/Docs/sub/f.txt"), "f");
    auto folders = std::make_shared<Folders>();
    ASSERT_EQ(backend->Folders()->GetFolderTree(root, folders, std::make_shared<Files>()), 0);
    ASSERT_EQ(folders->size(), 1);
    FolderConfiguration info;
    ASSERT_TRUE(backend->Folders()->GetFolderInfo(FolderAt(QStringLiteral("/Docs/sub")), info));
    EXPECT_EQ(info.getServerFolderId(), folders->at(0).getServerFolderId());
    EXPECT_TRUE(info.privileges & sync::config::PrivilegeUpload);
    EXPECT_FALSE(backend->Folders()->GetFolderInfo(FolderAt(QStringLiteral("/Docs/no")), info));
    EXPECT_FALSE(
        backend->Folders()->GetFolderInfo(FolderAt(QStringLiteral("/Docs/sub/f.txt")), info));
}

TEST_P(RemoteContract, FileIdIsStableAndVersionIdFollowsTheContent) {
    backend->PutFile(QStringLiteral("/Docs/changing.txt"), "aaaa");
    backend->PutFile(QStringLiteral("/Docs/still.txt"), "s");
    const FileConfiguration changing = FileAt(QStringLiteral("/Docs/changing.txt"));
    const FileConfiguration still = FileAt(QStringLiteral("/Docs/still.txt"));
    EXPECT_NE(changing.serverFileId, still.serverFileId);

    // Same size, at once: only a finer clock than seconds tells the versions apart.
    backend->PutFile(QStringLiteral("/Docs/changing.txt"), "bbbb");
    const FileConfiguration changed = FileAt(QStringLiteral("/Docs/changing.txt"));
    EXPECT_EQ(changed.serverFileId, changing.serverFileId);
    EXPECT_NE(changed.properties.value("versionId"), changing.properties.value("versionId"));
    EXPECT_EQ(FileAt(QStringLiteral("/Docs/still.txt")).properties.value("versionId"),
              still.properties.value("versionId"));
}

TEST_P(RemoteContract, UploadStoresNewAndChangedFilesAndSettlesTheirRecords) {
    UseDisk();
    backend->PutFile(QStringLiteral("/Docs/changed.txt"), "old");
    const struct {
        const char* path;
        bool known;  // the engine has a record with the server's fields
        QByteArray content;
    } rows[] = {{"/Docs/new.txt", false, "fresh"}, {"/Docs/changed.txt", true, "new content"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const QString path = QString::fromUtf8(row.path);
        FileConfiguration record = Record(path, row.known);
        WriteLocal(path, row.content);
        QList<FileConfiguration> batch{record};
        const auto r = backend->Uploads().UploadFiles(account, root, batch);
        EXPECT_EQ(r.FileServerCreations, 1);
        EXPECT_EQ(r.FileServerCreationPaths, QStringList{record.localPath});
        EXPECT_EQ(backend->Content(path), row.content);

        const FileConfiguration& f = batch.first();
        const FileConfiguration listed = FileAt(path);
        EXPECT_EQ(f.syncStatus, FileSynchronizationStatus::Synchronized);
        EXPECT_EQ(f.serverFileId, listed.serverFileId);
        EXPECT_EQ(f.properties.value("versionId"), listed.properties.value("versionId"));
        EXPECT_EQ(f.size, row.content.size());
        EXPECT_EQ(f.checksum, Sha256(row.content));
        EXPECT_EQ(f.lastModified, LocalModified(path));
        ASSERT_GT(f.id, 0) << "the record is stored";
        const FileConfiguration stored = database->GetFileById(f.id);
        EXPECT_EQ(stored.checksum, f.checksum);
        EXPECT_EQ(stored.syncStatus, FileSynchronizationStatus::Synchronized);
    }
}

TEST_P(RemoteContract, AFailedUploadIsCountedAndKeepsTheServerFileAndTheRecordsContent) {
    UseDisk();
    const struct {
        const char* path;
        const char* serverBefore;  // null: no server file
        bool planned;              // the record was made while the server had serverBefore
        const char* serverAfter;   // written on the server after planning; null: nothing
        int errorCode;
        const std::string* rule;
    } rows[] = {
        {"/Docs/missing/a.txt", nullptr, false, nullptr, 409, nullptr},
        {"/Docs/there.txt", "theirs", false, nullptr, 412, &kUnseenVersions},
        {"/Docs/moved.txt", "v1", true, "v2 of theirs", 412, &kUnseenVersions},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        if (row.rule && backend->Departs(*row.rule)) {
            std::cout << "known departure, row left out: " << *row.rule << "\n";
            continue;
        }
        const QString path = QString::fromUtf8(row.path);
        if (row.serverBefore) backend->PutFile(path, row.serverBefore);
        QDir().mkpath(QFileInfo(LocalOf(path)).absolutePath());
        WriteLocal(path, "mine");
        FileConfiguration record = Record(path, row.planned);
        if (row.serverAfter) backend->PutFile(path, row.serverAfter);
        QList<FileConfiguration> batch{record};
        const auto r = backend->Uploads().UploadFiles(account, root, batch);
        EXPECT_EQ(r.FileServerCreationErrors, 1);
        EXPECT_EQ(r.FileServerCreationErrorPaths, QStringList{record.localPath});
        EXPECT_EQ(r.errorCodes.value(row.errorCode), 1);
        const QByteArray onServer = row.serverAfter    ? row.serverAfter
                                    : row.serverBefore ? row.serverBefore
                                                       : "";
        EXPECT_EQ(backend->Content(path), onServer);
        const FileConfiguration& f = batch.first();
        EXPECT_EQ(f.syncStatus, FileSynchronizationStatus::OutOfSync);
        EXPECT_EQ(f.checksum, record.checksum);
        EXPECT_EQ(f.serverFileId, record.serverFileId);
    }
}

// A batch of many files, as a first sync sends it: each file ends as it would alone, and the
// results list them in the batch's order, whichever file the client took first.
TEST_P(RemoteContract, ABatchOfManyFilesSettlesEachAsItWouldAlone) {
    UseDisk();
    QDir().mkpath(LocalOf(QStringLiteral("/Docs")));
    QList<FileConfiguration> batch;
    QStringList done;
    QStringList failed;
    for (int i = 0; i < 60; ++i) {
        const QString path = QStringLiteral("/Docs/f%1.txt").arg(i);
        const int kind = i % 4;  // 0, 1 new; 2 changed since the last sync; 3 parent missing
        if (kind == 2) backend->PutFile(path, "old");
        const QString target = kind == 3 ? QStringLiteral("/Docs/gone/f%1.txt").arg(i) : path;
        if (kind == 3) QDir().mkpath(QFileInfo(LocalOf(target)).absolutePath());
        WriteLocal(target, QByteArray("content ") + QByteArray::number(i));
        batch.append(Record(target, kind == 2));
        (kind == 3 ? failed : done) << LocalOf(target);
    }
    const auto r = backend->Uploads().UploadFiles(account, root, batch);
    EXPECT_EQ(r.FileServerCreationPaths, done);
    EXPECT_EQ(r.FileServerCreationErrorPaths, failed);
    EXPECT_EQ(r.errorCodes.value(409), failed.size());
    for (const FileConfiguration& f : batch) {
        SCOPED_TRACE(f.serverPath.toStdString());
        const bool ok = failed.indexOf(f.localPath) < 0;
        EXPECT_EQ(f.syncStatus, ok ? FileSynchronizationStatus::Synchronized
                                   : FileSynchronizationStatus::OutOfSync);
        if (!ok) continue;
        const QByteArray content = ReadLocal(f.serverPath);
        EXPECT_EQ(backend->Content(f.serverPath), content);
        EXPECT_EQ(f.checksum, Sha256(content));
        EXPECT_EQ(f.properties.value("versionId"),
                  FileAt(f.serverPath).properties.value("versionId"));
        ASSERT_GT(f.id, 0);
        EXPECT_EQ(database->GetFileById(f.id).checksum, f.checksum);
    }
}

TEST_P(RemoteContract, AReferencesOnlyUploadOfTheSameContentWritesNothing) {
    UseDisk();
    const QString path = QStringLiteral("/Docs/same.txt");
    backend->PutFile(path, "same");
    const FileConfiguration before = FileAt(path);
    WriteLocal(path, "same");
    FileConfiguration record = Record(path, false);
    record.referencesOnly = 1;
    QList<FileConfiguration> batch{record};
    const auto r = backend->Uploads().UploadFiles(account, root, batch);
    EXPECT_EQ(r.FileServerCreations, 1);
    EXPECT_EQ(FileAt(path).properties.value("versionId"), before.properties.value("versionId"))
        << "the server file was written";
    EXPECT_EQ(batch.first().serverFileId, before.serverFileId);
    EXPECT_EQ(batch.first().syncStatus, FileSynchronizationStatus::Synchronized);
    EXPECT_EQ(batch.first().referencesOnly, 0);
}

TEST_P(RemoteContract, DownloadPutsTheFileInPlaceAndSettlesTheRecord) {
    UseDisk();
    const struct {
        const char* path;
        const char* localBefore;  // null: no local file, no record
        QByteArray content;
    } rows[] = {{"/Docs/new.bin", nullptr, QByteArray("\0binary\xff", 8)},
                {"/Docs/older.txt", "old", "newer on the server"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const QString path = QString::fromUtf8(row.path);
        if (row.localBefore) {
            backend->PutFile(path, row.localBefore);
            WriteLocal(path, row.localBefore);
        }
        FileConfiguration record = Record(path, row.localBefore != nullptr);
        backend->PutFile(path, row.content);
        QList<sync::thread::SynchronizedFileConfiguration> batch{{FileAt(path), record}};
        const auto r = backend->Downloads().DownloadFiles(account, root, batch);
        EXPECT_EQ(r.FileLocalCreations, 1);
        EXPECT_EQ(r.FileLocalCreationPaths, QStringList{record.localPath});
        EXPECT_EQ(ReadLocal(path), row.content);
        EXPECT_TRUE(QDir(disk.path() + "/.{SyncTemp}").isEmpty()) << "a temporary file is left";

        const FileConfiguration& f = batch.first().databaseRecord;
        const FileConfiguration listed = FileAt(path);
        EXPECT_EQ(f.syncStatus, FileSynchronizationStatus::Synchronized);
        EXPECT_EQ(f.serverFileId, listed.serverFileId);
        EXPECT_EQ(f.properties.value("versionId"), listed.properties.value("versionId"));
        EXPECT_EQ(f.serverChecksum, listed.serverChecksum);
        EXPECT_EQ(f.size, row.content.size());
        EXPECT_EQ(f.checksum, Sha256(row.content));
        EXPECT_EQ(f.lastModified, LocalModified(path));
        ASSERT_GT(f.id, 0) << "the record is stored";
        EXPECT_EQ(database->GetFileById(f.id).checksum, f.checksum);
    }
}

// A batch of many downloads: each file ends as it would alone, and the results list them in
// the batch's order, whichever file the client took first.
TEST_P(RemoteContract, ABatchOfManyDownloadsSettlesEachAsItWouldAlone) {
    UseDisk();
    QDir().mkpath(LocalOf(QStringLiteral("/Docs/sub")));
    QList<sync::thread::SynchronizedFileConfiguration> batch;
    QStringList done;
    QStringList failed;
    for (int i = 0; i < 60; ++i) {
        // 0, 1 new; 2 changed on the server since the last sync; 3 gone from the server
        const int kind = i % 4;
        const QString path =
            (i % 2 ? QStringLiteral("/Docs/sub/f%1.txt") : QStringLiteral("/Docs/f%1.txt")).arg(i);
        if (kind == 2) {
            backend->PutFile(path, "base");
            WriteLocal(path, "base");
        }
        FileConfiguration record = Record(path, kind == 2);
        backend->PutFile(path, QByteArray("server ") + QByteArray::number(i));
        FileConfiguration serverRecord = FileAt(path);
        if (kind == 3) backend->Remove(path);
        batch.append({serverRecord, record});
        (kind == 3 ? failed : done) << record.localPath;
    }
    const auto r = backend->Downloads().DownloadFiles(account, root, batch);
    EXPECT_EQ(r.FileLocalCreationPaths, done);
    EXPECT_EQ(r.FileLocalCreationErrorPaths, failed);
    EXPECT_EQ(r.errorCodes.value(404), failed.size());
    EXPECT_TRUE(QDir(disk.path() + "/.{SyncTemp}").isEmpty()) << "a temporary file is left";
    for (const auto& pair : batch) {
        const FileConfiguration& f = pair.databaseRecord;
        SCOPED_TRACE(f.localPath.toStdString());
        if (failed.contains(f.localPath)) {
            EXPECT_FALSE(QFileInfo::exists(f.localPath));
            continue;
        }
        const QByteArray content = backend->Content(pair.serverRecord.serverPath);
        EXPECT_EQ(ReadLocal(pair.serverRecord.serverPath), content);
        EXPECT_EQ(f.checksum, Sha256(content));
        EXPECT_EQ(f.syncStatus, FileSynchronizationStatus::Synchronized);
        ASSERT_GT(f.id, 0);
        EXPECT_EQ(database->GetFileById(f.id).checksum, f.checksum);
    }
}

TEST_P(RemoteContract, ADownloadDoesNotReplaceALocalFileEditedSincePlanning) {
    if (backend->Departs(kLocalEdits)) GTEST_SKIP() << "known departure: " << kLocalEdits;
    UseDisk();
    const QString path = QStringLiteral("/Docs/edited.txt");
    backend->PutFile(path, "base");
    WriteLocal(path, "base");
    FileConfiguration record = Record(path, true);
    backend->PutFile(path, "server edit");
    const FileConfiguration serverRecord = FileAt(path);
    WriteLocal(path, "the user's edit");
    QList<sync::thread::SynchronizedFileConfiguration> batch{{serverRecord, record}};
    const auto r = backend->Downloads().DownloadFiles(account, root, batch);
    EXPECT_EQ(r.FileLocalCreationErrors, 1);
    EXPECT_EQ(r.errorCodes.value(409), 1);
    EXPECT_EQ(ReadLocal(path), "the user's edit");
    const FileConfiguration stored = database->GetFileById(record.id);
    EXPECT_EQ(stored.syncStatus, FileSynchronizationStatus::OutOfSync);
    EXPECT_EQ(stored.checksum, record.checksum);
    EXPECT_EQ(stored.properties.value("versionId"), record.properties.value("versionId"));
}

TEST_P(RemoteContract, DeleteRemovesFileAndRecordAndAMissingFileCountsAsDone) {
    UseDisk();
    backend->PutFile(QStringLiteral("/Docs/gone.txt"), "g");
    backend->PutFile(QStringLiteral("/Docs/keep/in.txt"), "k");
    backend->PutFile(QStringLiteral("/Docs/never.txt"), "n");
    const struct {
        const char* path;
        int errorCode;  // 0: deleted
    } rows[] = {{"/Docs/gone.txt", 0}, {"/Docs/never.txt", 0}, {"/Docs/keep", 409}};
    FileConfiguration never = Record(QStringLiteral("/Docs/never.txt"), true);
    backend->Remove(never.serverPath);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const QString path = QString::fromUtf8(row.path);
        FileConfiguration record = path == never.serverPath ? never : Record(path, false);
        if (record.id <= 0) database->AddFile(record);
        QList<FileConfiguration> batch{record};
        const auto r = backend->Deletes().DeleteFiles(root, batch);
        if (row.errorCode == 0) {
            EXPECT_EQ(r.FileServerDeletions, 1);
            EXPECT_EQ(r.FileServerDeletionPaths, QStringList{record.localPath});
            EXPECT_TRUE(backend->Content(path).isNull());
            EXPECT_EQ(database->GetFileById(record.id).id, -1) << "the record is kept";
        } else {
            EXPECT_EQ(r.FileServerDeletionErrors, 1);
            EXPECT_EQ(r.errorCodes.value(row.errorCode), 1);
            EXPECT_EQ(database->GetFileById(record.id).id, record.id);
        }
    }
    EXPECT_EQ(backend->Content(QStringLiteral("/Docs/keep/in.txt")), "k");
}

// Deleting a server file that changed after it was planned would lose that change: the deletion
// is refused (412) and the record kept, so that the next cycle brings the change down.
TEST_P(RemoteContract, ADeletionLeavesAServerFileChangedSincePlanning) {
    UseDisk();
    backend->PutFile(QStringLiteral("/Docs/edited.txt"), "before");
    FileConfiguration record = Record(QStringLiteral("/Docs/edited.txt"), true);
    backend->PutFile(QStringLiteral("/Docs/edited.txt"), "changed on the server");
    QList<FileConfiguration> batch{record};
    const auto r = backend->Deletes().DeleteFiles(root, batch);
    EXPECT_EQ(r.FileServerDeletionErrors, 1);
    EXPECT_EQ(r.errorCodes.value(412), 1);
    EXPECT_EQ(backend->Content(QStringLiteral("/Docs/edited.txt")), "changed on the server");
    EXPECT_EQ(database->GetFileById(record.id).id, record.id);
}

// A tree wide enough that its deeper levels are listed on several threads: the listing must
// still hold every entry once, in the order of a breadth-first walk, and one unreadable folder
// among hundreds must fail it as a lone one does.
std::string Sorted(QStringList lines) {
    lines.sort();
    return lines.join(QLatin1Char('\n')).toStdString();
}

TEST(LocalFolderServerListing, AWideTreeListsWholeInWalkOrderOrFailsOnOneUnreadableFolder) {
    // Children per folder at each depth: 4, then 4 x 12 = 48, then 48 x 6 = 288 folders.
    const int widths[] = {4, 12, 6};
    const struct {
        const char* name;
        QString locked;  // a folder made unreadable, if any
        int status;
    } rows[] = {
        {"whole tree", QString(), 0},
        {"unreadable folder deep in a wide level", QStringLiteral("/Docs/d2/d7/d3"), 403},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (!row.locked.isEmpty() && ::geteuid() == 0) {
            std::cout << "[ SKIPPED  ] " << row.name << ": root reads every folder\n";
            continue;
        }
        LocalBackend backend;
        QStringList expectedFolders, expectedFiles;
        // Each folder gets one to three files, sized after their paths; "Ü" takes the decoding
        // of names that are not plain ASCII.
        const auto fill = [&](const QString& folder, int index) {
            for (int i = 0; i <= index % 3; ++i) {
                const QString path = folder + (i == 2 ? QStringLiteral("/Ü%1.txt").arg(i)
                                                      : QStringLiteral("/f%1.txt").arg(i));
                const QByteArray content(path.size() % 7 + i, 'x');
                backend.PutFile(path, content);
                expectedFiles << QStringLiteral("%1|/home/u%1|%2").arg(path).arg(content.size());
            }
        };
        QStringList level{QStringLiteral("/Docs")};
        backend.PutFolder(level.first());
        fill(level.first(), 2);
        for (const int width : widths) {
            QStringList deeper;
            for (const QString& parent : level)
                for (int i = 0; i < width; ++i) {
                    const QString folder = parent + QStringLiteral("/d%1").arg(i);
                    backend.PutFolder(folder);
                    fill(folder, deeper.size());
                    expectedFolders << QStringLiteral("%1|/home/u%1").arg(folder);
                    deeper << folder;
                }
            level = deeper;
        }
        if (!row.locked.isEmpty()) {
            ASSERT_TRUE(backend.MakeUnreadable(row.locked));
        }

        FolderConfiguration root;
        root.id = root.rootId = 1;
        root.authenticationId = kAccount;
        root.serverPath = QStringLiteral("/Docs");
        root.localPath = QStringLiteral("/home/u/Docs");
        auto folders = std::make_shared<Folders>();
        auto files = std::make_shared<Files>();
        ASSERT_EQ(backend.Folders()->GetFolderTree(root, folders, files), row.status);
        if (row.status != 0) {
            EXPECT_TRUE(folders->isEmpty() && files->isEmpty());
            continue;
        }

        QStringList listedFolders, listedFiles;
        for (const FolderConfiguration& f : *folders)
            listedFolders << QStringLiteral("%1|%2").arg(f.serverPath, f.localPath);
        for (const FileConfiguration& f : *files)
            listedFiles << QStringLiteral("%1|%2|%3").arg(f.serverPath, f.localPath).arg(f.size);
        EXPECT_EQ(Sorted(listedFolders), Sorted(expectedFolders));
        EXPECT_EQ(Sorted(listedFiles), Sorted(expectedFiles));

        // Breadth first: the entries of each folder come together, and the folders they come
        // from follow the walk (the root, then the folders in their listed order).
        QHash<QString, int> walked{{root.serverPath, 0}};
        for (const FolderConfiguration& f : *folders) walked.insert(f.serverPath, walked.size());
        const auto checkGrouped = [&](const QStringList& paths, const char* kind) {
            int previous = 0;
            for (const QString& path : paths) {
                const int parent =
                    walked.value(path.left(path.indexOf(QLatin1Char('|'))).section('/', 0, -2), -1);
                ASSERT_GE(parent, previous) << kind << " out of walk order: " << path.toStdString();
                previous = parent;
            }
        };
        checkGrouped(listedFolders, "folder");
        checkGrouped(listedFiles, "file");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Backends, RemoteContract,
    ::testing::Values(
        BackendKind{"Fake", [] { return std::unique_ptr<Backend>(new FakeBackend); }},
        BackendKind{"LocalFolder", [] { return std::unique_ptr<Backend>(new LocalBackend); }},
        BackendKind{"WebDav", [] { return std::unique_ptr<Backend>(new DavBackend); }}),
    [](const ::testing::TestParamInfo<BackendKind>& info) { return std::string(info.param.name); });

}  // namespace
