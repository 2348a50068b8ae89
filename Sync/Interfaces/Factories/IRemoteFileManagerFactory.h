#pragma once

#include <memory>

#include "IRemoteFileManager.h"

namespace sync {
namespace interf {
namespace factory {

class IRemoteFileManagerFactory {
public:
    virtual ~IRemoteFileManagerFactory() = default;
    // A file service bound to one account; throws sync::http::HttpException when the account
    // is unknown.
    virtual std::shared_ptr<IRemoteFileManager> CreateRemoteFileManager(int authenticationId) = 0;
};

}  // namespace factory
}  // namespace interf
}  // namespace sync
