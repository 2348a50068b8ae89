#include "TransactionalScope.h"

#include <exception>
#include <mutex>

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
    if (_backend) _backend->Commit(_depth);
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
        // A destructor cannot report a failed commit; undo instead of leaving it open.
        SYNC_LOG_ERROR("Failed to commit database transaction: %1", e.what());
        _backend->Rollback(_depth);
    }
}

}  // namespace database
}  // namespace sync
