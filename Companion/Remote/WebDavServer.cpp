#include "WebDavServer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

#include "HttpException.h"
#include "QFileWrapper.h"
#include "ServerPaths.h"
#include "Sha256.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SyncLog.h"
#include "TransactionalScope.h"
#include "TransferSupport.h"
#include "WebDavConnection.h"
#include "WebDavMultistatus.h"

namespace sync {
namespace remote {

using sync::config::FileSynchronizationStatus;
using sync::http::HttpException;
using Folder = WebDavServer::Folder;
using File = WebDavServer::File;
using Results = WebDavServer::Results;

namespace {

const QString kVersionId = QStringLiteral("versionId");
// Set by the planner on a file changed on both sides: the server version it replaces.
const QString kVersion = QStringLiteral("version");
constexpr int kBadGateway = sync::http::BadGateway;
constexpr std::size_t kCompareBlockBytes = std::size_t(1) << 20;
constexpr qint64 kExpectContinueBytes = qint64(1) << 20;
constexpr std::size_t kListingBlock = 8192;

template <typename Record>
QString ShownPath(const Record& r) {
    return r.localPath.isEmpty() ? r.serverPath : r.localPath;
}

bool IsWeak(const QString& tag) {
    return tag.startsWith(QLatin1String("W/"));
}

// Weak comparison (RFC 7232): a tag names the same version whether or not it is marked weak;
// Apache marks a file's tag weak for as long as its modification lies within the current
// second, so the same version shows both ways.
bool SameTag(const QString& a, const QString& b) {
    return (IsWeak(a) ? a.mid(2) : a) == (IsWeak(b) ? b.mid(2) : b);
}

// The version a tag names, as records and listings carry it.
QString VersionOf(const QString& tag) {
    return IsWeak(tag) ? tag.mid(2) : tag;
}

// The server grants everything it does not refuse; the text says so as the local-folder
// server's does, one shared string for every entry. Records that a listing did not fill (an
// entry gone from the server) have none, which the engine tells apart from the root's.
const QString& FullPrivilegeInfo() {
    static const QString text =
        QStringLiteral("privileges %1").arg(sync::config::FolderConfiguration().privileges);
    return text;
}

}  // namespace

struct WebDavServer::RemoteState {
    int status = 0;  // 0: something is there; 404: nothing; other: the request failed
    DavEntry entry;
};

WebDavServer::WebDavServer(const sync::config::ServerConfiguration& account,
                           const QString& password, int authenticationId)
    : _authenticationId(authenticationId) {
    QUrl base(account.baseUrl.trimmed());
    // Credentials never ride in the URL; a user name there is ignored like any other.
    base.setUserInfo(QString());
    _basePath = Normalized(base.path(QUrl::FullyDecoded));
    base.setPath(_basePath);
    _baseUrl = base.toString(QUrl::FullyEncoded);
    _connection.reset(
        new WebDavConnection(account.userName, password, account.settings.value("caFile")));
    _connection->SetPause(std::make_shared<ServerPause>());
}

void WebDavServer::SetServerPause(std::shared_ptr<ServerPause> pause) {
    _connection->SetPause(pause ? std::move(pause) : std::make_shared<ServerPause>());
}

WebDavServer::~WebDavServer() = default;

void WebDavServer::SetExitChecker(std::shared_ptr<sync::interf::ICheckForExit> exitChecker) {
    _exitChecker = std::move(exitChecker);
    if (!_exitChecker) {
        _connection->SetStopCheck({});
        return;
    }
    _connection->SetStopCheck([this] {
        if (!_exitChecker->ShouldExit()) return false;
        _stopRequested = true;
        return true;
    });
}

void WebDavServer::_CheckAccount(int authenticationId) const {
    if (_authenticationId >= 0 && authenticationId != _authenticationId)
        throw HttpException(sync::http::Unauthorized,
                            QStringLiteral("Unknown account %1").arg(authenticationId));
}

std::shared_ptr<sync::interf::IRemoteFolderManager> WebDavServer::CreateRemoteFolderManager(
    int authenticationId) {
    _CheckAccount(authenticationId);
    return shared_from_this();
}

std::shared_ptr<sync::interf::IRemoteFileManager> WebDavServer::CreateRemoteFileManager(
    int authenticationId) {
    _CheckAccount(authenticationId);
    return shared_from_this();
}

QByteArray WebDavServer::UrlOf(const QString& baseUrl, const QString& serverPath, bool folder) {
    QByteArray url = Normalized(baseUrl).toUtf8();
    for (const QString& part : serverPath.split(QLatin1Char('/'), Qt::SkipEmptyParts))
        url += '/' + QUrl::toPercentEncoding(part);
    if (folder || Normalized(serverPath).isEmpty()) url += '/';
    return url;
}

QByteArray WebDavServer::_Url(const QString& serverPath, bool folder) const {
    return UrlOf(_baseUrl, serverPath, folder);
}

QString WebDavServer::BuildUrl(const sync::config::ServerConfiguration& server,
                               const QString& serverPath) {
    QUrl base(server.baseUrl.trimmed());
    base.setUserInfo(QString());
    const QString baseUrl =
        server.baseUrl.trimmed().isEmpty() ? _baseUrl : base.toString(QUrl::FullyEncoded);
    return QString::fromUtf8(UrlOf(baseUrl, serverPath, false));
}

QString WebDavServer::_ServerPathOf(const QString& hrefPath) const {
    if (hrefPath == _basePath) return QString(QLatin1String(""));
    if (hrefPath.size() > _basePath.size() && hrefPath.startsWith(_basePath) &&
        hrefPath.at(_basePath.size()) == QLatin1Char('/'))
        return hrefPath.mid(_basePath.size());
    return QString();
}

QString WebDavServer::_IdOf(const DavEntry& entry, const QString& serverPath) const {
    return entry.id.isEmpty() ? serverPath : entry.id;
}

void WebDavServer::_Note(const DavResponse& response, const QByteArray& method,
                         const QByteArray& url) {
    if ((response.status == sync::http::TooManyRequests ||
         response.status == sync::http::ServiceUnavailable) &&
        response.retryAfter >= 0)
        _retryAfter = response.retryAfter;
    if (response.Ok()) return;
    _lastError = !response.error.isEmpty()
                     ? response.error
                     : QStringLiteral("%1 %2 answered %3")
                           .arg(QString::fromLatin1(method), WebDavConnection::Shown(url))
                           .arg(response.status);
}

DavResponse WebDavServer::_Perform(const QByteArray& method, const QByteArray& url,
                                   QList<QByteArray> headers) {
    WebDavConnection::Request request;
    request.method = method;
    request.url = url;
    request.headers = std::move(headers);
    const DavResponse r = _connection->Perform(request);
    _Note(r, method, url);
    return r;
}

WebDavServer::RemoteState WebDavServer::_Stat(const QString& serverPath) {
    RemoteState state = _StatOnce(serverPath);
    if (state.status == sync::http::BadRequest && _ThroughFile(serverPath))
        state.status = sync::http::NotFound;
    return state;
}

bool WebDavServer::_ThroughFile(const QString& serverPath) {
    const QStringList parts = Normalized(serverPath).split(QLatin1Char('/'), Qt::SkipEmptyParts);
    QString prefix;
    for (int i = 0; i + 1 < parts.size(); ++i) {
        prefix += QLatin1Char('/') + parts.at(i);
        const RemoteState state = _StatOnce(prefix);
        if (state.status == sync::http::NotFound) return false;
        if (state.status == 0 && !state.entry.collection) return true;
    }
    return false;
}

WebDavServer::RemoteState WebDavServer::_StatOnce(const QString& serverPath) {
    RemoteState state;
    bool seen = false;
    MultistatusParser parser([&](DavEntry& entry) {
        // Only the entry asked about; a server answering with more is not believed further.
        if (!seen) state.entry = entry;
        seen = true;
        return true;
    });
    WebDavConnection::Request request;
    request.method = "PROPFIND";
    request.url = _Url(serverPath);
    request.headers = {"Depth: 0"};
    request.body = PropfindBody(_resourceIds != 0);
    request.sink = [&](const char* data, std::size_t size) { return parser.Feed(data, size); };
    const DavResponse r = _connection->Perform(request);
    _Note(r, request.method, request.url);
    if (parser.ResourceIdMissing()) _resourceIds = 0;
    if (!state.entry.id.isEmpty()) _resourceIds = 1;
    if (r.status == sync::http::NotFound && r.error.isEmpty()) {
        state.status = sync::http::NotFound;
    } else if (!r.Ok() || r.aborted) {
        // A 207 that the parser refused part way is broken off like any cut answer: its status
        // of success must not stand for the failure.
        const bool success = r.status >= 200 && r.status < 300;
        state.status = r.status != 0 && !success ? r.status : kBadGateway;
        if (success && !parser.Error().isEmpty())
            _lastError = QStringLiteral("PROPFIND %1: %2")
                             .arg(WebDavConnection::Shown(request.url), parser.Error());
    } else if (r.status != 207 || !parser.Finish() || !seen) {
        _lastError =
            QStringLiteral("PROPFIND %1: %2")
                .arg(WebDavConnection::Shown(request.url),
                     parser.Error().isEmpty() ? QStringLiteral("no entry") : parser.Error());
        state.status = kBadGateway;
    } else if (state.entry.status != 0 && state.entry.status != 200) {
        state.status = state.entry.status;
    }
    return state;
}

// --- Listings -------------------------------------------------------------------------------

int WebDavServer::GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                                std::shared_ptr<QVector<File>> files) {
    return _List(root, false, folders.get(), files.get());
}

int WebDavServer::GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) {
    return _List(root, true, nullptr, files.get());
}

