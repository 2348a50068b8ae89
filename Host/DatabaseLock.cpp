#include "DatabaseLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>

namespace sync {
namespace host {

DatabaseLock::DatabaseLock(const QString& databasePath) : _path(databasePath + ".lock") {}

DatabaseLock::~DatabaseLock() {
    if (_fd >= 0) {
        if (_held) {
            if (::ftruncate(_fd, 0) != 0) {
                // The lock itself goes with the descriptor; a stale pid only misleads a reader.
            }
            ::flock(_fd, LOCK_UN);
        }
        ::close(_fd);
    }
}

bool DatabaseLock::Acquire(bool wait) {
    if (_held) return true;
    if (_fd < 0) {
        _fd = ::open(QFile::encodeName(_path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (_fd < 0) {
            _error = QStringLiteral("cannot open the lock file %1: %2")
                         .arg(_path, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
    }
    int rc;
    do {
        rc = ::flock(_fd, LOCK_EX | (wait ? 0 : LOCK_NB));
    } while (rc != 0 && errno == EINTR && wait);
    if (rc != 0) return false;
    _held = true;
    const QByteArray pid = QByteArray::number(static_cast<qint64>(::getpid())) + '\n';
    if (::ftruncate(_fd, 0) != 0 || ::pwrite(_fd, pid.constData(), pid.size(), 0) != pid.size()) {
        // Holding the lock is what matters; the pid is only for messages.
    }
    return true;
}

qint64 DatabaseLock::HolderPid() const {
    QFile file(_path);
    if (!file.open(QIODevice::ReadOnly)) return 0;
    return file.readLine(32).trimmed().toLongLong();
}

}  // namespace host
}  // namespace sync
