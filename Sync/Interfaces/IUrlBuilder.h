#pragma once

#include <QString>

#include "FolderConfiguration.h"
#include "ServerConfiguration.h"

namespace sync {
namespace interf {

// Builds the server address of an entry.
class IUrlBuilder {
public:
    virtual ~IUrlBuilder() = default;
    virtual QString BuildUrl(const sync::config::ServerConfiguration& server,
                             const QString& serverPath) = 0;
};

}  // namespace interf
}  // namespace sync