int WebDavServer::_List(Folder& root, bool directOnly, QVector<Folder>* folders,
                        QVector<File>* files) {
    const QDateTime requestTime = QDateTime::currentDateTimeUtc();
    const QString rootPath = Normalized(root.serverPath);
    const bool listHidden = root.hasSyncOption(sync::config::SyncHiddenEntries);
    const QString& tempName = sync::core::consts::TEMP_FOLDER_NAME;
    const QString& backupName = sync::core::consts::BASE_FOLDER_NAME;

    QVector<Folder> foundFolders;
    // In large blocks, not one growing array: a reallocation would hold the old and the new
    // array of a large listing at once. Blocks this large are mapped memory, which goes back
    // to the system when a block is freed.
    std::vector<std::vector<File>> foundFiles;
    int fileCount = 0;
    std::deque<QString> toWalk;  // folders still to list in a walk with Depth: 1
    bool walking = false;
    bool rootSeen = false;
    bool rootIsFolder = false;
    int entryStatus = 0;
    QString listed;  // the server path of the folder being listed

    const auto take = [&](DavEntry& e) {
        const QString serverPath = _ServerPathOf(e.path);
        if (e.status != 0 && e.status != 200) {
            // A folder the server could not list: its content is unknown, and a tree without it
            // would read as deletions. A 404 here is a folder that vanished during the listing.
            entryStatus = e.status == sync::http::NotFound ? int(sync::http::Conflict) : e.status;
            SYNC_LOG_WARN("Listing %1 failed at %2: status %3", rootPath, serverPath,
                          QString::number(e.status));
            return false;
        }
        if (serverPath.isNull()) return true;
        if (e.undecodable) {
            // Its lossy name would name another entry or none; the local side leaves such
            // names out too, and the user has to rename it.
            SYNC_LOG_WARN("Server entry %1 has a name that is not UTF-8; not listed", e.path);
            return true;
        }
        if (serverPath == listed) {
            if (serverPath == rootPath) {
                rootSeen = true;
                rootIsFolder = e.collection;
            }
            return true;
        }
        if (serverPath.size() <= rootPath.size() + 1 || !serverPath.startsWith(rootPath) ||
            serverPath.at(rootPath.size()) != QLatin1Char('/'))
            return true;
        const QString below = serverPath.mid(rootPath.size() + 1);
        // Hidden entries and the engine's own folders leave out everything below them too.
        int start = 0;
        while (start < below.size()) {
            int end = below.indexOf(QLatin1Char('/'), start);
            if (end < 0) end = below.size();
            const QStringView part = QStringView(below).mid(start, end - start);
            if (part == tempName || part == backupName || IsUploadTemporaryName(part)) return true;
            if (!listHidden && part.startsWith(QLatin1Char('.'))) return true;
            start = end + 1;
        }
        const QString name = below.mid(below.lastIndexOf(QLatin1Char('/')) + 1);
        if (e.collection) {
            if (directOnly) return true;
            Folder f;
            f.name = name;
            f.serverPath = f.path = sync::core::JoinServerPath(root.serverPath, below);
            f.localPath = sync::core::JoinServerPath(root.localPath, below);
            f.setServerFolderId(_IdOf(e, serverPath));
            f.privilegeInfo = FullPrivilegeInfo();
            f.lastModified = e.modified;
            foundFolders.append(f);
            if (walking) toWalk.push_back(serverPath);
        } else {
            File f;
            f.name = name;
            f.serverPath = sync::core::JoinServerPath(root.serverPath, below);
            f.localPath = sync::core::JoinServerPath(root.localPath, below);
            f.size = e.size < 0 ? 0 : e.size;
            // Shared with serverPath when the path is the id: a listing keeps 100,000 of them.
            f.serverFileId =
                e.id.isEmpty() && f.serverPath == serverPath ? f.serverPath : _IdOf(e, serverPath);
            if (!e.etag.isEmpty()) f.properties.insert(kVersionId, VersionOf(e.etag));
            f.privilegeInfo = FullPrivilegeInfo();
            f.lastModified = f.serverModified = e.modified;
            if (foundFiles.empty() || foundFiles.back().size() == kListingBlock) {
                foundFiles.emplace_back();
                foundFiles.back().reserve(kListingBlock);
            }
            foundFiles.back().push_back(std::move(f));
            ++fileCount;
        }
        return true;
    };

    // 0, or the status that ended the listing of one folder.
    const auto propfind = [&](const QString& path, const QByteArray& depth, bool* depthRefused) {
        listed = path;
        MultistatusParser parser(take);
        WebDavConnection::Request request;
        request.method = "PROPFIND";
        request.url = _Url(path, true);
        request.headers = {"Depth: " + depth};
        request.body = PropfindBody(_resourceIds != 0);
        request.sink = [&](const char* data, std::size_t size) { return parser.Feed(data, size); };
        const DavResponse r = _connection->Perform(request);
        _Note(r, request.method, request.url);
        if (entryStatus != 0) return entryStatus;
        if (r.status == sync::http::NotFound && r.error.isEmpty() && !r.aborted)
            return int(sync::http::NotFound);
        if (depthRefused &&
            ((r.status == sync::http::Forbidden && r.errorBody.contains("propfind-finite-depth")) ||
             r.status == sync::http::BadRequest || r.status == 501)) {
            *depthRefused = true;
            return r.status;
        }
        if (r.aborted || (r.Ok() && (r.status != 207 || !parser.Finish()))) {
            // Half a listing is no listing: the entries missing from it would read as deleted.
            _lastError = QStringLiteral("listing %1 broke off: %2")
                             .arg(WebDavConnection::Shown(request.url),
                                  parser.Error().isEmpty() ? r.error : parser.Error());
            SYNC_LOG_WARN("%1", _lastError);
            return kBadGateway;
        }
        return r.Ok() ? 0 : r.status;
    };

    // Whether ids are worth asking for is learnt from one entry, not from every entry of a
    // large listing.
    if (_resourceIds < 0) _StatOnce(rootPath);
    int status = 0;
    if (directOnly) {
        status = propfind(rootPath, "1", nullptr);
    } else {
        bool refused = false;
        status = propfind(rootPath, "infinity", &refused);
        if (refused) {
            SYNC_LOG_INFO("The server lists %1 one level at a time", rootPath);
            foundFolders.clear();
            foundFiles.clear();
            fileCount = 0;
            rootSeen = false;
            walking = true;
            status = propfind(rootPath, "1", nullptr);
            while (status == 0 && !toWalk.empty()) {
                const QString next = toWalk.front();
                toWalk.pop_front();
                status = propfind(next, "1", nullptr);
                // Listed a moment ago and gone now: the tree changes under the walk.
                if (status == sync::http::NotFound) status = sync::http::Conflict;
            }
        }
    }
    if (status != 0) return status;
    if (!rootSeen) {
        // An answer that leaves out the folder asked about says nothing about it, least of all
        // that it is missing: a root taken for missing is created and filled again.
        _lastError = QStringLiteral("the listing of %1 does not name it").arg(rootPath);
        SYNC_LOG_WARN("%1", _lastError);
        return kBadGateway;
    }
    if (!rootIsFolder) return sync::http::NotFound;
    if (folders) *folders += foundFolders;
    if (files) {
        files->reserve(files->size() + fileCount);
        // Each block is freed as soon as its records are over.
        for (std::vector<File>& block : foundFiles) {
            for (const File& f : block) files->append(f);
            std::vector<File>().swap(block);
        }
    }
    root.setLastServerSyncRequestTime(requestTime);
    return 0;
}

