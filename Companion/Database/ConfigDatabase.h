#pragma once

#include <QString>
#include <memory>

#include "DatabaseException.h"

namespace sync {
namespace database {

// One open configuration database file: the single connection that every manager of an
// installation shares, with its prepared statements. The file is kept in WAL mode, so that the
// host's tools can read it while the service writes.
//
// Opening never resets anything: a file that is not a database of this system, is damaged, is
// newer than this program or cannot be written (when writing was asked for) makes Open throw
// DatabaseException whose text names the file. An older file is migrated forward when it is
// opened for writing and refused when it is opened read-only.
//
// A writer that finds the file locked by another process waits up to the busy timeout, then
// fails with an error that names the file.
//
// Used from one thread. A host wires an installation like this:
//   auto db = ConfigDatabase::Open(ConfigDatabase::DefaultPath());
//   ConfigDatabase::Install(db);  // transactions and the engine's server configuration manager
//   CoreFactory::SetActionLog(std::make_shared<DatabaseActionLog>(db));
//   ... hand FolderConfigManager(db), FileConfigManager(db), ... to the engine's factory.
class ConfigDatabase {
public:
    enum class Mode { ReadWrite, ReadOnly };

    // Long enough to ride out another process's batch of writes, which holds the write lock
    // for a whole transaction.
    static constexpr int DefaultBusyTimeoutMs = 30000;

    // <application data directory>/sync.db
    static QString DefaultPath();

    // Creates the file (and its directory) when it is missing and mode is ReadWrite.
    static std::shared_ptr<ConfigDatabase> Open(const QString& path, Mode mode = Mode::ReadWrite);

    // Makes this database the one TransactionalScope works on and the one that
    // ConfigurationFactory::CreateServerConfigManager() answers with.
    static void Install(const std::shared_ptr<ConfigDatabase>& database);
    // Undoes Install.
    static void Uninstall();

    ~ConfigDatabase();
    ConfigDatabase(const ConfigDatabase&) = delete;
    ConfigDatabase& operator=(const ConfigDatabase&) = delete;

    const QString& Path() const;
    bool IsReadOnly() const;
    // PRAGMA user_version of the open file.
    int SchemaVersion() const;
    // Writes a consistent copy of the whole database to a new file at path (for a trial run
    // that must leave the real one untouched). Throws DatabaseException.
    void CopyTo(const QString& path) const;
    static int LatestSchemaVersion();
    // True while a transaction or savepoint is open on the connection.
    bool InTransaction() const;

    // How long a writer waits for another process's write lock.
    int BusyTimeoutMs() const;
    void SetBusyTimeoutMs(int milliseconds);

    class Impl;
    Impl& impl() { return *_impl; }

private:
    explicit ConfigDatabase(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> _impl;
};

}  // namespace database
}  // namespace sync
