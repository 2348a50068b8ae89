#pragma once

#include <QString>
#include <functional>

#include "ICheckForExit.h"
#include "SyncResults.h"

namespace sync {
namespace syncService {

// The loop of the workers that write the database per entry: the entries run in batches, each
// batch's writes in one TransactionalScope that is committed when the batch ends.
//
// A std::exception inside a batch (a database that cannot be read or written, a batch that
// cannot be committed) must not end the root folder's run: the batch is rolled back, every entry
// of the batch is handed to the lost-entry callback to be counted as failed and reported, and
// the loop goes on with the next batch. The records stay as they were, so that the next cycle
// plans the entries again. The exit check is polled before each entry; a stop ends the loop and
// leaves the rest untouched.
class TaskBatchLoop {
public:
    // Handles entry index; counts it in the batch's results, which only reach the total when
    // the batch has been committed.
    using Step = std::function<void(int index, sync::core::SyncResults& batch)>;
    // Counts entry index of a rolled-back batch as failed and reports it.
    using Lost = std::function<void(int index, sync::core::SyncResults& results)>;

    static sync::core::SyncResults Run(int count, int batchSize,
                                       sync::interf::ICheckForExit& checkForExit,
                                       const QString& worker, const Step& step, const Lost& lost);
};

}  // namespace syncService
}  // namespace sync
