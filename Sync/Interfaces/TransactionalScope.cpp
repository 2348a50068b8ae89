#include "TransactionalScope.h"

#include <mutex>
#include <stdexcept>

#include "SyncLog.h"

namespace sync {
namespace database {

namespace {
std::mutex g_backendMutex;
std::shared_ptr<ITransactionBackend> g_backend;
thread_local int t_depth = 0;
}  // namespace

void TransactionalScope::SetBackend(std::shared_ptr<ITransactionBackend> backend) {
    std::lock_guard<std::mutex> lock(g_backendMutex);
    g_backend = std::move(backend);
}

std::shared_ptr<ITransactionBackend> TransactionalScope::Backend() {
    std::lock_guard<std::mutex> lock(g_backendMutex);
    return g_backend;
}

int TransactionalScope::Depth() {
    return t_depth;
}

TransactionalScope::TransactionalScope()
    : _backend(Backend()), _depth(t_depth), _uncaughtAtStart(std::uncaught_exceptions()) {
    if (_backend) _backend->Begin(_depth);
    ++t_depth;
}

void TransactionalScope::commit() {
    if (_done) return;
    _done = true;
    if (!_backend) return;
    try {
        _backend->Commit(_depth);
    } catch (...) {
        // A COMMIT that failed may leave the transaction open; closed here, every later scope
        // opens a transaction of its own instead of a savepoint that never reaches the disk.
        _backend->Rollback(_depth);
        throw;
    }
}

TransactionalScope::~TransactionalScope() {
    --t_depth;
    if (_done || !_backend) return;
    _done = true;
    if (std::uncaught_exceptions() > _uncaughtAtStart) {
        _backend->Rollback(_depth);
        return;
    }
    try {
        _backend->Commit(_depth);
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR(
            "A batch of database writes was rolled back because it could not be "
            "committed: %1",
            e.what());
        _backend->Rollback(_depth);
        _backend->ReportLostBatch(e);
    } catch (...) {
        SYNC_LOG_ERROR(
            "A batch of database writes was rolled back because it could not be "
            "committed");
        _backend->Rollback(_depth);
        _backend->ReportLostBatch(std::runtime_error("unknown failure at commit"));
    }
}

}  // namespace database
}  // namespace sync
