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
//
// A scope that cannot begin, for a lock held by another process past the busy timeout or for
// a batch lost before, throws DatabaseException naming the file.
class SqliteTransactionBackend : public ITransactionBackend {
public:
    explicit SqliteTransactionBackend(std::shared_ptr<ConfigDatabase> database);
    ~SqliteTransactionBackend() override;

    void Begin(int depth) override;
    void Commit(int depth) override;
    void Rollback(int depth) noexcept override;
    void ReportLostBatch(const std::exception& reason) noexcept override;

private:
    std::shared_ptr<ConfigDatabase> _database;
    // The connection's transaction level that the scope at each depth opened; -1 for none.
    std::vector<int> _levels;
};

}  // namespace database
}  // namespace sync
