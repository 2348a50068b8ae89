#include "SyncConfiguration.h"

#include "ConfigDatabaseImpl.h"
#include "SyncLog.h"

namespace sync {
namespace database {

namespace {
const char* const kSyncInterval = "sync_interval_seconds";
const char* const kHoldSeconds = "too_many_requests_hold_seconds";
const char* const kSelect = "SELECT value FROM settings WHERE key = ?1";
const char* const kStore = "INSERT OR REPLACE INTO settings (key, value) VALUES (?1, ?2)";
}  // namespace

SyncConfiguration::SyncConfiguration(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

SyncConfiguration::~SyncConfiguration() = default;

int SyncConfiguration::GetSyncInterval() {
    return _ReadInt(kSyncInterval, DefaultSyncIntervalSeconds);
}

int SyncConfiguration::GetTooManyRequestsHoldSeconds() {
    return _ReadInt(kHoldSeconds, DefaultTooManyRequestsHoldSeconds);
}

void SyncConfiguration::SetSyncInterval(int seconds) {
    _WriteInt(kSyncInterval, seconds);
}

void SyncConfiguration::SetTooManyRequestsHoldSeconds(int seconds) {
    _WriteInt(kHoldSeconds, seconds);
}

int SyncConfiguration::_ReadInt(const char* key, int defaultValue) {
    try {
        Query q(_database->impl(), kSelect);
        q.Bind(1, QString::fromLatin1(key));
        if (!q.Step() || q.IsNull(0)) return defaultValue;
        const int value = q.Int(0);
        return value > 0 ? value : defaultValue;
    } catch (const std::exception& e) {
        SYNC_LOG_ERROR("Failed to read setting %1: %2", key, e.what());
        return defaultValue;
    }
}

void SyncConfiguration::_WriteInt(const char* key, int value) {
    Query q(_database->impl().Checked(), kStore);
    q.Bind(1, QString::fromLatin1(key));
    q.Bind(2, value);
    q.Run();
}

}  // namespace database
}  // namespace sync
