#pragma once

namespace sync {
namespace interf {

// Server accounts in the configuration database.
class IAuthenticationConfigManager {
public:
    virtual ~IAuthenticationConfigManager() = default;
    // Deletes the account; an unknown id is not an error. Throws sync::database::DatabaseException
    // when the database cannot be written.
    virtual void RemoveAuthentication(int authenticationId) = 0;
};

}  // namespace interf
}  // namespace sync