// --- Folder operations ----------------------------------------------------------------------

// 0 when a folder is at the path afterwards; else the status.
int WebDavServer::_MakeFolder(const QString& serverPath) {
    // Without the trailing slash: on a file, Apache answers that with 405, with it 400.
    const DavResponse r = _Perform("MKCOL", _Url(serverPath));
    if (r.Ok()) return 0;
    if (r.status == sync::http::BadRequest && r.error.isEmpty() && _ThroughFile(serverPath))
        return sync::http::Conflict;
    if (r.status != 405 || !r.error.isEmpty()) return r.status;
    // 405: something is there already; only a folder will do.
    const RemoteState state = _Stat(serverPath);
    if (state.status != 0) return state.status == sync::http::NotFound ? 409 : state.status;
    return state.entry.collection ? 0 : int(sync::http::Conflict);
}

Results WebDavServer::CreateFolder(Folder& folder, const QString&, bool createParents) {
    Results r;
    const QString path = Normalized(folder.serverPath);
    int status = path.isEmpty() ? 0 : _MakeFolder(path);
    if (status == sync::http::Conflict && createParents) {
        // Each folder on the way, from the top; those already there answer 405.
        const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
        QString prefix;
        status = 0;
        for (const QString& part : parts) {
            prefix += QLatin1Char('/') + part;
            status = _MakeFolder(prefix);
            if (status != 0) break;
        }
    }
    Folder info;
    if (status == 0) {
        try {
            if (!GetFolderInfo(folder, info)) status = sync::http::Conflict;
        } catch (const HttpException& e) {
            status = e.code;
        }
    }
    if (status != 0) {
        SYNC_LOG_WARN("Cannot create server folder %1: status %2 %3", folder.serverPath,
                      QString::number(status), _lastError);
        r.CountFailure(Results::FolderServerCreation, ShownPath(folder), status);
        return r;
    }
    folder.setServerFolderId(info.getServerFolderId());
    folder.privileges = info.privileges;
    folder.privilegeInfo = info.privilegeInfo;
    r.CountDone(Results::FolderServerCreation, ShownPath(folder));
    return r;
}

