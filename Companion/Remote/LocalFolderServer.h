#pragma once

#include <sys/stat.h>

#include <QString>
#include <functional>
#include <memory>
#include <mutex>

#include "RemoteBackend.h"
#include "ServerConfiguration.h"

namespace sync {
namespace remote {

// A directory on this machine playing the server of one account: a root folder's serverPath is
// the path below that directory. Listings carry "dev:ino" as the entry's id, a version id that
// changes whenever the content may have changed (size, modification time, change time), no
// checksum (hashing every file per listing would cost more than a transfer), and privileges
// from what this process may do in the directory (download always: an entry that cannot be
// read fails its download rather than look deleted). Symbolic links and special files are never
// listed: a link may lead out of the directory or around in a loop.
//
// OS errors answer as a web server would: not found 404, no permission 403, disk full 507,
// something else in the way 409, anything else 500.
//
// Transfers never leave a torn file on either side: each is written to a temporary file, synced
// and renamed into place. An upload replaces only the server version the record names (412
// otherwise), a download only the local file the record describes (409 otherwise), and a file
// that changes while it is read is not stored (409). Failures of the local disk carry no status.
class LocalFolderServer : public RemoteBackend,
                          public std::enable_shared_from_this<LocalFolderServer> {
public:
    using Folder = sync::config::FolderConfiguration;
    using File = sync::config::FileConfiguration;
    using Results = sync::core::SyncResults;

    // authenticationId -1: the managers serve any account.
    explicit LocalFolderServer(const QString& directory, int authenticationId = -1);
    // The directory an account's base URL names: a file:// URL or a plain path.
    static QString DirectoryOf(const sync::config::ServerConfiguration& server);

    const QString& Directory() const { return _directory; }
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _database = std::move(files);
    }
    void SetExitChecker(std::shared_ptr<sync::interf::ICheckForExit> exitChecker) override {
        _exitChecker = std::move(exitChecker);
    }
    void SetProgressListener(ProgressListener listener) override {
        _progress = std::move(listener);
    }

    // Throw HttpException(401) for an account other than the one served.
    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(
        int authenticationId) override;
    std::shared_ptr<sync::interf::IRemoteFileManager> CreateRemoteFileManager(
        int authenticationId) override;

    // A missing parent answers 409 without createParents, as MKCOL does; an existing folder
    // is success.
    Results CreateFolder(Folder& folder, const QString& text, bool createParents) override;
    // A path that holds no folder counts as deleted; the top folder is never deleted (403).
    // What no listing shows (links, special files, hidden entries, names that are not UTF-8)
    // and files that this machine never synchronised, or not as they are now, are never
    // deleted: they stay, and so do the folders that hold them.
    Results DeleteFolder(Folder& folder) override;
    bool GetFolderInfo(const Folder& folder, Folder& info) override;
    // 0 with the whole tree, 404 when the root is missing, another status when any folder of
    // the walk could not be read (403) or vanished (409); nothing is filled then. Breadth first,
    // each folder's entries together; the folders of a wide tree are listed on several threads,
    // with the same result and order as on one.
    int GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                      std::shared_ptr<QVector<File>> files) override;
    int GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) override;

    // A record without serverFileId is uploaded only where no file is; one with it only over
    // the version its versionId names. referencesOnly with the same content on the server
    // writes nothing and settles the record.
    Results UploadFiles(const sync::config::ServerConfiguration& server, const Folder& root,
                        QList<File>& files) override;
    // The local file is replaced only while it is as the database record describes it, or
    // already holds the downloaded content.
    Results DownloadFiles(const sync::config::ServerConfiguration& server, const Folder& root,
                          QList<sync::thread::SynchronizedFileConfiguration>& files) override;
    // A file already gone counts as deleted.
    Results DeleteFiles(const Folder& root, QList<File>& files) override;

    // A file:// URL of the entry.
    QString BuildUrl(const sync::config::ServerConfiguration& server,
                     const QString& serverPath) override;

    // The HTTP-like status of an errno value.
    static int StatusOf(int error);

private:
    // True while the server file is still the one the record was planned against (same id, same
    // version id, where the record names them).
    static bool _IsPlannedVersion(const sync::config::FileConfiguration& file,
                                  const struct stat& st);
    void _CheckAccount(int authenticationId) const;
    // The native path of a server path; throws HttpException(400) for "." and ".." parts,
    // which would leave the directory.
    QByteArray _NativePath(const QString& serverPath) const;
    int _List(Folder& root, bool directOnly, QVector<Folder>* folders, QVector<File>* files);
    // True when the file was transferred and its record settled; else status tells why (0 for
    // a failure of the local disk). On a thread that must not read the database (mayRead
    // false), a file that needs its database record is left untouched and deferred set.
    bool _Upload(File& file, int& status, struct stat* read, bool mayRead = true,
                 bool* deferred = nullptr);
    bool _Download(sync::thread::SynchronizedFileConfiguration& pair, const QString& target,
                   const Folder& root, int& status);
    void _StoreRecord(File& record);
    // What a copy calls after every block: the progress report and the stop request.
    std::function<bool(qint64)> _Transfer(const QString& path, qint64 size) const;

    QString _directory;
    int _authenticationId;
    std::shared_ptr<sync::interf::IFileConfigManager> _database;
    std::shared_ptr<sync::interf::ICheckForExit> _exitChecker;
    ProgressListener _progress;
    // Copies run on several threads; the listener hears them one at a time.
    mutable std::mutex _progressLock;
};

}  // namespace remote
}  // namespace sync
