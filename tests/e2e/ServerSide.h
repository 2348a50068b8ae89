#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <memory>
#include <ostream>
#include <vector>

#include "FakeServer.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "SynchronizationServiceFactory.h"

namespace sync {
namespace test {

// The server end of a scenario: one backend that the engine talks to through its companions,
// seeded and read by the test through the same few calls whatever the backend is. Paths are
// server paths ("/Docs/a.txt").
//
// Listings show file versions as v1, v2, ... . The fake numbers its versions itself; a real
// backend hands out opaque version ids, which are labelled per path in the order they are first
// seen: each write of the test registers the id it made, and the listing registers ids it meets
// for the first time (versions the engine uploaded). Database records are shown through the same
// labels, so a record that names the server's current version shows the same label.
class ServerSide {
public:
    using Folder = sync::config::FolderConfiguration;
    using File = sync::config::FileConfiguration;
    using Companions = sync::syncService::SynchronizationServiceFactory::Companions;

    // One row per backend the scenarios run against.
    struct Kind {
        const char* name;
        std::unique_ptr<ServerSide> (*make)();
    };
    static const std::vector<Kind>& Kinds();
    static std::unique_ptr<ServerSide> MakeFake();
    static std::unique_ptr<ServerSide> MakeLocalFolder();
    // A private Apache serving the scenario's folder over WebDAV.
    static std::unique_ptr<ServerSide> MakeWebDav();
    // Empty when this machine can run MakeWebDav; else why not.
    static QString WebDavUnavailable();

    virtual ~ServerSide() = default;

    // The base URL of the account that the root folder belongs to.
    virtual QString BaseUrl() const = 0;
    // Fills the remote service's companions: managers, transfer clients, URL builder.
    virtual void Wire(Companions& companions) = 0;
    virtual void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) = 0;
    // Null for every backend but the fake, which alone takes injected faults.
    virtual FakeServer* Fake() { return nullptr; }

    // Put makes missing parent folders; a file put where one is gets new content (a new
    // version). Remove takes everything below a folder with it.
    virtual void PutFolder(const QString& path) = 0;
    virtual void PutFile(const QString& path, const QByteArray& content) = 0;
    virtual void Remove(const QString& path) = 0;
    // What a listing of root gives for the entry (as a seeded record starts), or throws when
    // there is no such entry.
    virtual File FileRecord(const QString& path, const Folder& root) = 0;
    virtual Folder FolderRecord(const QString& path, const Folder& root) = 0;

    // Sorted lines: `server /Docs/a.txt v1 "hello"`, `server /Docs/sub/`.
    virtual QStringList Listing() = 0;
    // "v2" for the server version a database record names; "" when it names none.
    virtual QString VersionLabel(const File& record) = 0;
};

inline void PrintTo(const ServerSide::Kind& kind, std::ostream* os) {
    *os << kind.name;
}

}  // namespace test
}  // namespace sync
