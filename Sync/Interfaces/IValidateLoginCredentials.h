#pragma once

namespace sync {
namespace interf {

// Checks an account's credentials against its server.
class IValidateLoginCredentials {
public:
    virtual ~IValidateLoginCredentials() = default;
    // 0 when the server accepts the credentials, else the HTTP status or service error code.
    virtual int ValidateCredentials(int authenticationId) = 0;
};

}  // namespace interf
}  // namespace sync
