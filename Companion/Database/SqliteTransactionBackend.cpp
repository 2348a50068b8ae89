#include "SqliteTransactionBackend.h"

#include <string>

#include "ConfigDatabaseImpl.h"
#include "SyncLog.h"

namespace sync {
namespace database {

namespace {
std::string SavepointName(int depth) {
    return "scope_" + std::to_string(depth);
}
}  // namespace

SqliteTransactionBackend::SqliteTransactionBackend(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

SqliteTransactionBackend::~SqliteTransactionBackend() = default;

SqliteTransactionBackend::Level& SqliteTransactionBackend::_LevelAt(int depth) {
    if (depth < 0) depth = 0;
    if (static_cast<size_t>(depth) >= _levels.size()) _levels.resize(depth + 1, Level::None);
    return _levels[depth];
}

void SqliteTransactionBackend::Begin(int depth) {
    auto& impl = _database->impl();
    Level& level = _LevelAt(depth);
    try {
        if (!_database->InTransaction()) {
            impl.db->exec("BEGIN IMMEDIATE");
            level = Level::Transaction;
        } else {
            impl.db->exec("SAVEPOINT " + SavepointName(depth));
            level = Level::Savepoint;
        }
    } catch (const std::exception& e) {
        level = Level::None;
        throw impl.Error(QStringLiteral("cannot begin a transaction: %1").arg(e.what()));
    }
}

void SqliteTransactionBackend::Commit(int depth) {
    auto& impl = _database->impl();
    Level& level = _LevelAt(depth);
    const Level was = level;
    level = Level::None;
    try {
        if (was == Level::Transaction)
            impl.db->exec("COMMIT");
        else if (was == Level::Savepoint)
            impl.db->exec("RELEASE " + SavepointName(depth));
    } catch (const std::exception& e) {
        // A failed COMMIT leaves the transaction open; the scope's rollback closes it.
        level = was;
        throw impl.Error(QStringLiteral("cannot commit a transaction: %1").arg(e.what()));
    }
}

void SqliteTransactionBackend::Rollback(int depth) noexcept {
    Level& level = _LevelAt(depth);
    const Level was = level;
    level = Level::None;
    try {
        auto& impl = _database->impl();
        // SQLite may already have rolled the whole transaction back after an I/O error or a
        // full disk; then there is nothing left to undo.
        if (!_database->InTransaction()) return;
        if (was == Level::Transaction) {
            impl.db->exec("ROLLBACK");
        } else if (was == Level::Savepoint) {
            const std::string name = SavepointName(depth);
            impl.db->exec("ROLLBACK TO " + name);
            impl.db->exec("RELEASE " + name);
        }
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to roll back database transaction on %1: %2", _database->Path(),
                       e.what());
    }
}

}  // namespace database
}  // namespace sync
