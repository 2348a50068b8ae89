#include "QDirIteratorWrapper.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "QFileInfoWrapper.h"
#include "SyncException.h"

namespace sync {
namespace core {

namespace {

bool IsDotOrDotDot(const QString& name) {
    return name == QLatin1String(".") || name == QLatin1String("..");
}

QString UnreadableMessage(const QString& path) {
    return QStringLiteral("Cannot read local folder %1").arg(QDir::toNativeSeparators(path));
}

}  // namespace

bool QDirIteratorWrapper::IsReadableDirectory(const QString& path) {
    const QByteArray native = QFile::encodeName(path);
    // Listing needs read permission, examining the entries needs search permission: a folder
    // with only one of them yields names whose type cannot be told, which is no better.
    if (::faccessat(AT_FDCWD, native.constData(), R_OK | X_OK, AT_EACCESS) != 0) return false;
    DIR* dir = ::opendir(native.constData());
    if (!dir) return false;
    ::closedir(dir);
    return true;
}

QDirIteratorWrapper::QDirIteratorWrapper(const QString& path, QDir::Filters filters,
                                         QDirIterator::IteratorFlags flags)
    // QDirIterator reads NoFilter as AllEntries; narrowing must start from the same set.
    : _filters(filters == QDir::NoFilter ? QDir::Filters(QDir::AllEntries) : filters),
      _recursive(flags.testFlag(QDirIterator::Subdirectories)) {
    if (!QFileInfo(path).isDir() || !IsReadableDirectory(path))
        throw SyncException(UnreadableMessage(path));

    // QDirIterator descends into every subdirectory whatever the Dirs filter says, and into
    // hidden ones when AllDirs is set, but reports them only when they pass the filters. Widen
    // the filters so that each such directory is reported to us; permission filters would
    // hide exactly the unreadable ones, so they are applied here instead.
    QDir::Filters iterationFilters = _filters | QDir::Dirs;
    iterationFilters &= ~QDir::Filters(QDir::PermissionMask);
    if (_filters.testFlag(QDir::AllDirs)) iterationFilters |= QDir::Hidden;
    QDirIterator::IteratorFlags iterationFlags = flags;
    iterationFlags &= ~QDirIterator::IteratorFlags(QDirIterator::FollowSymlinks);
    _iterator = std::make_unique<QDirIterator>(path, iterationFilters, iterationFlags);
}

std::shared_ptr<sync::interf::IQFileInfoWrapper> QDirIteratorWrapper::FileInfo() {
    return std::make_shared<QFileInfoWrapper>(_current);
}

bool QDirIteratorWrapper::HasNext() {
    return _hasPending || _FetchPending();
}

QString QDirIteratorWrapper::Next() {
    if (!HasNext()) {
        _current = QFileInfo();
        return QString();
    }
    _current = _pending;
    _pending = QFileInfo();
    _hasPending = false;
    return _current.filePath();
}

bool QDirIteratorWrapper::_FetchPending() {
    while (_iterator->hasNext()) {
        _iterator->next();
        const QFileInfo info = _iterator->fileInfo();
        // The iterator has just queued this directory for descent; it would skip it silently
        // if it could not be read.
        if (_recursive && info.isDir() && !info.isSymLink() && !IsDotOrDotDot(info.fileName()) &&
            !IsReadableDirectory(info.filePath())) {
            throw SyncException(UnreadableMessage(info.absoluteFilePath()));
        }
        if (!_Reportable(info)) continue;
        _pending = info;
        _hasPending = true;
        return true;
    }
    return false;
}

// The caller's filters, for the parts that the widened iteration filters let through.
bool QDirIteratorWrapper::_Reportable(const QFileInfo& info) const {
    if (info.isDir() && !(_filters & (QDir::Dirs | QDir::AllDirs))) return false;
    if (!_filters.testFlag(QDir::Hidden) && info.isHidden() && !IsDotOrDotDot(info.fileName()))
        return false;
    if ((_filters.testFlag(QDir::Readable) && !info.isReadable()) ||
        (_filters.testFlag(QDir::Writable) && !info.isWritable()) ||
        (_filters.testFlag(QDir::Executable) && !info.isExecutable()))
        return false;
    return true;
}

}  // namespace core
}  // namespace sync
