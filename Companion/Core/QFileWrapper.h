#pragma once

#include <QString>

#include "IQFileWrapper.h"

namespace sync {
namespace core {

class QFileWrapper : public sync::interf::IQFileWrapper {
public:
    QFileWrapper() = default;
    explicit QFileWrapper(const QString& path);
    ~QFileWrapper() override = default;

    void SetFileName(const QString& path) override;
    QString FileName() override;
    bool Exists() override;
    bool Exists(const QString& path) override;
    std::shared_ptr<sync::interf::IQFileInfoWrapper> GetFileInfo() override;
    bool Remove() override;
    bool SetPermissions(QFileDevice::Permissions permissions) override;
    // "<root>/.{SyncTemp}/<name>.TMP", where name is the path below the root with "/", "%"
    // and "~" escaped, or, when that would be too long for one file name, a readable prefix
    // of it followed by "~" and the SHA-256 of the path below the root. Distinct files of a
    // root therefore never share a temporary file. The folder is not created here.
    QString GetTemporaryFile(const QString& rootPath) override;
    // The freedesktop trash of the user; never deletes outright. A file on another file system
    // than the home trash goes to the trash of its own file system (QFile::moveToTrash).
    bool MoveToTrash(const QString& path) override;

private:
    QString _path;
};

}  // namespace core
}  // namespace sync
