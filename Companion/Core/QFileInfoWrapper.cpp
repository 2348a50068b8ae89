#include "QFileInfoWrapper.h"

namespace sync {
namespace core {

QFileInfoWrapper::QFileInfoWrapper(const QFileInfo& info) : _info(info) {}

QFileInfoWrapper::QFileInfoWrapper(const QString& path) : _info(path) {}

QString QFileInfoWrapper::AbsoluteFilePath() {
    return _info.absoluteFilePath();
}

QString QFileInfoWrapper::FileName() {
    return _info.fileName();
}

qint64 QFileInfoWrapper::Size() {
    // QFileInfo reports a folder's inode size; the engine wants 0 for folders.
    return _info.isDir() ? 0 : _info.size();
}

QDateTime QFileInfoWrapper::LastModified() {
    return _info.lastModified();
}

bool QFileInfoWrapper::IsFile() {
    return _info.isFile();
}

bool QFileInfoWrapper::IsDir() {
    return _info.isDir();
}

bool QFileInfoWrapper::IsSymLink() {
    return _info.isSymLink();
}

bool QFileInfoWrapper::IsHidden() {
    return _info.isHidden();
}

bool QFileInfoWrapper::Exists() {
    return _info.exists();
}

}  // namespace core
}  // namespace sync
