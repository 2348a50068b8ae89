#pragma once

#include <gtest/gtest.h>
#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <memory>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "FakeCore.h"
#include "FakeServer.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "ServerConfigManager.h"
#include "ServerSide.h"
#include "SyncResults.h"

namespace sync {
namespace test {

// What one cycle reported, besides what it left on the disks and in the database.
struct Cycle {
    sync::core::SyncResults total;
    // The tasks the planning pass put in the depot, as PlanRecorder writes them.
    QStringList plan;
    // The reports to the host, in arrival order: "FolderSyncError /Docs 500".
    QStringList reports;
    QStringList actionLog;

    // The total's error codes as "code:count" words, in code order ("" for none).
    QString ErrorCodes() const;
};

// One root folder, synchronised whole, between a temporary local folder and a server (the fake
// unless the scenario is given another ServerSide), with a temporary configuration database (the
// real managers, installed for transactions) and the fake core services. A test seeds both sides,
// changes either, runs a cycle of the real Synchronizer and compares a listing of everything with
// the text it expects.
//
// The root is /Docs on the server and <tmp>/local/Docs on the disk. Listings and reports show a
// local path as the matching server path (/Docs/a.txt), so that both sides read alike; paths
// that a test passes in are below the root ("sub/a.txt", a trailing "/" for a folder).
//
// The cycle is wired as the service wires it (SynchronizationServiceFactory). Each depot passes
// PlanRecorder, so that the listing shows the planned tasks; it executes nothing unless the
// scenario asks for execution (ExecuteTasks), when the real task engine and workers run.
class Scenario {
public:
    // A path ending in "/" is a folder.
    struct Entry {
        Entry(const QString& path, const QByteArray& content = QByteArray())
            : path(path), content(content) {}
        QString path;
        QByteArray content;
    };

    Scenario();
    explicit Scenario(std::unique_ptr<ServerSide> server);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    // Puts the entries on both sides and records them in the database the way a finished
    // synchronisation leaves them. Missing parent folders are made on the way.
    void SeedSynchronized(const QList<Entry>& entries);

    void WriteLocal(const QString& below, const QByteArray& content);
    void MakeLocalFolder(const QString& below);
    void RemoveLocal(const QString& below);
    void WriteServer(const QString& below, const QByteArray& content);
    void RemoveServer(const QString& below);
    // Leaves the entry out of both sides' trees, as a sync filter of the host would.
    void Exclude(const QString& below);

    QString LocalPath(const QString& below) const;
    QString ServerPath(const QString& below) const;
    // The root's database record, as stored now.
    sync::config::FolderConfiguration RootRecord();
    // Changes the root's record in the database, as the host's settings would.
    void UpdateRoot(const std::function<void(sync::config::FolderConfiguration&)>& change);
    // Runs SQL on the database file through a connection of its own (to plant a fault).
    void ExecSql(const char* sql);

    // Injected faults and the fake's switches: only the fake has them. Cases that need them
    // skip on other backends (OnFakeServer); on those Server() throws std::logic_error.
    FakeServer& Server();
    bool OnFakeServer() const { return _server->Fake() != nullptr; }
    FakeCore& Core() { return *_core; }
    sync::database::FolderConfigManager& Folders() { return *_folders; }
    sync::database::FileConfigManager& Files() { return *_files; }

    // Off (the default): cycles plan and stop there. On: they execute the plan too.
    void ExecuteTasks(bool on) { _executes = on; }
    // One cycle of a fresh Synchronizer, as the service runs it.
    Cycle RunCycle();
    // Files (paths below the root) that existed on either side before the last cycle and now
    // exist on neither, without a deletion planned for them or a folder above them: lost.
    QStringList LostFiles() const;

    // Sorted lines: the local disk (`local /Docs/a.txt "hello"`, `local /Docs/sub/`), the
    // server (`server /Docs/a.txt v1 "hello"`), the trash (`trash a.txt "hello"`), the database
    // (`db root /Docs Synchronized`, `db folder ...`, `db file /Docs/a.txt v1 Synchronized`) and
    // the plan of the last cycle. The time in a conflict copy's name is shown as "…"
    // (`a (conflict …).txt`), since it is the time of the run.
    QStringList Listing();
    // The listing equals the expected lines (one per line, any order, blank lines ignored);
    // otherwise the failure shows what is missing, what is unexpected and the whole listing.
    ::testing::AssertionResult Matches(const QString& expected);

private:
    class Filter;
    class Recorder;

    // A path on this machine as listings show it.
    QString _Shown(const QString& text) const;
    QStringList _LocalLines() const;
    QStringList _DatabaseLines();
    // Paths below the root of every file on the disk and on the server.
    QSet<QString> _FilesOnEitherSide() const;
    // The database id of the folder, seeded with its parents where it is missing.
    int _SeedFolder(const sync::config::FolderConfiguration& root, const QString& below,
                    QHash<QString, int>& folderIds);

    QTemporaryDir _dir;
    QString _localBase;
    std::shared_ptr<FakeCore> _core;
    std::unique_ptr<InstalledCore> _installedCore;
    std::unique_ptr<ServerSide> _server;
    std::shared_ptr<Filter> _filter;
    std::shared_ptr<sync::database::ConfigDatabase> _db;
    std::shared_ptr<sync::database::FolderConfigManager> _folders;
    std::shared_ptr<sync::database::FileConfigManager> _files;
    std::shared_ptr<sync::database::AuthenticationConfigManager> _accounts;
    std::shared_ptr<sync::database::ServerConfigManager> _serverConfigs;
    int _rootId = -1;
    QStringList _lastPlan;
    bool _executes = false;
    QSet<QString> _filesBeforeLastCycle;
};

}  // namespace test
}  // namespace sync
