#include "ServerSide.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QTemporaryDir>
#include <QUrl>
#include <functional>
#include <stdexcept>

#include "ApacheServer.h"
#include "LocalFolderServer.h"
#include "ServerPaths.h"
#include "WebDavServer.h"

namespace sync {
namespace test {

using File = ServerSide::File;
using Folder = ServerSide::Folder;

namespace {

template <typename Backend>
void WireAll(ServerSide::Companions& c, const std::shared_ptr<Backend>& backend) {
    c.remoteFolderManagerFactory = backend;
    c.remoteFileManagerFactory = backend;
    c.uploadClient = backend;
    c.downloadClient = backend;
    c.deleteClient = backend;
    c.urlBuilder = backend;
}

std::runtime_error NoEntry(const QString& path) {
    return std::runtime_error("no server entry at " + path.toStdString());
}

class FakeSide : public ServerSide {
public:
    QString BaseUrl() const override { return QStringLiteral("https://fake.example"); }
    void Wire(Companions& companions) override { WireAll(companions, _server); }
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _server->SetDatabase(std::move(files));
    }
    FakeServer* Fake() override { return _server.get(); }
    void PutFolder(const QString& path) override { _server->PutFolder(path); }
    void PutFile(const QString& path, const QByteArray& content) override {
        _server->PutFile(path, content);
    }
    void Remove(const QString& path) override { _server->Remove(path); }
    File FileRecord(const QString& path, const Folder& root) override {
        const FakeServer::Entry* entry = _server->Find(path);
        if (!entry || entry->isFolder) throw NoEntry(path);
        return _server->FileRecord(*entry, root);
    }
    Folder FolderRecord(const QString& path, const Folder& root) override {
        const FakeServer::Entry* entry = _server->Find(path);
        if (!entry || !entry->isFolder) throw NoEntry(path);
        return _server->FolderRecord(*entry, root);
    }
    QStringList Listing() override { return _server->Listing(); }
    QString VersionLabel(const File& record) override {
        const QString version = record.properties.value(QStringLiteral("version"));
        return version.isEmpty() ? QString() : QStringLiteral("v") + version;
    }

private:
    std::shared_ptr<FakeServer> _server = std::make_shared<FakeServer>();
};

// A real backend serving a temporary directory: the test seeds the directory itself and reads
// the content there; everything else (ids, versions, privileges) comes from the backend's own
// listing. Any backend that can serve a directory of this machine fits.
class DirectorySide : public ServerSide {
public:
    using Serve =
        std::function<std::shared_ptr<sync::remote::RemoteBackend>(const QString& directory)>;
    using UrlOf = std::function<QString(const QString& directory)>;

    // Writes of the test go through afterWrite (when given) with the native path, for a
    // backend that needs to be told. The directory is made in parent (when given).
    using AfterWrite = std::function<void(const QString& native)>;

    DirectorySide(const Serve& serve, const UrlOf& urlOf, const QString& parent = QString(),
                  AfterWrite afterWrite = AfterWrite())
        : _dir(parent.isEmpty() ? QDir::tempPath() + QStringLiteral("/server-XXXXXX")
                                : parent + QStringLiteral("/server-XXXXXX")),
          _afterWrite(std::move(afterWrite)) {
        if (!_dir.isValid()) throw std::runtime_error("no temporary folder for the server");
        if (_afterWrite) _afterWrite(_dir.path());
        _server = serve(_dir.path());
        _baseUrl = urlOf(_dir.path());
    }
    QString BaseUrl() const override { return _baseUrl; }
    void Wire(Companions& companions) override { WireAll(companions, _server); }
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _server->SetDatabase(std::move(files));
    }

    void PutFolder(const QString& path) override {
        if (!QDir().mkpath(_Native(path)))
            throw std::runtime_error("cannot make server folder " + path.toStdString());
        if (_afterWrite) _afterWrite(_Native(path));
    }
    void PutFile(const QString& path, const QByteArray& content) override {
        // Written in place, so that the file keeps its id as a server's edited file does.
        QFile file(_Native(path));
        if (!QDir().mkpath(QFileInfo(file).absolutePath()) ||
            !file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(content) != content.size() || !file.flush())
            throw std::runtime_error("cannot write server file " + path.toStdString());
        file.close();
        if (_afterWrite) _afterWrite(_Native(path));
        _Label(path, FileRecord(path, _Top()).properties.value(QStringLiteral("versionId")));
    }
    void Remove(const QString& path) override {
        const QString native = _Native(path);
        if (QFileInfo(native).isDir())
            QDir(native).removeRecursively();
        else
            QFile::remove(native);
        // A file made at the path later starts from v1 again, as on the fake.
        for (auto it = _labels.begin(); it != _labels.end();)
            it = it.key() == path || it.key().startsWith(path + QLatin1Char('/'))
                     ? _labels.erase(it)
                     : std::next(it);
    }

    File FileRecord(const QString& path, const Folder& root) override {
        QVector<File> files;
        _List(nullptr, &files);
        for (File& f : files)
            if (f.serverPath == path) return _Below(f, root);
        throw NoEntry(path);
    }
    Folder FolderRecord(const QString& path, const Folder& root) override {
        QVector<Folder> folders;
        _List(&folders, nullptr);
        for (Folder& f : folders)
            if (f.serverPath == path) return _Below(f, root);
        throw NoEntry(path);
    }

