#pragma once

#include "ConfigDatabase.h"

namespace sync {
namespace database {

// A transaction level around one manager operation that needs several statements: a savepoint
// inside an open scope, a transaction of its own outside one. Rolled back unless Release() is
// reached, so a statement that fails half-way leaves none of the operation's writes.
class OperationSavepoint {
public:
    explicit OperationSavepoint(ConfigDatabase::Impl& db);
    ~OperationSavepoint();
    OperationSavepoint(const OperationSavepoint&) = delete;
    OperationSavepoint& operator=(const OperationSavepoint&) = delete;

    void Release();

private:
    ConfigDatabase::Impl& _db;
    int _level = -1;
    bool _released = false;
};

}  // namespace database
}  // namespace sync
