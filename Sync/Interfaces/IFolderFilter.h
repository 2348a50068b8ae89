#pragma once

#include "FolderConfiguration.h"

namespace sync {
namespace interf {

// The host's choice of root folders that take part in a cycle.
class IFolderFilter {
public:
    virtual ~IFolderFilter() = default;
    virtual bool IsRootFolderIncluded(const sync::config::FolderConfiguration& root) = 0;
};

}  // namespace interf
}  // namespace sync
