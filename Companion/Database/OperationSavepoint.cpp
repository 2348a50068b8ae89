#include "OperationSavepoint.h"

#include "ConfigDatabaseImpl.h"

namespace sync {
namespace database {

OperationSavepoint::OperationSavepoint(ConfigDatabase::Impl& db)
    : _db(db), _level(db.BeginLevel()) {}

OperationSavepoint::~OperationSavepoint() {
    if (!_released) _db.RollbackLevel(_level);
}

void OperationSavepoint::Release() {
    try {
        _db.CommitLevel(_level);
    } catch (...) {
        _db.RollbackLevel(_level);
        _released = true;
        throw;
    }
    _released = true;
}

}  // namespace database
}  // namespace sync
