#pragma once

#include <QString>
#include <memory>

namespace sync {
namespace database {

// One open configuration database file: the single connection that every manager of an
// installation shares, with its prepared statements. The file is kept in WAL mode with a busy
// timeout, so that the host's tools can read it while the service writes.
//
// Opening never resets anything: a file that is not a database of this system, is damaged, is
// newer than this program or cannot be written (when writing was asked for) makes Open throw
// std::runtime_error whose text names the file. An older file is migrated forward.
//
// Used from one thread. A host wires an installation like this:
//   auto db = ConfigDatabase::Open(ConfigDatabase::DefaultPath());
//   ConfigDatabase::Install(db);  // transactions and the engine's server configuration manager
//   CoreFactory::SetActionLog(std::make_shared<DatabaseActionLog>(db));
//   ... hand FolderConfigManager(db), FileConfigManager(db), ... to the engine's factory.
class ConfigDatabase {
public:
    enum class Mode { ReadWrite, ReadOnly };

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
    static int LatestSchemaVersion();
    // True while a transaction or savepoint is open on the connection.
    bool InTransaction() const;

    class Impl;
    Impl& impl() { return *_impl; }

private:
    explicit ConfigDatabase(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> _impl;
};

}  // namespace database
}  // namespace sync