int WebDavServer::_ListForDeletion(const QString& folderPath, QList<DavEntry>& listed,
                                   QSet<QString>& holders) {
    std::deque<QString> toWalk{folderPath};
    while (!toWalk.empty()) {
        const QString current = toWalk.front();
        toWalk.pop_front();
        int entryStatus = 0;
        const auto keep = [&](const QString& path) {
            for (QString holder = path.left(path.lastIndexOf(QLatin1Char('/')));
                 holder.size() >= folderPath.size();
                 holder = holder.left(holder.lastIndexOf(QLatin1Char('/'))))
                holders.insert(holder);
        };
        MultistatusParser parser([&](DavEntry& e) {
            if (e.status != 0 && e.status != 200) {
                entryStatus = e.status;
                return false;
            }
            const QString serverPath = _ServerPathOf(e.path);
            if (serverPath.isNull() || serverPath == current) return true;
            const QString name = serverPath.mid(serverPath.lastIndexOf(QLatin1Char('/')) + 1);
            // The lossy path of an undecodable entry still names its folder rightly: only
            // folders that decode are walked.
            if (e.undecodable ||
                (name.startsWith(QLatin1Char('.')) && !IsUploadTemporaryName(name))) {
                keep(serverPath);
                return true;
            }
            e.path = serverPath;
            listed.append(e);
            if (e.collection) toWalk.push_back(serverPath);
            return true;
        });
        WebDavConnection::Request request;
        request.method = "PROPFIND";
        request.url = _Url(current, true);
        request.headers = {"Depth: 1"};
        request.body = PropfindBody(false);
        request.sink = [&](const char* data, std::size_t size) { return parser.Feed(data, size); };
        const DavResponse r = _connection->Perform(request);
        _Note(r, request.method, request.url);
        if (entryStatus != 0) return entryStatus;
        if (r.status == sync::http::NotFound && r.error.isEmpty() && !r.aborted)
            return current == folderPath ? int(sync::http::NotFound) : int(sync::http::Conflict);
        if (!r.Ok()) return r.status == 0 ? kBadGateway : r.status;
        if (r.aborted || r.status != 207 || !parser.Finish()) return kBadGateway;
    }
    return 0;
}

Results WebDavServer::DeleteFolder(Folder& folder) {
    if (Normalized(folder.serverPath).isEmpty())
        throw HttpException(sync::http::Forbidden,
                            QStringLiteral("The server's top folder is not deleted"));
    if (_KeepUnknownContent(folder)) {
        Results results;
        results.CountDone(Results::FolderServerDeletion, ShownPath(folder));
        return results;
    }
    const QString folderPath = Normalized(folder.serverPath);
    const QByteArray url = _Url(folder.serverPath, true);
    // DELETE takes everything below the folder, also what no listing shows a client (hidden
    // entries, names that are not UTF-8): that stays, and so do the folders that hold it.
    QList<DavEntry> listed;
    QSet<QString> holders;
    const int listing = _ListForDeletion(folderPath, listed, holders);
    if (listing != 0 && listing != sync::http::NotFound)
        throw HttpException(listing,
                            QStringLiteral("Failed to list server folder %1 before deleting it: %2")
                                .arg(folder.serverPath, _lastError),
                            QUrl(WebDavConnection::Shown(url)));
    if (!holders.isEmpty()) {
        for (const DavEntry& e : listed) {
            // Entries of a folder that stays go one by one; any other folder goes whole.
            if (holders.contains(e.path) ||
                !holders.contains(e.path.left(e.path.lastIndexOf(QLatin1Char('/')))))
                continue;
            const DavResponse r = _Perform("DELETE", _Url(e.path, e.collection));
            if (!r.Ok() && !(r.status == sync::http::NotFound && r.error.isEmpty()))
                throw HttpException(
                    r.status == 0 ? kBadGateway : r.status,
                    QStringLiteral("Failed to delete server entry %1: %2").arg(e.path, _lastError),
                    QUrl(WebDavConnection::Shown(url)));
        }
        SYNC_LOG_WARN(
            "Kept server folder %1: it holds entries that are never synced (hidden "
            "entries, names that are not UTF-8)",
            folder.serverPath);
        Results results;
        results.CountDone(Results::FolderServerDeletion, ShownPath(folder));
        return results;
    }
    const DavResponse r = _Perform("DELETE", url);
    bool gone = r.Ok() || (r.status == sync::http::NotFound && r.error.isEmpty());
    if (!gone && r.status == sync::http::BadRequest && r.error.isEmpty()) {
        // Apache answers 400 for a folder URL that names a file or leads through one: no
        // folder is there.
        const RemoteState state = _Stat(folder.serverPath);
        gone =
            state.status == sync::http::NotFound || (state.status == 0 && !state.entry.collection);
    }
    if (!gone)
        throw HttpException(r.status == 0 ? kBadGateway : r.status,
                            QStringLiteral("Failed to delete server folder %1: %2")
                                .arg(folder.serverPath, _lastError),
                            QUrl(WebDavConnection::Shown(url)));
    Results results;
    results.CountDone(Results::FolderServerDeletion, ShownPath(folder));
    return results;
}

