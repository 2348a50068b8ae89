#include "HostSetup.h"

#include <QFile>
#include <QProcessEnvironment>
#include <algorithm>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "CoreFactory.h"
#include "DatabaseActionLog.h"

namespace sync {
namespace host {

namespace {

class NoCustomUpdate : public sync::interf::ICustomFileConfigUpdater {
public:
    void UpdateFileConfig(sync::config::FileConfiguration&) override {}
};

class ServerAwareConfiguration : public sync::interf::ISyncConfiguration {
public:
    ServerAwareConfiguration(std::shared_ptr<sync::database::SyncConfiguration> stored,
                             std::shared_ptr<sync::remote::RemoteService> remote)
        : _stored(std::move(stored)), _remote(std::move(remote)) {}
    int GetSyncInterval() override { return _stored->GetSyncInterval(); }
    int GetTooManyRequestsHoldSeconds() override {
        return std::max(_stored->GetTooManyRequestsHoldSeconds(), _remote->RetryAfterSeconds());
    }

private:
    std::shared_ptr<sync::database::SyncConfiguration> _stored;
    std::shared_ptr<sync::remote::RemoteService> _remote;
};

}  // namespace

HostSetup::HostSetup(const QString& databasePath, bool readOnly) {
    using sync::database::ConfigDatabase;
    database = ConfigDatabase::Open(
        databasePath, readOnly ? ConfigDatabase::Mode::ReadOnly : ConfigDatabase::Mode::ReadWrite);
    ConfigDatabase::Install(database);
    folders = std::make_shared<sync::database::FolderConfigManager>(database);
    files = std::make_shared<sync::database::FileConfigManager>(database);
    accounts = std::make_shared<sync::database::AuthenticationConfigManager>(database);
    serverConfigs = std::make_shared<sync::database::ServerConfigManager>(database);
    configuration = std::make_shared<sync::database::SyncConfiguration>(database);
    remote = std::make_shared<sync::remote::RemoteService>(serverConfigs, files, &PasswordOf);
    remote->SetExitChecker(sync::factory::CoreFactory::ExitChecker());
    engineConfiguration = std::make_shared<ServerAwareConfiguration>(configuration, remote);
    if (!readOnly)
        sync::factory::CoreFactory::SetActionLog(
            std::make_shared<sync::database::DatabaseActionLog>(database));

    QStringList urls;
    for (const auto& account : accounts->GetAccounts()) urls << account.baseUrl;
    sync::factory::CoreFactory::SetServerUrls(urls);
}

HostSetup::~HostSetup() {
    sync::factory::CoreFactory::SetActionLog(nullptr);
    remote.reset();
    sync::database::ConfigDatabase::Uninstall();
}

void HostSetup::TuneAllocator() {
#ifdef __GLIBC__
    // Without fast bins a freed record's memory is merged at once. With them, the hundreds of
    // thousands of small blocks of three trees are merged in one go by whichever call comes
    // next, a stall of a tenth of a second in the middle of a cycle.
    mallopt(M_MXFAST, 0);
#endif
}

QString HostSetup::DatabasePath(const QString& option) {
    if (!option.isEmpty()) return option;
    const QString fromEnvironment =
        QProcessEnvironment::systemEnvironment().value(QStringLiteral("FOLDERSYNC_DB"));
    if (!fromEnvironment.isEmpty()) return fromEnvironment;
    return sync::database::ConfigDatabase::DefaultPath();
}

QString HostSetup::PasswordOf(const sync::config::ServerConfiguration& account) {
    const QString fromEnvironment =
        QProcessEnvironment::systemEnvironment().value(QStringLiteral("FOLDERSYNC_PASSWORD"));
    if (!fromEnvironment.isEmpty()) return fromEnvironment;
    const QString file = account.settings.value(QStringLiteral("passwordFile"));
    if (file.isEmpty()) return QString();
    QFile in(file);
    if (!in.open(QIODevice::ReadOnly)) return QString();
    return QString::fromUtf8(in.readLine().trimmed());
}

sync::syncService::SynchronizationServiceFactory::Companions HostSetup::Companions() const {
    sync::syncService::SynchronizationServiceFactory::Companions c;
    c.coreFactory = std::make_shared<sync::factory::CoreFactory>();
    c.folderConfigManager = folders;
    c.fileConfigManager = files;
    c.authenticationConfigManager = accounts;
    c.serverConfigManager = serverConfigs;
    c.remoteFolderManagerFactory = remote;
    c.remoteFileManagerFactory = remote;
    c.uploadClient = remote;
    c.downloadClient = remote;
    c.deleteClient = remote;
    c.urlBuilder = remote;
    c.customFileConfigUpdater = std::make_shared<NoCustomUpdate>();
    c.validateLoginCredentials = remote;
    return c;
}

}  // namespace host
}  // namespace sync
