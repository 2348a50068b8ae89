#pragma once

#include <QFileDevice>
#include <QString>
#include <memory>

#include "IQFileInfoWrapper.h"

namespace sync {
namespace interf {

// A local file. No operation throws; failures answer false or an empty value.
class IQFileWrapper {
public:
    virtual ~IQFileWrapper() = default;
    // Points the wrapper at a file.
    virtual void SetFileName(const QString& path) = 0;
    // The absolute path of the file set.
    virtual QString FileName() = 0;
    // True when a file exists at the path set.
    virtual bool Exists() = 0;
    // True when a file exists at the given path.
    virtual bool Exists(const QString& path) = 0;
    virtual std::shared_ptr<IQFileInfoWrapper> GetFileInfo() = 0;
    // Deletes the file; true when it is gone.
    virtual bool Remove() = 0;
    virtual bool SetPermissions(QFileDevice::Permissions permissions) = 0;
    // The file's partner in the root's temporary folder (".{SyncTemp}" of the root that holds
    // it), where transfers write before they commit by rename. rootPath is the root folder.
    virtual QString GetTemporaryFile(const QString& rootPath) = 0;
    // Moves a file to the user's trash; false (and the file still present) when it cannot.
    virtual bool MoveToTrash(const QString& path) = 0;
};

}  // namespace interf
}  // namespace sync