bool WebDavServer::_KeepUnknownContent(const Folder& folder) {
    if (!_database) return false;
    // Hidden entries too: they are content that this machine may not synchronise.
    Folder scope = folder;
    scope.setSyncOption(folder.getSyncOption() | sync::config::SyncHiddenEntries);
    QVector<Folder> folders;
    QVector<File> files;
    const int listed = _List(scope, false, &folders, &files);
    if (listed == sync::http::NotFound) return false;
    if (listed != 0)
        throw HttpException(listed, QStringLiteral("Failed to list server folder %1: %2")
                                        .arg(folder.serverPath, _lastError));
    // This machine knows a file when it synchronised that very name and version.
    const auto known = [&](const File& f) {
        const File record = _database->GetFileByPath(f.localPath, folder.authenticationId);
        const QString tag = record.properties.value(kVersionId);
        return record.id > 0 && Normalized(record.serverPath) == Normalized(f.serverPath) &&
               (tag.isEmpty() || SameTag(tag, f.properties.value(kVersionId)));
    };
    QStringList kept;
    for (const File& f : files)
        if (!known(f)) kept << Normalized(f.serverPath);
    if (kept.isEmpty()) return false;
    // The rest goes: known files first, then the folders that keep nothing, deepest first.
    for (File& f : files)
        if (!kept.contains(Normalized(f.serverPath)) && _Delete(f) != 0)
            kept << Normalized(f.serverPath);
    std::sort(folders.begin(), folders.end(), [](const Folder& a, const Folder& b) {
        return a.serverPath.size() > b.serverPath.size();
    });
    for (const Folder& sub : folders) {
        const QString path = Normalized(sub.serverPath);
        const bool keeps = std::any_of(kept.cbegin(), kept.cend(), [&](const QString& k) {
            return k.startsWith(path + QLatin1Char('/'));
        });
        if (keeps) continue;
        // As any folder deletion: what no listing shows stays.
        Folder gone = sub;
        gone.authenticationId = folder.authenticationId;
        DeleteFolder(gone);
    }
    SYNC_LOG_WARN(
        "Server folder %1 is kept: it holds %2 file(s) that this machine never synchronised "
        "or that changed since, such as %3",
        folder.serverPath, QString::number(kept.size()), kept.first());
    return true;
}

bool WebDavServer::_OtherSpellingExists(const QString& serverPath) {
    const int slash = serverPath.lastIndexOf(QLatin1Char('/'));
    const QString name = serverPath.mid(slash + 1);
    const QString wanted = name.toCaseFolded();
    Folder parent;
    parent.serverPath = serverPath.left(std::max(slash, 0));
    parent.setSyncOption(parent.getSyncOption() | sync::config::SyncHiddenEntries);
    QVector<Folder> folders;
    QVector<File> files;
    if (_List(parent, true, &folders, &files) != 0) return true;
    const auto other = [&](const QString& path) {
        const QString normal = Normalized(path);
        const QString entry = normal.mid(normal.lastIndexOf(QLatin1Char('/')) + 1);
        return entry != name && entry.toCaseFolded() == wanted;
    };
    for (const File& file : files)
        if (other(file.serverPath)) return true;
    for (const Folder& folder : folders)
        if (other(folder.serverPath)) return true;
    return false;
}

bool WebDavServer::GetFolderInfo(const Folder& folder, Folder& info) {
    const QString path = Normalized(folder.serverPath);
    const RemoteState state = _Stat(path);
    if (state.status == sync::http::NotFound) return false;
    if (state.status != 0)
        throw HttpException(state.status, QStringLiteral("Failed to read server folder %1: %2")
                                              .arg(folder.serverPath, _lastError));
    if (!state.entry.collection) return false;
    info.setServerFolderId(_IdOf(state.entry, path));
    info.privileges = Folder().privileges;
    info.privilegeInfo = FullPrivilegeInfo();
    return true;
}

// --- Transfers ------------------------------------------------------------------------------

void WebDavServer::_StoreRecord(File& record) {
    if (!_database) return;
    if (record.id > 0)
        _database->UpdateFile(record);
    else
        _database->AddFile(record);
}

namespace {

// The server's side of a record: what a listing would show of the entry now.
void SetServerFields(File& f, const QString& id, const QString& etag, const QDateTime& modified) {
    f.serverFileId = id;
    f.serverChecksum.clear();
    f.properties.remove(kVersion);
    if (etag.isEmpty())
        f.properties.remove(kVersionId);
    else
        f.properties.insert(kVersionId, VersionOf(etag));
    f.privileges = File().privileges;
    f.privilegeInfo = FullPrivilegeInfo();
    f.serverModified = modified;
}

}  // namespace

Results WebDavServer::UploadFiles(const sync::config::ServerConfiguration&, const Folder&,
                                  QList<File>& files) {
    Results r;
    std::vector<UploadedFile> uploaded;
    for (File& f : files) {
        int status = 0;
        _lastError.clear();
        struct stat read;
        if (_Upload(f, status, &read)) {
            uploaded.emplace_back(&f, read);
            r.CountDone(Results::FileServerCreation, ShownPath(f));
            continue;
        }
        SYNC_LOG_WARN("Upload of %1 to %2 failed: status %3 %4", f.localPath, f.serverPath,
                      QString::number(status), _lastError);
        f.syncStatus = FileSynchronizationStatus::OutOfSync;
        if (_database && f.id > 0) ForgetUnsynchronised(f, LastSynchronised(*_database, f));
        _StoreRecord(f);
        r.CountFailure(Results::FileServerCreation, ShownPath(f), status);
    }
    SettleTimesOfRecentFiles(uploaded);
    // One commit for the batch: a commit per record is most of the cost of uploading many
    // small files.
    sync::database::TransactionalScope scope;
    for (const UploadedFile& file : uploaded) _StoreRecord(*file.first);
    scope.commit();
    return r;
}