    QStringList Listing() override {
        QVector<Folder> folders;
        QVector<File> files;
        _List(&folders, &files);
        QStringList lines;
        for (const Folder& f : folders)
            lines << QStringLiteral("server %1/").arg(f.serverPath) + _Privileges(f.privileges);
        for (const File& f : files) {
            QFile file(_Native(f.serverPath));
            const QByteArray content = file.open(QIODevice::ReadOnly) ? file.readAll() : "?";
            lines << QStringLiteral("server %1 %2 %3")
                             .arg(f.serverPath, VersionLabel(f), FakeServer::ContentText(content)) +
                         _Privileges(f.privileges);
        }
        lines.sort();
        return lines;
    }
    QString VersionLabel(const File& record) override {
        return _Label(record.serverPath, record.properties.value(QStringLiteral("versionId")));
    }

private:
    QString _Native(const QString& path) const { return _dir.path() + path; }
    // The server's top folder, listed with hidden entries: seeding and listings show them all.
    static Folder _Top() {
        Folder top;
        top.serverPath = top.path = QStringLiteral("/");
        top.setSyncOption(sync::config::SyncHiddenEntries);
        return top;
    }
    void _List(QVector<Folder>* folders, QVector<File>* files) {
        Folder top = _Top();
        auto f = std::make_shared<QVector<Folder>>();
        auto g = std::make_shared<QVector<File>>();
        if (const int status = _server->GetFolderTree(top, f, g))
            throw std::runtime_error("the server directory answers " + std::to_string(status));
        if (folders) *folders = *f;
        if (files) *files = *g;
    }
    // A record of the top folder's listing as a listing of root shows it.
    template <typename Record>
    static Record _Below(Record record, const Folder& root) {
        record.localPath = sync::core::JoinServerPath(
            root.localPath, record.serverPath.mid(root.serverPath.size()));
        return record;
    }
    // Shown like the fake's: only where a transfer right is missing. A directory grants no
    // right beyond the transfers.
    static QString _Privileges(int privileges) {
        const int transfers = sync::config::PrivilegeDownload | sync::config::PrivilegeUpload |
                              sync::config::PrivilegeDelete;
        return (privileges & transfers) == transfers
                   ? QString()
                   : QStringLiteral(" privileges %1").arg(privileges);
    }
    QString _Label(const QString& path, const QString& versionId) {
        if (versionId.isEmpty()) return QString();
        QStringList& seen = _labels[path];
        if (!seen.contains(versionId)) seen << versionId;
        return QStringLiteral("v%1").arg(seen.indexOf(versionId) + 1);
    }

    QTemporaryDir _dir;
    AfterWrite _afterWrite;
    std::shared_ptr<sync::remote::RemoteBackend> _server;
    QString _baseUrl;
    // Version ids per server path, in the order they were first seen.
    QHash<QString, QStringList> _labels;
};

}  // namespace

std::unique_ptr<ServerSide> ServerSide::MakeFake() {
    return std::make_unique<FakeSide>();
}

std::unique_ptr<ServerSide> ServerSide::MakeLocalFolder() {
    return std::make_unique<DirectorySide>(
        [](const QString& directory) {
            return std::make_shared<sync::remote::LocalFolderServer>(directory);
        },
        [](const QString& directory) { return QUrl::fromLocalFile(directory).toString(); });
}

QString ServerSide::WebDavUnavailable() {
    return ApacheServer::Unavailable();
}

std::unique_ptr<ServerSide> ServerSide::MakeWebDav() {
    // One Apache for the program; each scenario serves a folder of its own in it.
    // Stopped when the program ends, with the static's destruction.
    static const std::unique_ptr<ApacheServer> server = [] {
        auto started = std::make_unique<ApacheServer>();
        QString error;
        if (!started->Start(&error)) throw std::runtime_error(error.toStdString());
        return started;
    }();
    ApacheServer* apache = server.get();
    return std::make_unique<DirectorySide>(
        [apache](const QString& directory) {
            sync::config::ServerConfiguration account;
            account.baseUrl = apache->Url() + QLatin1Char('/') + QFileInfo(directory).fileName();
            return std::make_shared<sync::remote::WebDavServer>(account, QString());
        },
        [apache](const QString& directory) {
            return apache->Url() + QLatin1Char('/') + QFileInfo(directory).fileName();
        },
        apache->DocumentRoot(),
        [apache](const QString& native) {
            // Apache's tag of a file changed within the current second is weak and turns
            // strong later: a seed is dated back, as a file put there a moment ago would be.
            struct stat st;
            if (::stat(QFile::encodeName(native).constData(), &st) == 0 && S_ISREG(st.st_mode)) {
                struct timespec times[2] = {st.st_atim, st.st_mtim};
                times[1].tv_sec -= 2;
                ::utimensat(AT_FDCWD, QFile::encodeName(native).constData(), times, 0);
            }
            apache->HandOver(native);
        });
}

const std::vector<ServerSide::Kind>& ServerSide::Kinds() {
    // WebDAV where this machine has Apache (the test set-up installs it).
    static const std::vector<Kind> kinds = [] {
        std::vector<Kind> all{{"Fake", &MakeFake}, {"LocalFolder", &MakeLocalFolder}};
        if (WebDavUnavailable().isEmpty()) all.push_back({"WebDav", &MakeWebDav});
        return all;
    }();
    return kinds;
}

}  // namespace test
}  // namespace sync
