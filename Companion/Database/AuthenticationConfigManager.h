#pragma once

#include <QVector>
#include <memory>

#include "ConfigDatabase.h"
#include "IAuthenticationConfigManager.h"
#include "ServerConfiguration.h"

namespace sync {
namespace database {

// Server accounts. An account's id is the authenticationId that folder records carry; the
// account itself is described by a ServerConfiguration with the same id. Failures throw
// DatabaseException naming the database file; a batch lost at the end of a scope is reported
// first, as by the other managers.
class AuthenticationConfigManager : public sync::interf::IAuthenticationConfigManager {
public:
    explicit AuthenticationConfigManager(std::shared_ptr<ConfigDatabase> database);
    ~AuthenticationConfigManager() override;

    void RemoveAuthentication(int authenticationId) override;

    // Stores a new account and sets its new id (1 or more) in the argument.
    void AddAccount(sync::config::ServerConfiguration& account);
    // Writes back an existing account; false when no account has that id.
    bool UpdateAccount(const sync::config::ServerConfiguration& account);
    // id -1 when there is no such account.
    sync::config::ServerConfiguration GetAccount(int authenticationId);
    // In id order.
    QVector<sync::config::ServerConfiguration> GetAccounts();

private:
    std::shared_ptr<ConfigDatabase> _database;
};

}  // namespace database
}  // namespace sync