bool WebDavServer::_Upload(File& f, int& status, struct stat* read) {
    status = 0;
    const QString serverPath = Normalized(f.serverPath);
    const FdCloser local(
        ::open(QFile::encodeName(f.localPath).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat before;
    if (local.fd < 0 || ::fstat(local.fd, &before) != 0 || !S_ISREG(before.st_mode)) {
        SYNC_LOG_WARN("Cannot read %1 for upload", f.localPath);
        return false;
    }
    const qint64 size = qint64(before.st_size);
    const auto unchanged = [&] {
        struct stat now;
        return ::fstat(local.fd, &now) == 0 && SameStamp(before, now);
    };
    const auto settle = [&](const DavEntry& entry, const QString& hash) {
        SetServerFields(f, _IdOf(entry, serverPath), entry.etag, entry.modified);
        f.size = size;
        f.lastModified = WholeSecondsOf(before);
        if (read) *read = before;
        f.checksum = hash;
        f.syncStatus = FileSynchronizationStatus::Synchronized;
        f.referencesOnly = 0;
        f.transferPending = false;
        return true;
    };

    RemoteState server = _Stat(serverPath);
    if (server.status != 0 && server.status != sync::http::NotFound) {
        status = server.status;
        return false;
    }
    const bool exists = server.status == 0;
    if (exists && server.entry.collection) {
        status = sync::http::Conflict;
        return false;
    }

    if (exists && server.entry.size == size) {
        // Same size: compare the bytes as they come back, and send nothing when they agree.
        sync::core::Sha256 localHash;
        std::vector<char> block;
        qint64 offset = 0;
        bool same = true;
        WebDavConnection::Request request;
        request.method = "GET";
        request.url = _Url(serverPath);
        request.stoppable = true;
        request.sink = [&](const char* data, std::size_t length) {
            if (block.size() < length) block.resize(std::max(length, kCompareBlockBytes));
            const ssize_t n = ::pread(local.fd, block.data(), length, offset);
            if (n != ssize_t(length) || std::memcmp(block.data(), data, length) != 0) {
                same = false;
                return false;
            }
            localHash.Add(data, length);
            offset += qint64(length);
            return true;
        };
        const DavResponse r = _connection->Perform(request);
        _Note(r, request.method, request.url);
        if (_stopRequested) {
            _stopRequested = false;
            return false;
        }
        if (same && r.Ok() && offset == size && unchanged() &&
            (r.etag.isEmpty() || SameTag(QString::fromLatin1(r.etag), server.entry.etag)))
            return settle(server.entry, localHash.HexResult());
    }

    QList<QByteArray> headers;
    const QString recorded = f.properties.value(kVersionId);
    if (f.serverFileId.isEmpty() || !exists) {
        // Never seen by this client, or deleted on the server: a local edit outlives a server
        // deletion, so it goes up as a new file, but only where no file is (nor one whose name
        // differs only in case: names are paired regardless of case).
        if (exists || (!f.serverFileId.isEmpty() && _OtherSpellingExists(serverPath))) {
            status = sync::http::PreconditionFailed;
            return false;
        }
        headers << "If-None-Match: *";
    } else {
        const QString current = server.entry.etag;
        if (!recorded.isEmpty() && !SameTag(recorded, current)) {
            // Changed since it was planned: the next cycle sees the new version first.
            status = sync::http::PreconditionFailed;
            return false;
        }
        // The record names the version the engine planned against; the database still names
        // the one last synchronised. When they differ, both sides changed the file: the
        // server's version, which this client never synchronised, is kept beside it. A file
        // both sides added was never synchronised in any version; the planner marks every file
        // changed on both sides with the server's "version".
        const File last = _database ? LastSynchronised(*_database, f) : File();
        const QString synchronised = last.properties.value(kVersionId);
        if (f.properties.contains(kVersion) || (_database && last.id <= 0) ||
            (!synchronised.isEmpty() && !SameTag(synchronised, current))) {
            const QString name = serverPath.mid(serverPath.lastIndexOf(QLatin1Char('/')) + 1);
            const QString folder = serverPath.left(serverPath.lastIndexOf(QLatin1Char('/')));
            // Named after the version's time, not the moment: a run that dies after keeping
            // the copy and before the upload finds it again under the same name and keeps it
            // only once.
            const QDateTime when = server.entry.modified.isValid()
                                       ? server.entry.modified.toLocalTime()
                                       : QDateTime::currentDateTime();
            int copyStatus = 0;
            for (int attempt = 0; attempt < 5; ++attempt) {
                const QString copy =
                    folder + QLatin1Char('/') + ConflictCopyName(name, when, attempt + 1);
                const DavResponse r =
                    _Perform("COPY", _Url(serverPath),
                             {"Destination: " + _Url(copy), "Overwrite: F", "Depth: 0"});
                copyStatus = r.Ok() ? 0 : r.status;
                if (copyStatus == sync::http::PreconditionFailed &&
                    _HoldsTheSameBytes(copy, serverPath, server.entry.size)) {
                    SYNC_LOG_INFO("Server version of %1 is kept as %2 already", serverPath, copy);
                    copyStatus = 0;
                    break;
                }
                if (copyStatus != sync::http::PreconditionFailed) {
                    if (copyStatus == 0)
                        SYNC_LOG_INFO("Server version of %1 kept as %2", serverPath, copy);
                    break;
                }
            }
            if (copyStatus != 0) {
                status = copyStatus;
                return false;
            }
        }
        // A weak tag is no precondition (it never matches); it was compared just now instead.
        if (!current.isEmpty() && !IsWeak(current)) headers << "If-Match: " + current.toUtf8();
    }

    // Small bodies go at once: waiting for "100 Continue" would cost a round trip per file
    // for little gain; a refused large body is better not sent at all.
    if (size < kExpectContinueBytes) headers << "Expect:";
    sync::core::Sha256 hash;
    qint64 sent = 0;
    bool changed = false;
    WebDavConnection::Request request;
    request.method = "PUT";
    request.url = _Url(serverPath);
    request.headers = headers;
    request.stoppable = true;
    request.sourceSize = size;
    request.source = [&](char* buffer, std::size_t room) -> qint64 {
        const qint64 wanted = std::min<qint64>(qint64(room), size - sent);
        if (wanted == 0) return 0;
        ssize_t n;
        do {
            n = ::read(local.fd, buffer, std::size_t(wanted));
        } while (n < 0 && errno == EINTR);
        if (n <= 0) {
            // Shorter than when the upload began.
            changed = true;
            return -1;
        }
        hash.Add(buffer, std::size_t(n));
        sent += n;
        if (_progress) _progress(f.localPath, sent, size);
        // Before the last bytes leave: a file written during the upload is not stored as if
        // it were one version of it.
        if (sent == size && !unchanged()) {
            changed = true;
            return -1;
        }
        return n;
    };
    request.rewind = [&] {
        if (::lseek(local.fd, 0, SEEK_SET) != 0) return false;
        hash.Reset();
        sent = 0;
        return true;
    };
    const DavResponse r = _connection->Perform(request);
    _Note(r, request.method, request.url);
    if (_stopRequested) {
        _stopRequested = false;
        return false;
    }
    if (changed || (r.Ok() && !unchanged())) {
        status = sync::http::Conflict;
        return false;
    }
    if (!r.Ok()) {
        status = r.status == 0 ? kBadGateway : r.status;
        // A missing parent answers 409; a parent that is a file is the same conflict.
        if (status == sync::http::BadRequest && r.error.isEmpty() && _ThroughFile(serverPath))
            status = sync::http::Conflict;
        return false;
    }
    const QString digest = hash.HexResult();
    // The answer to PUT carries no tag on every server; the entry as it is now does.
    const RemoteState stored = _Stat(serverPath);
    if (stored.status != 0) {
        SYNC_LOG_WARN("Uploaded %1 but cannot read its version: status %2", serverPath,
                      QString::number(stored.status));
        DavEntry entry;
        entry.etag = QString::fromLatin1(r.etag);
        return settle(entry, digest);
    }
    return settle(stored.entry, digest);
}

Results WebDavServer::DownloadFiles(const sync::config::ServerConfiguration&, const Folder& root,
                                    QList<sync::thread::SynchronizedFileConfiguration>& files) {
    Results r;
    for (sync::thread::SynchronizedFileConfiguration& pair : files) {
        File& record = pair.databaseRecord;
        const QString target =
            pair.serverRecord.localPath.isEmpty() ? record.localPath : pair.serverRecord.localPath;
        int status = 0;
        _lastError.clear();
        if (_Download(pair, target, root, status)) {
            _StoreRecord(record);
            r.CountDone(Results::FileLocalCreation, target);
            continue;
        }
        SYNC_LOG_WARN("Download of %1 to %2 failed: status %3 %4", pair.serverRecord.serverPath,
                      target, QString::number(status), _lastError);
        pair.serverRecord.syncStatus = record.syncStatus = FileSynchronizationStatus::OutOfSync;
        _StoreRecord(record);
        r.CountFailure(Results::FileLocalCreation, target, status);
    }
    return r;
}

bool WebDavServer::_Download(sync::thread::SynchronizedFileConfiguration& pair,
                             const QString& target, const Folder& root, int& status) {
    status = 0;
    File& f = pair.serverRecord;
    File& record = pair.databaseRecord;
    const QString serverPath =
        Normalized(f.serverPath.isEmpty() ? record.serverPath : f.serverPath);
    const QString temporary = sync::core::QFileWrapper(target).GetTemporaryFile(root.localPath);
    const QByteArray nativeTemporary = QFile::encodeName(temporary);
    const QByteArray nativeTarget = QFile::encodeName(target);
    if (!QDir().mkpath(QFileInfo(temporary).absolutePath())) {
        SYNC_LOG_WARN("Cannot create the temporary folder for %1", target);
        return false;
    }
    const FdCloser out(
        ::open(nativeTemporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (out.fd < 0) {
        SYNC_LOG_WARN("Cannot write %1: %2", temporary, ErrorText(errno));
        return false;
    }
    bool renamed = false;
    struct Remover {
        const QByteArray& path;
        const bool& renamed;
        ~Remover() {
            if (!renamed) ::unlink(path.constData());
        }
    } remover{nativeTemporary, renamed};

    sync::core::Sha256 hash;
    qint64 total = 0;
    int writeError = 0;
    WebDavConnection::Request request;
    request.method = "GET";
    request.url = _Url(serverPath);
    request.stoppable = true;
    request.sink = [&](const char* data, std::size_t size) {
        hash.Add(data, size);
        if (!WriteAll(out.fd, data, size)) {
            writeError = errno;
            return false;
        }
        total += qint64(size);
        if (_progress) _progress(target, total, std::max(f.size, total));
        return true;
    };
    const DavResponse r = _connection->Perform(request);
    _Note(r, request.method, request.url);
    if (_stopRequested) {
        _stopRequested = false;
        return false;
    }
    if (writeError != 0) {
        SYNC_LOG_WARN("Cannot write %1: %2", temporary, ErrorText(writeError));
        return false;
    }
    if (!r.Ok()) {
        status = r.status == 0 ? kBadGateway : r.status;
        if (status == sync::http::BadRequest && r.error.isEmpty() && _ThroughFile(serverPath))
            status = sync::http::NotFound;
        return false;
    }
    if (r.contentLength >= 0 && total != r.contentLength) {
        _lastError = QStringLiteral("%1 arrived with %2 of %3 bytes")
                         .arg(serverPath)
                         .arg(total)
                         .arg(r.contentLength);
        status = kBadGateway;
        return false;
    }
    // The local file carries the server's time, as a copy keeps it.
    if (r.lastModified.isValid()) {
        const struct timespec times[2] = {{0, UTIME_OMIT},
                                          {time_t(r.lastModified.toSecsSinceEpoch()), 0}};
        ::futimens(out.fd, times);
    }
    if (::fsync(out.fd) != 0) {
        SYNC_LOG_WARN("Cannot write %1: %2", temporary, ErrorText(errno));
        return false;
    }
    const QString downloadedHash = hash.HexResult();

    // The local file must still be the one planned.
    switch (JudgeLocalTarget(target, record, total, downloadedHash)) {
        case LocalTarget::Replaceable:
            break;
        case LocalTarget::Edited:
            status = sync::http::Conflict;
            return false;
        case LocalTarget::Unreadable:
            return false;
    }
    if (::rename(nativeTemporary.constData(), nativeTarget.constData()) != 0) {
        SYNC_LOG_WARN("Cannot move the download into %1: %2", target, ErrorText(errno));
        return false;
    }
    renamed = true;
    {
        const FdCloser folder(
            ::open(QFile::encodeName(QFileInfo(target).absolutePath()).constData(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.fd >= 0) ::fsync(folder.fd);
    }
    struct stat written;
    if (::fstat(out.fd, &written) != 0) return false;

    const QString etag = QString::fromLatin1(r.etag);
    const QString id = f.serverFileId.isEmpty() ? serverPath : f.serverFileId;
    // A checksum from the listing describes the version downloaded only if nothing came since.
    const QString checksum =
        SameTag(etag, f.properties.value(kVersionId)) ? f.serverChecksum : QString();
    SetServerFields(f, id, etag, r.lastModified);
    f.serverChecksum = checksum;
    f.size = total;
    f.lastModified = r.lastModified;
    f.syncStatus = FileSynchronizationStatus::Synchronized;
    // The record now describes the file on the disk and the server version it came from.
    SetServerFields(record, id, etag, r.lastModified);
    record.serverChecksum = checksum;
    record.size = total;
    record.lastModified = WholeSecondsOf(written);
    record.checksum = downloadedHash;
    record.syncStatus = FileSynchronizationStatus::Synchronized;
    record.referencesOnly = 0;
    record.transferPending = false;
    // No transfer is under way any more. A record still naming a download would read, once
    // marked synchronising for a later task and left so by a run that died, as a download cut
    // short: the next run drops such a record when the local file is gone, and brings back a
    // file the user deleted.
    record.transferDirection = sync::config::TransferNone;
    return true;
}

bool WebDavServer::_HoldsTheSameBytes(const QString& copy, const QString& original, qint64 size) {
    const RemoteState state = _Stat(copy);
    if (state.status != 0 || state.entry.collection || state.entry.size != size) return false;
    const auto hashOf = [this](const QString& serverPath) {
        sync::core::Sha256 hash;
        WebDavConnection::Request request;
        request.method = "GET";
        request.url = _Url(serverPath);
        request.sink = [&hash](const char* data, std::size_t length) {
            hash.Add(data, length);
            return true;
        };
        const DavResponse r = _connection->Perform(request);
        _Note(r, request.method, request.url);
        return r.Ok() ? hash.HexResult() : QString();
    };
    const QString kept = hashOf(copy);
    return !kept.isEmpty() && kept == hashOf(original);
}

// 0 when the file is gone afterwards; else the status.
int WebDavServer::_Delete(const File& f) {
    const QString serverPath = Normalized(f.serverPath);
    if (serverPath.isEmpty()) return sync::http::Conflict;
    const QString recorded = f.properties.value(kVersionId);
    QString precondition;  // the tag to send
    // Asks the server; the status that settles the deletion, or -1 to go on.
    const auto look = [&]() -> int {
        const RemoteState state = _Stat(serverPath);
        if (state.status == sync::http::NotFound) return 0;
        if (state.status != 0) return state.status;
        if (state.entry.collection) return sync::http::Conflict;
        if (!recorded.isEmpty() && !SameTag(recorded, state.entry.etag))
            return sync::http::PreconditionFailed;
        // A weak tag never matches; it was compared just now instead.
        precondition = IsWeak(state.entry.etag) ? QString() : state.entry.etag;
        return -1;
    };
    const auto remove = [&] {
        QList<QByteArray> headers;
        if (!precondition.isEmpty()) headers << "If-Match: " + precondition.toUtf8();
        return _Perform("DELETE", _Url(serverPath), headers);
    };
    bool looked = false;
    if (recorded.isEmpty() || IsWeak(recorded)) {
        // No tag to send: look first, so that neither a folder nor a changed file goes.
        looked = true;
        if (const int settled = look(); settled >= 0) return settled;
    } else {
        precondition = recorded;
    }
    DavResponse r = remove();
    if (r.status == sync::http::PreconditionFailed && !looked) {
        // The recorded version may be the server's, its tag marked weak for the moment.
        if (const int settled = look(); settled >= 0) return settled;
        r = remove();
    }
    if (r.Ok() || (r.status == sync::http::NotFound && r.error.isEmpty())) return 0;
    if (r.status == sync::http::BadRequest && r.error.isEmpty() && _ThroughFile(serverPath))
        return 0;
    return r.status == 0 ? kBadGateway : r.status;
}

Results WebDavServer::DeleteFiles(const Folder&, QList<File>& files) {
    Results r;
    for (File& f : files) {
        _lastError.clear();
        const int status = _Delete(f);
        if (status != 0) {
            // 412: changed on the server since it was planned; the next cycle brings it down.
            SYNC_LOG_WARN("Cannot delete server file %1: status %2 %3", f.serverPath,
                          QString::number(status), _lastError);
            r.CountFailure(Results::FileServerDeletion, ShownPath(f), status);
            continue;
        }
        if (_database && f.id > 0) _database->RemoveFile(f.id);
        r.CountDone(Results::FileServerDeletion, ShownPath(f));
    }
    return r;
}

}  // namespace remote
}  // namespace sync
