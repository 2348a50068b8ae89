#pragma once

#include <QDateTime>
#include <QString>

namespace sync {
namespace interf {

// One entry of the local disk, as the directory walker stands on it.
class IQFileInfoWrapper {
public:
    virtual ~IQFileInfoWrapper() = default;
    virtual QString AbsoluteFilePath() = 0;
    virtual QString FileName() = 0;
    // Size in bytes; 0 for a folder.
    virtual qint64 Size() = 0;
    // Modification time (the instant; callers must not rely on its time spec).
    virtual QDateTime LastModified() = 0;
    virtual bool IsFile() = 0;
    virtual bool IsDir() = 0;
    virtual bool IsSymLink() = 0;
    virtual bool IsHidden() = 0;
    virtual bool Exists() = 0;
    // When the entry's name is not valid UTF-8 it cannot be held in a QString and turned back
    // into the same bytes, so nothing can be done with the entry: this returns the name with
    // every byte outside valid UTF-8 written as \xNN. Empty for every other entry.
    virtual QString UndecodableName() { return QString(); }
};

}  // namespace interf
}  // namespace sync
