#pragma once

#include <QString>
#include <QStringList>

namespace sync {
namespace interf {

// A local directory. No operation throws; failures answer false.
class IQDirWrapper {
public:
    virtual ~IQDirWrapper() = default;
    // Points the wrapper at a directory.
    virtual void SetPath(const QString& path) = 0;
    // The directory path as set (cleaned).
    virtual QString Path() = 0;
    // Creates the directory with missing parents; true when it exists afterwards.
    virtual bool MakePath(const QString& path) = 0;
    // True when the directory set by SetPath exists and is a directory.
    virtual bool DirectoryExists() = 0;
    // Removes the empty directory at path; false when it is not empty or cannot be removed.
    virtual bool RemoveDirectory(const QString& path) = 0;
    // True when something exists at the path set by SetPath.
    virtual bool Exists() = 0;
    // The names of the regular files (hidden ones too, no links, no folders) in the directory
    // set by SetPath that match one of the wildcard patterns (letter case counts), in no
    // particular order; empty when the directory cannot be read.
    virtual QStringList FileNames(const QStringList& nameFilters) = 0;
};

}  // namespace interf
}  // namespace sync
