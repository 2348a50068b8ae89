#pragma once

#include <QString>
#include <memory>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "RemoteService.h"
#include "ServerConfigManager.h"
#include "SyncConfiguration.h"
#include "SynchronizationServiceFactory.h"

namespace sync {
namespace host {

// The companion services over one configuration database, wired for the engine: the database
// managers, the remote service of every account and the core services of this machine.
class HostSetup {
public:
    // Opens (and creates) the database; throws std::exception with a message a user can read.
    HostSetup(const QString& databasePath, bool readOnly = false);
    ~HostSetup();
    HostSetup(const HostSetup&) = delete;
    HostSetup& operator=(const HostSetup&) = delete;

    // Settings of the process's allocator that suit a cycle, which makes and frees hundreds of
    // thousands of small records at once. Called first thing in main, before any thread.
    static void TuneAllocator();

    // The database a command uses: --db, else $FOLDERSYNC_DB, else the one under the XDG data
    // directory.
    static QString DatabasePath(const QString& option);
    // An account's password: $FOLDERSYNC_PASSWORD, else the first line of the file its
    // "passwordFile" setting names. Never stored in the database itself.
    static QString PasswordOf(const sync::config::ServerConfiguration& account);

    std::shared_ptr<sync::database::ConfigDatabase> database;
    std::shared_ptr<sync::database::FolderConfigManager> folders;
    std::shared_ptr<sync::database::FileConfigManager> files;
    std::shared_ptr<sync::database::AuthenticationConfigManager> accounts;
    std::shared_ptr<sync::database::ServerConfigManager> serverConfigs;
    std::shared_ptr<sync::database::SyncConfiguration> configuration;
    // The settings the engine reads: the database's, with the hold after a 429 at least as
    // long as any server asked for (Retry-After).
    std::shared_ptr<sync::interf::ISyncConfiguration> engineConfiguration;
    std::shared_ptr<sync::remote::RemoteService> remote;

    // What the engine's factory needs; the host adds its filters and its application.
    sync::syncService::SynchronizationServiceFactory::Companions Companions() const;
};

}  // namespace host
}  // namespace sync
