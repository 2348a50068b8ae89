#include "TaskBatchLoop.h"

#include <algorithm>
#include <exception>

#include "SyncLog.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

sync::core::SyncResults TaskBatchLoop::Run(int count, int batchSize,
                                           sync::interf::ICheckForExit& checkForExit,
                                           const QString& worker, const Step& step,
                                           const Lost& lost) {
    sync::core::SyncResults total;
    int next = 0;
    bool stopped = false;
    while (next < count && !stopped) {
        const int first = next;
        const int last = std::min(count, first + batchSize);
        // Polled before the scope opens: a stop between batches opens no transaction.
        if (checkForExit.ShouldExit()) break;
        sync::core::SyncResults batch;
        try {
            sync::database::TransactionalScope scope;
            for (; next < last; ++next) {
                if (next > first && checkForExit.ShouldExit()) {
                    stopped = true;
                    break;
                }
                step(next, batch);
            }
            // Committed here rather than when the scope runs out: a commit that fails then
            // throws into this batch, instead of being reported by the next batch's first
            // database call and counted against entries that did nothing wrong.
            scope.commit();
            total += batch;
        } catch (const std::exception& e) {
            // Entries after the failing one were never tried; they count as failed too, and
            // the next cycle plans them with the rest of the batch.
            const int end = stopped ? next : last;
            SYNC_LOG_ERROR(
                "%0: a batch of %1 entries failed and its database writes were rolled "
                "back: %2",
                worker, end - first, e.what());
            sync::core::SyncResults failed;
            for (int i = first; i < end; ++i) {
                try {
                    lost(i, failed);
                } catch (const std::exception& reportError) {
                    // Reporting writes statuses to the same database; the count stands.
                    SYNC_LOG_ERROR("%0: could not report a failed entry: %1", worker,
                                   reportError.what());
                }
            }
            total += failed;
            next = end;
        }
    }
    return total;
}

}  // namespace syncService
}  // namespace sync
