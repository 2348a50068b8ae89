#pragma once

#include <exception>
#include <memory>

namespace sync {
namespace database {

// What a database offers to TransactionalScope. The configuration database installs one; with
// none installed (engine tests with in-memory doubles) scopes do nothing.
class ITransactionBackend {
public:
    virtual ~ITransactionBackend() = default;
    // depth 0 opens the transaction, depth n > 0 opens savepoint n. Throws on failure.
    virtual void Begin(int depth) = 0;
    // Makes the writes of that level permanent (depth 0) or folds them into the outer level.
    // Throws on failure; the level is then still open and must be rolled back.
    virtual void Commit(int depth) = 0;
    // Undoes the writes of that level and closes it. Must not throw.
    virtual void Rollback(int depth) noexcept = 0;
    // A scope that ended without commit() could not commit and was rolled back. A destructor
    // cannot throw, so the backend keeps the reason and throws it from its next operation, once.
    // A backend whose commits cannot fail may ignore it.
    virtual void ReportLostBatch(const std::exception& reason) noexcept { (void)reason; }
};

// A batch of database writes that belong together.
//
// The outermost live scope opens a transaction; scopes made while it lives are savepoints.
// commit() commits that scope at once; when that fails, the scope is rolled back and commit()
// throws. A scope destroyed without commit() keeps its writes when it ends normally and rolls
// them back when it is destroyed while an exception unwinds, so code that just lets a scope run
// out keeps its work, and a failure half-way through a batch never leaves half a batch behind.
// When the commit at the end of such a scope fails, the batch is rolled back and the next
// database call (a manager operation or the next scope) throws the reason, once.
//
// Scopes nest strictly (last made, first ended) and live on one thread.
class TransactionalScope {
public:
    // Throws sync::database::DatabaseException when no transaction can be opened (the file is
    // locked by another process for longer than the busy timeout) or an earlier batch was lost.
    TransactionalScope();
    TransactionalScope(const TransactionalScope&) = delete;
    TransactionalScope& operator=(const TransactionalScope&) = delete;
    ~TransactionalScope();

    void commit();

    // Installs the database that scopes open transactions on; nullptr uninstalls it.
    static void SetBackend(std::shared_ptr<ITransactionBackend> backend);
    static std::shared_ptr<ITransactionBackend> Backend();
    // Number of scopes alive right now.
    static int Depth();

private:
    std::shared_ptr<ITransactionBackend> _backend;
    int _depth = 0;
    int _uncaughtAtStart = 0;
    bool _done = false;
};

}  // namespace database
}  // namespace sync
