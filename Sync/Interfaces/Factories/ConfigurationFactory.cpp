#include "ConfigurationFactory.h"

#include <mutex>
#include <stdexcept>

namespace sync {
namespace factory {

namespace {
std::mutex g_mutex;
ConfigurationFactory::ServerConfigManagerMaker g_maker;
}  // namespace

std::shared_ptr<sync::interf::IServerConfigManager>
ConfigurationFactory::CreateServerConfigManager() {
    ServerConfigManagerMaker maker;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        maker = g_maker;
    }
    if (!maker) throw std::logic_error("No server configuration manager has been installed");
    return maker();
}

void ConfigurationFactory::SetServerConfigManagerMaker(ServerConfigManagerMaker maker) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_maker = std::move(maker);
}

}  // namespace factory
}  // namespace sync
