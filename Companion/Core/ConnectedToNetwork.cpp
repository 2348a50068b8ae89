#include "ConnectedToNetwork.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <QUrl>

namespace sync {
namespace core {

namespace {

bool IsLoopbackHost(const QString& host) {
    const QString h = host.toLower();
    if (h == QLatin1String("localhost") || h.endsWith(QLatin1String(".localhost"))) return true;
    const QByteArray latin = h.toLatin1();
    in_addr v4;
    if (::inet_pton(AF_INET, latin.constData(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6;
    if (::inet_pton(AF_INET6, latin.constData(), &v6) == 1) {
        if (IN6_IS_ADDR_LOOPBACK(&v6)) return true;
        // ::ffff:127.x.x.x
        return IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127;
    }
    return false;
}

}  // namespace

ConnectedToNetwork::ConnectedToNetwork(const QStringList& serverUrls, InterfaceProbe probe)
    : _serverUrls(serverUrls), _probe(probe ? std::move(probe) : &AnyNetworkInterfaceUp) {}

bool ConnectedToNetwork::IsConnected() {
    for (const QString& url : _serverUrls) {
        if (NeedsNetwork(url)) return _probe();
    }
    return true;
}

bool ConnectedToNetwork::NeedsNetwork(const QString& serverUrl) {
    const QString text = serverUrl.trimmed();
    if (text.isEmpty() || text.startsWith(QLatin1Char('/'))) return false;
    const QUrl url(text);
    if (!url.isValid()) return true;
    if (url.scheme().isEmpty() || url.isLocalFile()) return false;
    return !IsLoopbackHost(url.host());
}

bool ConnectedToNetwork::AnyNetworkInterfaceUp() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return false;
    bool up = false;
    for (const ifaddrs* it = list; it && !up; it = it->ifa_next) {
        const unsigned flags = it->ifa_flags;
        if (!it->ifa_addr || (flags & IFF_LOOPBACK) || !(flags & IFF_UP) || !(flags & IFF_RUNNING))
            continue;
        if (it->ifa_addr->sa_family == AF_INET) {
            up = true;
        } else if (it->ifa_addr->sa_family == AF_INET6) {
            // A link-local address alone reaches no server by name.
            const auto* v6 = reinterpret_cast<const sockaddr_in6*>(it->ifa_addr);
            up = !IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr);
        }
    }
    ::freeifaddrs(list);
    return up;
}

}  // namespace core
}  // namespace sync
