#pragma once

#include "FileConfiguration.h"

namespace sync {
namespace thread {

// The server's and the database's record of one file, the unit a download hands to the
// download client.
class SynchronizedFileConfiguration {
public:
    SynchronizedFileConfiguration(sync::config::FileConfiguration serverRecord,
                                  sync::config::FileConfiguration databaseRecord)
        : databaseRecord(std::move(databaseRecord)), serverRecord(std::move(serverRecord)) {}
    virtual ~SynchronizedFileConfiguration() = default;

    sync::config::FileConfiguration databaseRecord;
    sync::config::FileConfiguration serverRecord;
};

}  // namespace thread
}  // namespace sync
