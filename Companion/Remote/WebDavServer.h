#pragma once

#include <sys/stat.h>

#include <QByteArray>
#include <QSet>
#include <QString>
#include <memory>

#include "RemoteBackend.h"
#include "ServerConfiguration.h"

namespace sync {
namespace remote {

class WebDavConnection;
struct DavEntry;
struct DavResponse;

// A WebDAV server (RFC 4918) playing the server of one account: the account's baseUrl names
// the server folder that stands for "/", and a root folder's serverPath is the path below it.
//
// Listings come from PROPFIND with Depth: infinity, or from a walk with Depth: 1 where the
// server refuses that. A record's serverFileId is the server's DAV:resource-id when it has one,
// else the decoded server path; its "versionId" is the ETag without the weak marker: Apache
// marks a file's tag weak for the second after each write and strong later, and the same
// version must read the same in a listing and in a record stored at any moment (also by a run
// that never got further). Whether a tag is weak right now is asked of the server when it
// matters, for a precondition.
// Records carry no checksum (plain WebDAV has none) and the default privileges.
//
// Transfers stream: an upload is read from the file while it is sent and a download written to
// a temporary file while it arrives, both hashed in the same pass, so memory stays flat for any
// size. An upload replaces only the server version its record names (If-Match; If-None-Match
// for a new file); a server version this client never saw is first kept beside it as
// "name (conflict YYYY-MM-DD HHMMSS).ext". A download replaces only the local file the record
// describes (409 otherwise). Content the server already holds is never sent again.
//
// Failures carry the HTTP status; failures without an answer carry the status a gateway would
// give (503 unreachable, 502 connection cut or answer malformed) and 495 for a server
// certificate that is not trusted. After a 429, or a 503 with Retry-After, nothing is sent until
// the pause is over: requests fail at once with that status (see ServerPause).
class WebDavServer : public RemoteBackend, public std::enable_shared_from_this<WebDavServer> {
public:
    using Folder = sync::config::FolderConfiguration;
    using File = sync::config::FileConfiguration;
    using Results = sync::core::SyncResults;

    // authenticationId -1: the managers serve any account. account.settings["caFile"] names a
    // CA bundle for a server whose certificate the system does not trust.
    WebDavServer(const sync::config::ServerConfiguration& account, const QString& password,
                 int authenticationId = -1);
    ~WebDavServer() override;

    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) override {
        _database = std::move(files);
    }
    void SetExitChecker(std::shared_ptr<sync::interf::ICheckForExit> exitChecker) override;
    void SetProgressListener(ProgressListener listener) override {
        _progress = std::move(listener);
    }
    void SetServerPause(std::shared_ptr<ServerPause> pause) override;

    // Throw HttpException(401) for an account other than the one served.
    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(
        int authenticationId) override;
    std::shared_ptr<sync::interf::IRemoteFileManager> CreateRemoteFileManager(
        int authenticationId) override;

    // MKCOL; an existing folder is success, an existing file 409. Without createParents a
    // missing parent fails with 409. Failures are counted, not thrown.
    Results CreateFolder(Folder& folder, const QString& text, bool createParents) override;
    // A folder already gone counts as deleted; other failures throw HttpException. What no
    // listing shows (hidden entries, names that are not UTF-8) and files that this machine
    // never synchronised, or not as they are now, are never deleted: they stay, and so do the
    // folders that hold them.
    Results DeleteFolder(Folder& folder) override;
    // false when nothing or a file is at the path; throws HttpException on a failed request.
    bool GetFolderInfo(const Folder& folder, Folder& info) override;
    // 0 with the whole tree, 404 when the root is missing, another status when the listing
    // failed or broke off; nothing is filled then.
    int GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                      std::shared_ptr<QVector<File>> files) override;
    int GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) override;

    Results UploadFiles(const sync::config::ServerConfiguration& server, const Folder& root,
                        QList<File>& files) override;
    Results DownloadFiles(const sync::config::ServerConfiguration& server, const Folder& root,
                          QList<sync::thread::SynchronizedFileConfiguration>& files) override;
    // A file already gone counts as deleted; one changed since planning is kept (412).
    Results DeleteFiles(const Folder& root, QList<File>& files) override;

    // The entry's URL, percent-encoded per segment, never with credentials.
    QString BuildUrl(const sync::config::ServerConfiguration& server,
                     const QString& serverPath) override;

    // What the server asked for with its last 429 or 503: seconds to wait; -1 when it never did.
    int RetryAfterSeconds() const override { return _retryAfter; }
    // What went wrong in the last failed request, for the user; empty when nothing failed.
    const QString& LastError() const { return _lastError; }

    // The percent-encoded URL of a server path below baseUrl, with a trailing slash for a
    // folder.
    static QByteArray UrlOf(const QString& baseUrl, const QString& serverPath, bool folder);

private:
    struct RemoteState;
    void _CheckAccount(int authenticationId) const;
    QByteArray _Url(const QString& serverPath, bool folder = false) const;
    // The server path of a decoded href path; null for one outside the base folder.
    QString _ServerPathOf(const QString& hrefPath) const;
    // Runs one request and notes what a failure says (Retry-After, the error text).
    DavResponse _Perform(const QByteArray& method, const QByteArray& url,
                         QList<QByteArray> headers = {});
    void _Note(const DavResponse& response, const QByteArray& method, const QByteArray& url);
    // PROPFIND Depth: 0 of one path; a path that leads through a file is one where nothing is.
    RemoteState _Stat(const QString& serverPath);
    RemoteState _StatOnce(const QString& serverPath);
    // True when a folder on the way to the path is a file: such a path names nothing, and
    // servers answer it with 400 rather than 404 or 409.
    bool _ThroughFile(const QString& serverPath);
    int _List(Folder& root, bool directOnly, QVector<Folder>* folders, QVector<File>* files);
    // Everything below a folder, one level per request: the entries a listing shows (their
    // paths made server paths, parents before children) and the folders that hold anything
    // else (holders). 0, or the status that ended the walk (404: the folder is gone).
    int _ListForDeletion(const QString& folderPath, QList<DavEntry>& listed,
                         QSet<QString>& holders);
    bool _Upload(File& file, int& status, struct stat* read);
    bool _Download(sync::thread::SynchronizedFileConfiguration& pair, const QString& target,
                   const Folder& root, int& status);
    int _Delete(const File& file);
    // Deletes what this machine knows below a server folder and keeps the folder when other
    // files are in it: true then. False when the folder may go as a whole.
    bool _KeepUnknownContent(const Folder& folder);
    // Whether the folder of serverPath holds another entry whose name differs only in case;
    // true when it cannot be listed.
    bool _OtherSpellingExists(const QString& serverPath);
    // Whether the file at copy holds the bytes of the one at original, of the size given.
    bool _HoldsTheSameBytes(const QString& copy, const QString& original, qint64 size);
    int _MakeFolder(const QString& serverPath);
    void _StoreRecord(File& record);
    QString _IdOf(const DavEntry& entry, const QString& serverPath) const;

    QString _baseUrl;
    QString _basePath;  // decoded, without a trailing slash
    int _authenticationId;
    std::unique_ptr<WebDavConnection> _connection;
    std::shared_ptr<sync::interf::IFileConfigManager> _database;
    ProgressListener _progress;
    std::shared_ptr<sync::interf::ICheckForExit> _exitChecker;
    bool _stopRequested = false;
    // Whether the server has DAV:resource-id: -1 not known yet, 0 no, 1 yes.
    int _resourceIds = -1;
    int _retryAfter = -1;
    QString _lastError;
};

}  // namespace remote
}  // namespace sync
