#pragma once

#include "FileConfiguration.h"

namespace sync {
namespace interf {

// Lets a host adjust a downloaded file's record before it is stored.
class ICustomFileConfigUpdater {
public:
    virtual ~ICustomFileConfigUpdater() = default;
    virtual void UpdateFileConfig(sync::config::FileConfiguration& file) = 0;
};

}  // namespace interf
}  // namespace sync
