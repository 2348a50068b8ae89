#include "QDirWrapper.h"

#include <QFileInfo>

namespace sync {
namespace core {

QDirWrapper::QDirWrapper(std::shared_ptr<QDir> dir)
    : _dir(dir ? std::move(dir) : std::make_shared<QDir>()) {}

void QDirWrapper::SetPath(const QString& path) {
    _dir->setPath(path);
}

QString QDirWrapper::Path() {
    return QDir::cleanPath(_dir->path());
}

bool QDirWrapper::MakePath(const QString& path) {
    // A directory made meanwhile by someone else counts as made.
    QDir().mkpath(path);
    return QFileInfo(path).isDir();
}

bool QDirWrapper::DirectoryExists() {
    return QFileInfo(_dir->path()).isDir();
}

bool QDirWrapper::RemoveDirectory(const QString& path) {
    return QDir().rmdir(path);
}

bool QDirWrapper::Exists() {
    const QFileInfo info(_dir->path());
    // A dangling symbolic link is still something at that path.
    return info.exists() || info.isSymLink();
}

QStringList QDirWrapper::FileNames(const QStringList& nameFilters) {
    // Sorting would cost a comparison per name for nothing: callers look at every name.
    QDir dir(_dir->path());
    dir.setNameFilters(nameFilters);
    dir.setFilter(QDir::Files | QDir::Hidden | QDir::NoSymLinks | QDir::CaseSensitive);
    dir.setSorting(QDir::Unsorted);
    return dir.entryList();
}

}  // namespace core
}  // namespace sync
