#include "AuthenticationConfigManager.h"

#include "ConfigDatabaseImpl.h"

using sync::config::ServerConfiguration;

namespace sync {
namespace database {

namespace {

const char* const kSelectById =
    "SELECT id, name, kind, base_url, user_name, settings FROM accounts WHERE id = ?1";
const char* const kSelectAll =
    "SELECT id, name, kind, base_url, user_name, settings FROM accounts ORDER BY id";
const char* const kInsert =
    "INSERT INTO accounts (name, kind, base_url, user_name, settings) VALUES (?1, ?2, ?3, ?4, ?5)";
const char* const kUpdate =
    "UPDATE accounts SET name = ?1, kind = ?2, base_url = ?3, user_name = ?4, settings = ?5 "
    "WHERE id = ?6";
const char* const kDelete = "DELETE FROM accounts WHERE id = ?1";

ServerConfiguration ReadAccount(const Query& q) {
    ServerConfiguration account;
    account.id = q.Int(0);
    account.name = q.Text(1);
    account.kind = q.Text(2);
    account.baseUrl = q.Text(3);
    account.userName = q.Text(4);
    account.settings = codec::DecodeProperties(q.Blob(5));
    return account;
}

void BindAccount(Query& q, const ServerConfiguration& account) {
    q.Bind(1, account.name);
    q.Bind(2, account.kind);
    q.Bind(3, account.baseUrl);
    q.Bind(4, account.userName);
    q.BindBlob(5, codec::EncodeProperties(account.settings));
}

}  // namespace

ServerConfiguration ReadAccountById(ConfigDatabase::Impl& impl, int authenticationId) {
    Query q(impl, kSelectById);
    q.Bind(1, authenticationId);
    return q.Step() ? ReadAccount(q) : ServerConfiguration();
}

AuthenticationConfigManager::AuthenticationConfigManager(std::shared_ptr<ConfigDatabase> database)
    : _database(std::move(database)) {}

AuthenticationConfigManager::~AuthenticationConfigManager() = default;

void AuthenticationConfigManager::RemoveAuthentication(int authenticationId) {
    Query q(_database->impl(), kDelete);
    q.Bind(1, authenticationId);
    q.Run();
}

void AuthenticationConfigManager::AddAccount(ServerConfiguration& account) {
    Query q(_database->impl(), kInsert);
    BindAccount(q, account);
    q.Run();
    account.id = static_cast<int>(q.LastInsertId());
}

bool AuthenticationConfigManager::UpdateAccount(const ServerConfiguration& account) {
    if (account.id < 0) return false;
    Query q(_database->impl(), kUpdate);
    BindAccount(q, account);
    q.Bind(6, account.id);
    q.Run();
    return q.Changes() > 0;
}

ServerConfiguration AuthenticationConfigManager::GetAccount(int authenticationId) {
    return ReadAccountById(_database->impl(), authenticationId);
}

QVector<ServerConfiguration> AuthenticationConfigManager::GetAccounts() {
    QVector<ServerConfiguration> accounts;
    Query q(_database->impl(), kSelectAll);
    while (q.Step()) accounts.append(ReadAccount(q));
    return accounts;
}

}  // namespace database
}  // namespace sync
