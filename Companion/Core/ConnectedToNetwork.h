#pragma once

#include <QStringList>
#include <functional>

#include "IConnectedToNetwork.h"

namespace sync {
namespace core {

// Whether the configured servers can be reached, as far as this machine can tell without
// talking to them: a server in a local folder or on the loopback interface always can; any
// other server needs a network interface (other than loopback) that is up and running.
class ConnectedToNetwork : public sync::interf::IConnectedToNetwork {
public:
    using InterfaceProbe = std::function<bool()>;

    // serverUrls: base URLs of the servers (http(s)://..., file:..., or a plain folder path).
    // With no URL, nothing remote is configured and the answer is always true.
    // probe replaces the interface check (tests); by default AnyNetworkInterfaceUp.
    explicit ConnectedToNetwork(const QStringList& serverUrls = QStringList(),
                                InterfaceProbe probe = InterfaceProbe());
    ~ConnectedToNetwork() override = default;

    bool IsConnected() override;

    // False for a local folder (file: URL or plain path) and for a loopback host.
    static bool NeedsNetwork(const QString& serverUrl);
    // True when a non-loopback interface with an IPv4 or a routable IPv6 address is up and
    // running.
    static bool AnyNetworkInterfaceUp();

private:
    QStringList _serverUrls;
    InterfaceProbe _probe;
};

}  // namespace core
}  // namespace sync
