#include "ServerConfigManager.h"

#include "ConfigDatabaseImpl.h"

using sync::config::ServerConfiguration;

namespace sync {
namespace database {

namespace {
const char* const kAccountOfFolder = "SELECT authentication_id FROM folders WHERE id = ?1";
}

ServerConfigManager::ServerConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

ServerConfigManager::~ServerConfigManager() = default;

ServerConfiguration ServerConfigManager::GetServerConfiguration(int authenticationId) {
    return ReadAccountById(_database->impl().Checked(), authenticationId);
}

ServerConfiguration ServerConfigManager::GetServerConfigurationByFolderId(int rootFolderId) {
    int authenticationId = -1;
    {
        Query q(_database->impl().Checked(), kAccountOfFolder);
        q.Bind(1, rootFolderId);
        if (!q.Step()) return ServerConfiguration();
        authenticationId = q.Int(0);
    }
    return ReadAccountById(_database->impl().Checked(), authenticationId);
}

}  // namespace database
}  // namespace sync
