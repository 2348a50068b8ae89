#include "SqliteTransactionBackend.h"

#include "ConfigDatabaseImpl.h"

namespace sync {
namespace database {

SqliteTransactionBackend::SqliteTransactionBackend(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

SqliteTransactionBackend::~SqliteTransactionBackend() = default;

void SqliteTransactionBackend::Begin(int depth) {
    if (depth < 0) depth = 0;
    const int level = _database->impl().Checked().BeginLevel();
    if (static_cast<size_t>(depth) >= _levels.size()) _levels.resize(depth + 1, -1);
    _levels[depth] = level;
}

void SqliteTransactionBackend::Commit(int depth) {
    if (depth < 0 || static_cast<size_t>(depth) >= _levels.size() || _levels[depth] < 0) return;
    _database->impl().CommitLevel(_levels[depth]);
    _levels[depth] = -1;
}

void SqliteTransactionBackend::Rollback(int depth) noexcept {
    if (depth < 0 || static_cast<size_t>(depth) >= _levels.size() || _levels[depth] < 0) return;
    _database->impl().RollbackLevel(_levels[depth]);
    _levels[depth] = -1;
}

void SqliteTransactionBackend::ReportLostBatch(const std::exception& reason) noexcept {
    const auto* known = dynamic_cast<const DatabaseException*>(&reason);
    _database->impl().ReportLostBatch(known ? known->reason() : QString::fromUtf8(reason.what()));
}

}  // namespace database
}  // namespace sync
