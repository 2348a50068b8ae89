#pragma once

#include <QString>
#include <memory>

#include "IQFileInfoWrapper.h"

namespace sync {
namespace interf {

// Walks a directory tree. Throws sync::core::SyncException naming the directory when a
// directory below the start cannot be read: skipping it would make its content look deleted.
class IQDirIteratorWrapper {
public:
    virtual ~IQDirIteratorWrapper() = default;
    // The entry the walker stands on (after Next()).
    virtual std::shared_ptr<IQFileInfoWrapper> FileInfo() = 0;
    virtual bool HasNext() = 0;
    // Advances and returns the new entry's path.
    virtual QString Next() = 0;
};

}  // namespace interf
}  // namespace sync
