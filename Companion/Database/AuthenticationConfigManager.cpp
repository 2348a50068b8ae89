#include "AuthenticationConfigManager.h"

#include "ConfigDatabaseImpl.h"

using sync::config::ServerConfiguration;

namespace sync {
namespace database {

namespace {

const char* const kSelectById =
    "SELECT id, " SYNC_DB_ACCOUNT_COLUMNS " FROM accounts WHERE id = ?1";
const char* const kSelectAll = "SELECT id, " SYNC_DB_ACCOUNT_COLUMNS " FROM accounts ORDER BY id";
const char* const kInsert =
    "INSERT INTO accounts (" SYNC_DB_ACCOUNT_COLUMNS ") VALUES (?1, ?2, ?3, ?4, ?5)";
const char* const kUpdate =
    "UPDATE accounts SET name = ?1, kind = ?2, base_url = ?3, user_name = ?4, settings = ?5 "
    "WHERE id = ?6";
const char* const kDelete = "DELETE FROM accounts WHERE id = ?1";

}  // namespace

ServerConfiguration ReadAccountById(ConfigDatabase::Impl& impl, int authenticationId) {
    Query q(impl, kSelectById);
    q.Bind(1, authenticationId);
    return q.Step() ? RecordCodec::ReadAccount(q) : ServerConfiguration();
}

AuthenticationConfigManager::AuthenticationConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

AuthenticationConfigManager::~AuthenticationConfigManager() = default;

void AuthenticationConfigManager::RemoveAuthentication(int authenticationId) {
    Query q(_database->impl().Checked(), kDelete);
    q.Bind(1, authenticationId);
    q.Run();
}

void AuthenticationConfigManager::AddAccount(ServerConfiguration& account) {
    Query q(_database->impl().Checked(), kInsert);
    RecordCodec::BindAccount(q, account);
    q.Run();
    account.id = static_cast<int>(q.LastInsertId());
}

bool AuthenticationConfigManager::UpdateAccount(const ServerConfiguration& account) {
    if (account.id < 0) return false;
    Query q(_database->impl().Checked(), kUpdate);
    RecordCodec::BindAccount(q, account);
    q.Bind(RecordCodec::AccountValueCount + 1, account.id);
    q.Run();
    return q.Changes() > 0;
}

ServerConfiguration AuthenticationConfigManager::GetAccount(int authenticationId) {
    return ReadAccountById(_database->impl().Checked(), authenticationId);
}

QVector<ServerConfiguration> AuthenticationConfigManager::GetAccounts() {
    QVector<ServerConfiguration> accounts;
    Query q(_database->impl().Checked(), kSelectAll);
    while (q.Step()) accounts.append(RecordCodec::ReadAccount(q));
    return accounts;
}

}  // namespace database
}  // namespace sync
