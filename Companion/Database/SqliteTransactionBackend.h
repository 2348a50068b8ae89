#pragma once

#include <memory>
#include <vector>

#include "ConfigDatabase.h"
#include "TransactionalScope.h"

namespace sync {
namespace database {

// TransactionalScope on the configuration database: the outermost scope is a BEGIN IMMEDIATE
// transaction (the write lock is taken at once, so a batch never fails half-way for want of
// it), nested scopes are savepoints. A scope made while no transaction is open, for example
// after the outer scope committed early, opens a transaction of its own.
class SqliteTransactionBackend : public ITransactionBackend {
public:
    explicit SqliteTransactionBackend(std::shared_ptr<ConfigDatabase> database);
    ~SqliteTransactionBackend() override;

    void Begin(int depth) override;
    void Commit(int depth) override;
    void Rollback(int depth) noexcept override;

private:
    enum class Level { None, Transaction, Savepoint };
    Level& _LevelAt(int depth);

    std::shared_ptr<ConfigDatabase> _database;
    std::vector<Level> _levels;
};

}  // namespace database
}  // namespace sync
