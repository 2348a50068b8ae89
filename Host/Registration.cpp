#include "Registration.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

#include "HttpException.h"
#include "SyncCodes.h"
#include "SyncEnums.h"

namespace sync {
namespace host {

using sync::config::FolderConfiguration;
using sync::config::ServerConfiguration;

namespace {

// One path inside the other (or the same): syncing them as two roots would sync a folder
// into itself.
bool Overlap(const QString& a, const QString& b) {
    const QString x = a.endsWith(QLatin1Char('/')) ? a : a + QLatin1Char('/');
    const QString y = b.endsWith(QLatin1Char('/')) ? b : b + QLatin1Char('/');
    return x.startsWith(y) || y.startsWith(x);
}

QString CleanUrl(const QString& url) {
    QString text = url.trimmed();
    while (text.size() > 1 && text.endsWith(QLatin1Char('/'))) text.chop(1);
    return text;
}

}  // namespace

int Registration::_Fail(const QString& error) {
    _error = error;
    return -1;
}

QString Registration::Shown(const QString& url) {
    if (sync::remote::RemoteService::KindOf(url) != QLatin1String("webdav")) return url;
    return QUrl(url).toString(QUrl::RemoveUserInfo);
}

void Registration::Split(const QString& remote, QString& url, QString& serverPath) {
    url.clear();
    serverPath.clear();
    const QString kind = sync::remote::RemoteService::KindOf(remote);
    if (kind == QLatin1String("local")) {
        QString path = remote.trimmed();
        if (path.startsWith(QLatin1String("file:"), Qt::CaseInsensitive))
            path = QUrl(path).toLocalFile();
        path = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
        const QFileInfo info(path);
        if (info.fileName().isEmpty()) return;  // the file system's root has no parent
        url = info.absolutePath();
        serverPath = QLatin1Char('/') + info.fileName();
    } else if (kind == QLatin1String("webdav")) {
        QUrl parsed(CleanUrl(remote));
        QString path = parsed.path();
        const int slash = path.lastIndexOf(QLatin1Char('/'));
        if (slash < 0 || slash + 1 >= path.size()) return;
        serverPath = path.mid(slash);
        parsed.setPath(path.left(slash));
        url = parsed.toString(QUrl::RemoveUserInfo);
    }
}

int Registration::Register(const QString& local, const QString& remote,
                           const Credentials& credentials) {
    _added = false;
    const QFileInfo localInfo(local);
    const QString localPath = QDir::cleanPath(localInfo.absoluteFilePath());
    if (!localInfo.exists()) return _Fail(QStringLiteral("%1 does not exist").arg(localPath));
    if (!localInfo.isDir()) return _Fail(QStringLiteral("%1 is not a folder").arg(localPath));
    if (!localInfo.isReadable() || !localInfo.isExecutable())
        return _Fail(QStringLiteral("%1 cannot be read").arg(localPath));

    QString url, serverPath;
    Split(remote, url, serverPath);
    if (url.isEmpty())
        return _Fail(
            QStringLiteral("%1 names no server folder: give a folder path, a file:// URL or an "
                           "http(s):// URL of a folder")
                .arg(Shown(remote)));
    const bool localServer = sync::remote::RemoteService::KindOf(url) == QLatin1String("local");
    if (localServer && Overlap(url + serverPath, localPath))
        return _Fail(QStringLiteral("%1 and %2 overlap: a folder cannot be synced into itself")
                         .arg(localPath, url + serverPath));

    // The pair against the registered root folders.
    const auto accounts = _setup.accounts->GetAccounts();
    auto accountOf = [&](int id) {
        for (const auto& a : accounts)
            if (a.id == id) return a;
        return ServerConfiguration();
    };
    for (const FolderConfiguration& root : _setup.folders->GetRootFolders()) {
        const ServerConfiguration account = accountOf(root.authenticationId);
        const bool sameServer = CleanUrl(account.baseUrl) == url;
        if (root.localPath == localPath) {
            if (sameServer && root.serverPath == serverPath) return root.id;
            return _Fail(QStringLiteral("%1 is already synced with %2")
                             .arg(localPath, Shown(account.baseUrl) + root.serverPath));
        }
        if (Overlap(root.localPath, localPath))
            return _Fail(
                QStringLiteral("%1 overlaps the synced folder %2").arg(localPath, root.localPath));
        if (sameServer && Overlap(root.serverPath, serverPath))
            return _Fail(
                QStringLiteral("%1 overlaps the server folder %2 of %3")
                    .arg(Shown(url) + serverPath, Shown(url) + root.serverPath, root.localPath));
    }

    ServerConfiguration account;
    for (const auto& a : accounts)
        if (CleanUrl(a.baseUrl) == url) account = a;
    const bool newAccount = account.id < 0;
    if (newAccount) {
        account.kind = sync::remote::RemoteService::KindOf(url);
        account.baseUrl = url;
        account.name = Shown(url);
        account.userName = credentials.user.isEmpty() ? QUrl(remote).userName() : credentials.user;
        for (const auto& setting :
             {std::make_pair(QStringLiteral("passwordFile"), credentials.passwordFile),
              std::make_pair(QStringLiteral("caFile"), credentials.caFile)}) {
            if (setting.second.isEmpty()) continue;
            const QFileInfo file(setting.second);
            if (!file.isFile() || !file.isReadable())
                return _Fail(QStringLiteral("%1 cannot be read").arg(setting.second));
            account.settings.insert(setting.first, file.absoluteFilePath());
        }
    }

    // The server must answer before anything is written.
    const bool check = !(_trial && localServer && !QFileInfo(url).isDir());
    if (!_trial && localServer && !QDir().mkpath(url))
        return _Fail(QStringLiteral("cannot create the server folder %1").arg(url));
    if (check) {
        try {
            auto backend =
                sync::remote::RemoteService::MakeBackend(account, &HostSetup::PasswordOf);
            FolderConfiguration top, info;
            top.authenticationId = account.id;
            top.serverPath = top.path = QStringLiteral("/");
            if (!backend->GetFolderInfo(top, info))
                return _Fail(QStringLiteral("%1 does not exist on the server").arg(Shown(url)));
        } catch (const sync::http::HttpException& e) {
            if (e.code == sync::http::Unauthorized || e.code == sync::http::Forbidden)
                return _Fail(QStringLiteral("the server %1 refused the credentials (%2)")
                                 .arg(Shown(url))
                                 .arg(e.code));
            return _Fail(
                QStringLiteral("the server %1 does not answer: %2").arg(Shown(url), e.message));
        }
    }

    if (newAccount) _setup.accounts->AddAccount(account);
    FolderConfiguration root;
    root.authenticationId = account.id;
    root.name = QFileInfo(localPath).fileName();
    root.localPath = localPath;
    root.serverPath = root.path = serverPath;
    root.serverRootPath = QStringLiteral("/");
    root.syncScope = 0;
    root.setSyncStatus(sync::config::FolderSynchronizationStatus::NotSynchronized);
    if (!_setup.folders->AddFolder(root))
        return _Fail(QStringLiteral("cannot record %1 in the database").arg(localPath));
    _added = true;
    return root.id;
}

}  // namespace host
}  // namespace sync
