#include <gtest/gtest.h>

#include "ConnectedToNetwork.h"

using sync::core::ConnectedToNetwork;

namespace {

TEST(ConnectedToNetworkTest, OnlyRemoteServersNeedANetwork) {
    const struct {
        const char* url;
        bool needsNetwork;
    } cases[] = {
        {"/srv/sync/server", false},           {"file:///srv/sync/server", false},
        {"http://localhost:8080/dav", false},  {"http://dav.localhost/", false},
        {"http://127.0.0.1/dav", false},       {"http://[::1]:8080/dav", false},
        {"http://[::ffff:127.0.0.1]/", false}, {"https://dav.example.com/remote.php/dav", true},
        {"http://128.0.0.1/", true},           {"http://localhost.example.com/", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ConnectedToNetwork::NeedsNetwork(c.url), c.needsNetwork) << c.url;
}

TEST(ConnectedToNetworkTest, AnswersFromTheInterfacesOnlyWhenARemoteServerIsConfigured) {
    const QString loopback = "http://127.0.0.1:8080/dav", remote = "https://dav.example.com/";
    const struct {
        QStringList urls;
        bool interfaceUp;
        bool connected;
    } cases[] = {
        {{}, false, true},      {{loopback}, false, true},          {{remote}, false, false},
        {{remote}, true, true}, {{loopback, remote}, false, false},
    };
    for (const auto& c : cases) {
        ConnectedToNetwork network(c.urls, [&] { return c.interfaceUp; });
        EXPECT_EQ(network.IsConnected(), c.connected) << c.urls.join(", ").toStdString();
    }
}

}  // namespace
