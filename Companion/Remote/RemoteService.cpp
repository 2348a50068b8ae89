#include "RemoteService.h"

#include <QUrl>
#include <algorithm>

#include "HttpException.h"
#include "LocalFolderServer.h"
#include "SyncCodes.h"
#include "WebDavServer.h"

namespace sync {
namespace remote {

using sync::config::ServerConfiguration;
using sync::http::HttpException;

RemoteService::RemoteService(std::shared_ptr<sync::interf::IServerConfigManager> accounts,
                             std::shared_ptr<sync::interf::IFileConfigManager> files,
                             PasswordSource passwords, BackendMaker makeBackend)
    : _accounts(std::move(accounts)),
      _files(std::move(files)),
      _passwords(std::move(passwords)),
      _makeBackend(makeBackend ? std::move(makeBackend)
                               : BackendMaker(&RemoteService::MakeBackend)) {}

RemoteService::~RemoteService() = default;

QString RemoteService::KindOf(const QString& url) {
    const QString text = url.trimmed();
    if (text.isEmpty()) return QString();
    if (text.startsWith(QLatin1Char('/')) ||
        text.startsWith(QLatin1String("file:"), Qt::CaseInsensitive))
        return QStringLiteral("local");
    const QString scheme = QUrl(text).scheme().toLower();
    if (scheme == QLatin1String("http") || scheme == QLatin1String("https"))
        return QStringLiteral("webdav");
    return QString();
}

std::shared_ptr<RemoteBackend> RemoteService::MakeBackend(const ServerConfiguration& account,
                                                          const PasswordSource& passwords) {
    const QString kind = KindOf(account.baseUrl);
    if (kind == QLatin1String("local")) {
        const QString directory = LocalFolderServer::DirectoryOf(account);
        return std::make_shared<LocalFolderServer>(directory, account.id);
    }
    if (kind == QLatin1String("webdav"))
        return std::make_shared<WebDavServer>(account, passwords ? passwords(account) : QString(),
                                              account.id);
    // Only the scheme is named: the URL may carry credentials.
    throw HttpException(sync::http::BadRequest,
                        QStringLiteral("No server backend for URLs of scheme \"%1\"")
                            .arg(QUrl(account.baseUrl).scheme()));
}

void RemoteService::SetExitChecker(std::shared_ptr<sync::interf::ICheckForExit> exitChecker) {
    _exitChecker = std::move(exitChecker);
    for (auto& entry : _backends) entry.backend->SetExitChecker(_exitChecker);
}

void RemoteService::SetProgressListener(RemoteBackend::ProgressListener listener) {
    _progress = std::move(listener);
    for (auto& entry : _backends) entry.backend->SetProgressListener(_progress);
}

int RemoteService::RetryAfterSeconds() const {
    int seconds = -1;
    for (const auto& entry : _backends)
        seconds = std::max(seconds, entry.backend->RetryAfterSeconds());
    return seconds;
}

std::shared_ptr<RemoteBackend> RemoteService::_Backend(const ServerConfiguration& account) {
    auto it = _backends.find(account.id);
    // A changed account (a new URL or user) gets a new backend: the old one's connections and
    // credentials belong to the old server.
    if (it != _backends.end() && it->account == account) return it->backend;
    Entry entry;
    entry.account = account;
    entry.backend = _makeBackend(account, _passwords);
    entry.backend->SetDatabase(_files);
    entry.backend->SetExitChecker(_exitChecker);
    entry.backend->SetProgressListener(_progress);
    std::shared_ptr<ServerPause>& pause = _pauses[account.id];
    if (!pause) pause = std::make_shared<ServerPause>();
    entry.backend->SetServerPause(pause);
    _backends.insert(account.id, entry);
    return entry.backend;
}

std::shared_ptr<RemoteBackend> RemoteService::Backend(int authenticationId) {
    const ServerConfiguration account = _accounts->GetServerConfiguration(authenticationId);
    if (account.id < 0)
        throw HttpException(sync::http::Unauthorized,
                            QStringLiteral("Unknown account %1").arg(authenticationId));
    return _Backend(account);
}

std::shared_ptr<sync::interf::IRemoteFolderManager> RemoteService::CreateRemoteFolderManager(
    int authenticationId) {
    return Backend(authenticationId)->CreateRemoteFolderManager(authenticationId);
}

std::shared_ptr<sync::interf::IRemoteFileManager> RemoteService::CreateRemoteFileManager(
    int authenticationId) {
    return Backend(authenticationId)->CreateRemoteFileManager(authenticationId);
}

sync::core::SyncResults RemoteService::UploadFiles(const ServerConfiguration& server,
                                                   const sync::config::FolderConfiguration& root,
                                                   QList<sync::config::FileConfiguration>& files) {
    return Backend(server.id >= 0 ? server.id : root.authenticationId)
        ->UploadFiles(server, root, files);
}

sync::core::SyncResults RemoteService::DownloadFiles(
    const ServerConfiguration& server, const sync::config::FolderConfiguration& root,
    QList<sync::thread::SynchronizedFileConfiguration>& files) {
    return Backend(server.id >= 0 ? server.id : root.authenticationId)
        ->DownloadFiles(server, root, files);
}

sync::core::SyncResults RemoteService::DeleteFiles(const sync::config::FolderConfiguration& root,
                                                   QList<sync::config::FileConfiguration>& files) {
    return Backend(root.authenticationId)->DeleteFiles(root, files);
}

QString RemoteService::BuildUrl(const ServerConfiguration& server, const QString& serverPath) {
    return Backend(server.id)->BuildUrl(server, serverPath);
}

int RemoteService::ValidateCredentials(int authenticationId) {
    try {
        sync::config::FolderConfiguration top;
        top.authenticationId = authenticationId;
        top.serverPath = top.path = QStringLiteral("/");
        sync::config::FolderConfiguration info;
        return Backend(authenticationId)->GetFolderInfo(top, info) ? 0 : sync::http::NotFound;
    } catch (const HttpException& e) {
        return e.code;
    }
}

}  // namespace remote
}  // namespace sync
