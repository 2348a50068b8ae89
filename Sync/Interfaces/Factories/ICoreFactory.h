#pragma once

#include <QDir>
#include <QDirIterator>
#include <QString>
#include <memory>

#include "IActionLog.h"
#include "ICheckForExit.h"
#include "IConnectedToNetwork.h"
#include "ICryptographicHash.h"
#include "IQDirIteratorWrapper.h"
#include "IQDirWrapper.h"
#include "IQFileWrapper.h"

namespace sync {
namespace interf {
namespace factory {

// Makes the core services. None of these operations fails; every call builds a new object
// except CreateCheckForExit and CreateActionLog, which hand out the process-wide instance.
class ICoreFactory {
public:
    virtual ~ICoreFactory() = default;
    // A file object whose MoveToTrash moves a file to the user's trash.
    virtual std::shared_ptr<IQFileWrapper> CreateRecycler() = 0;
    virtual std::shared_ptr<IQDirWrapper> CreateQDirWrapper(std::shared_ptr<QDir> dir) = 0;
    virtual std::shared_ptr<IQFileWrapper> CreateFileWrapper() = 0;
    virtual std::shared_ptr<ICryptographicHash> CreateCryptographicHash() = 0;
    virtual std::shared_ptr<IConnectedToNetwork> CreateConnectedToNetwork() = 0;
    virtual std::shared_ptr<ICheckForExit> CreateCheckForExit() = 0;
    // A walker over path; throws sync::core::SyncException when path cannot be read.
    virtual std::shared_ptr<IQDirIteratorWrapper> CreateQDirIterator(
        const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) = 0;
    virtual std::shared_ptr<IActionLog> CreateActionLog() = 0;
};

}  // namespace factory
}  // namespace interf
}  // namespace sync
