#pragma once

#include <functional>
#include <memory>

#include "IServerConfigManager.h"

namespace sync {
namespace factory {

// Where the engine gets a server configuration manager of its own. The configuration
// database (or a test) installs the maker; without one the call throws std::logic_error.
class ConfigurationFactory {
public:
    using ServerConfigManagerMaker =
        std::function<std::shared_ptr<sync::interf::IServerConfigManager>()>;
    static std::shared_ptr<sync::interf::IServerConfigManager> CreateServerConfigManager();
    static void SetServerConfigManagerMaker(ServerConfigManagerMaker maker);
};

}  // namespace factory
}  // namespace sync
