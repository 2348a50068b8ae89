#pragma once

#include <QString>
#include <memory>

#include "ConfigDatabase.h"
#include "ISyncConfiguration.h"

namespace sync {
namespace database {

// Engine settings kept in the configuration database. Reading never throws: a missing,
// unreadable or non-positive value answers the default (and a read error is logged). For the
// same reason a read leaves a batch lost at the end of a scope for the next manager call to
// report.
class SyncConfiguration : public sync::interf::ISyncConfiguration {
public:
    static constexpr int DefaultSyncIntervalSeconds = 300;
    static constexpr int DefaultTooManyRequestsHoldSeconds = 900;

    explicit SyncConfiguration(std::shared_ptr<ConfigDatabase> database);
    ~SyncConfiguration() override;

    int GetSyncInterval() override;
    int GetTooManyRequestsHoldSeconds() override;

    // Throw DatabaseException naming the file when the value cannot be written.
    void SetSyncInterval(int seconds);
    void SetTooManyRequestsHoldSeconds(int seconds);

private:
    int _ReadInt(const char* key, int defaultValue);
    void _WriteInt(const char* key, int value);

    std::shared_ptr<ConfigDatabase> _database;
};

}  // namespace database
}  // namespace sync
