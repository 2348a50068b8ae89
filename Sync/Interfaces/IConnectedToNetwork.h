#pragma once

namespace sync {
namespace interf {

class IConnectedToNetwork {
public:
    virtual ~IConnectedToNetwork() = default;
    // True when the configured servers can be reached (always true for loopback and local
    // folder servers). Never throws.
    virtual bool IsConnected() = 0;
};

}  // namespace interf
}  // namespace sync
