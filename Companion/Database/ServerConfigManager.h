#pragma once

#include <memory>

#include "ConfigDatabase.h"
#include "IServerConfigManager.h"

namespace sync {
namespace database {

// Reads the account records kept by AuthenticationConfigManager.
class ServerConfigManager : public sync::interf::IServerConfigManager {
public:
    explicit ServerConfigManager(std::shared_ptr<ConfigDatabase> database);
    ~ServerConfigManager() override;

    sync::config::ServerConfiguration GetServerConfiguration(int authenticationId) override;
    // The account of the folder record with that id; id -1 when the folder or its account is
    // missing.
    sync::config::ServerConfiguration GetServerConfigurationByFolderId(int rootFolderId) override;

private:
    std::shared_ptr<ConfigDatabase> _database;
};

}  // namespace database
}  // namespace sync
