#pragma once

#include "ServerConfiguration.h"

namespace sync {
namespace interf {

// Server account records. Not found answers a record with id -1; a database failure throws
// std::runtime_error.
class IServerConfigManager {
public:
    virtual ~IServerConfigManager() = default;
    virtual sync::config::ServerConfiguration GetServerConfiguration(int authenticationId) = 0;
    virtual sync::config::ServerConfiguration GetServerConfigurationByFolderId(
        int rootFolderId) = 0;
};

}  // namespace interf
}  // namespace sync
