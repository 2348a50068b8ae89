#pragma once

namespace sync {
namespace interf {

// Settings of the engine. Never throws; missing settings answer their defaults.
class ISyncConfiguration {
public:
    virtual ~ISyncConfiguration() = default;
    // Seconds between cycles for continuous and periodic synchronisation.
    virtual int GetSyncInterval() = 0;
    // Seconds to hold synchronisation after the server answered 429.
    virtual int GetTooManyRequestsHoldSeconds() = 0;
};

}  // namespace interf
}  // namespace sync
