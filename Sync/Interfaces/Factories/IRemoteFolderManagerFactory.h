#pragma once

#include <memory>

#include "IRemoteFolderManager.h"

namespace sync {
namespace interf {
namespace factory {

class IRemoteFolderManagerFactory {
public:
    virtual ~IRemoteFolderManagerFactory() = default;
    // A folder service bound to one account; throws sync::http::HttpException when the
    // account is unknown.
    virtual std::shared_ptr<IRemoteFolderManager> CreateRemoteFolderManager(
        int authenticationId) = 0;
};

}  // namespace factory
}  // namespace interf
}  // namespace sync
