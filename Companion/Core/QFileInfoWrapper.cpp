#include <sys/stat.h>
#include <QFile>

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

bool QFileInfoWrapper::_Stat() {
    if (!_statDone) {
        _statDone = true;
        struct stat st;
        _statOk = ::stat(QFile::encodeName(_info.absoluteFilePath()).constData(), &st) == 0;
        if (_statOk) {
            _size = S_ISDIR(st.st_mode) ? 0 : qint64(st.st_size);
            _modifiedMs = qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
        }
    }
    return _statOk;
}

qint64 QFileInfoWrapper::Size() {
    // A folder's inode size means nothing to the engine: folders have size 0.
    if (_Stat()) return _size;
    return _info.isDir() ? 0 : _info.size();
}

QDateTime QFileInfoWrapper::LastModified() {
    // QFileInfo converts to local time, and with TZ unset glibc re-checks /etc/localtime on
    // every conversion: a walk of 100,000 files spent a third of its time there. The instant is
    // what matters, so it is kept in UTC. One stat serves both size and time.
    if (_Stat()) return QDateTime::fromMSecsSinceEpoch(_modifiedMs, Qt::UTC);
    return _info.lastModified().toUTC();
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
