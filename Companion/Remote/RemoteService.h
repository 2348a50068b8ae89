#pragma once

#include <QHash>
#include <QString>
#include <functional>
#include <memory>

#include "IServerConfigManager.h"
#include "IValidateLoginCredentials.h"
#include "RemoteBackend.h"
#include "ServerConfiguration.h"

namespace sync {
namespace remote {

// The remote file service of every configured account: it looks the account up in the
// database, picks its backend by the account's URL (a file:// URL or a plain path for a
// local-folder server, http(s):// for WebDAV) and forwards each call to it. A backend lives
// as long as its account's record stays the same, so connections are reused across cycles. A
// pause a server asks for holds every backend of the account.
class RemoteService : public sync::interf::factory::IRemoteFolderManagerFactory,
                      public sync::interf::factory::IRemoteFileManagerFactory,
                      public sync::interf::IFileUploadClient,
                      public sync::interf::IFileDownloadClient,
                      public sync::interf::IFileDeleteClient,
                      public sync::interf::IUrlBuilder,
                      public sync::interf::IValidateLoginCredentials {
public:
    // The password of an account; empty when it has none.
    using PasswordSource = std::function<QString(const sync::config::ServerConfiguration&)>;
    // The backend of an account; throws sync::http::HttpException when none can serve it.
    using BackendMaker = std::function<std::shared_ptr<RemoteBackend>(
        const sync::config::ServerConfiguration&, const PasswordSource&)>;

    RemoteService(std::shared_ptr<sync::interf::IServerConfigManager> accounts,
                  std::shared_ptr<sync::interf::IFileConfigManager> files,
                  PasswordSource passwords = PasswordSource(),
                  BackendMaker makeBackend = BackendMaker());
    ~RemoteService() override;

    // The backends this build offers, by URL.
    static std::shared_ptr<RemoteBackend> MakeBackend(const sync::config::ServerConfiguration&,
                                                      const PasswordSource& passwords);
    // "local" for a file:// URL or a path, "webdav" for http(s)://, empty otherwise.
    static QString KindOf(const QString& url);

    void SetExitChecker(std::shared_ptr<sync::interf::ICheckForExit> exitChecker);
    void SetProgressListener(RemoteBackend::ProgressListener listener);
    // The longest wait any server asked for (Retry-After of a 429 or 503); -1 when none did.
    int RetryAfterSeconds() const;

    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(
        int authenticationId) override;
    std::shared_ptr<sync::interf::IRemoteFileManager> CreateRemoteFileManager(
        int authenticationId) override;
    sync::core::SyncResults UploadFiles(const sync::config::ServerConfiguration& server,
                                        const sync::config::FolderConfiguration& root,
                                        QList<sync::config::FileConfiguration>& files) override;
    sync::core::SyncResults DownloadFiles(
        const sync::config::ServerConfiguration& server,
        const sync::config::FolderConfiguration& root,
        QList<sync::thread::SynchronizedFileConfiguration>& files) override;
    sync::core::SyncResults DeleteFiles(const sync::config::FolderConfiguration& root,
                                        QList<sync::config::FileConfiguration>& files) override;
    QString BuildUrl(const sync::config::ServerConfiguration& server,
                     const QString& serverPath) override;
    // Lists the server's top folder: 0 when it answers, else its status.
    int ValidateCredentials(int authenticationId) override;

    // The backend of the account; throws HttpException(401) for an unknown account.
    std::shared_ptr<RemoteBackend> Backend(int authenticationId);

private:
    std::shared_ptr<RemoteBackend> _Backend(const sync::config::ServerConfiguration& account);

    struct Entry {
        sync::config::ServerConfiguration account;
        std::shared_ptr<RemoteBackend> backend;
    };
    std::shared_ptr<sync::interf::IServerConfigManager> _accounts;
    std::shared_ptr<sync::interf::IFileConfigManager> _files;
    std::shared_ptr<sync::interf::ICheckForExit> _exitChecker;
    RemoteBackend::ProgressListener _progress;
    PasswordSource _passwords;
    BackendMaker _makeBackend;
    QHash<int, Entry> _backends;
    // One per account, outliving its backends: a backend made anew for a changed record still
    // honours the pause its predecessor was asked for.
    QHash<int, std::shared_ptr<ServerPause>> _pauses;
};

}  // namespace remote
}  // namespace sync
