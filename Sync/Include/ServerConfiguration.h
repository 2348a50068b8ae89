#pragma once

#include <QMap>
#include <QObject>
#include <QString>

namespace sync {
namespace config {

// One server account.
class ServerConfiguration : public QObject {
public:
    ServerConfiguration() : QObject(nullptr) {}
    ServerConfiguration(const ServerConfiguration& o) : QObject(nullptr) { _CopyMembers(o); }
    ServerConfiguration& operator=(const ServerConfiguration& o) {
        if (this != &o) _CopyMembers(o);
        return *this;
    }
    ~ServerConfiguration() override = default;
    bool operator==(const ServerConfiguration& o) const {
        return id == o.id && name == o.name && kind == o.kind && baseUrl == o.baseUrl &&
               userName == o.userName && settings == o.settings;
    }

    int id = -1;
    QString name;
    QString kind;  // "local" for a folder acting as the server, "webdav" for a WebDAV server
    QString baseUrl;
    QString userName;
    QMap<QString, QString> settings;

private:
    void _CopyMembers(const ServerConfiguration& o) {
        id = o.id;
        name = o.name;
        kind = o.kind;
        baseUrl = o.baseUrl;
        userName = o.userName;
        settings = o.settings;
    }
};

}  // namespace config
}  // namespace sync
