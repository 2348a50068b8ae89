#include "TransferSupport.h"

#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>

#include "CryptographicHash.h"
#include "SyncLog.h"

namespace sync {
namespace remote {

FdCloser::~FdCloser() {
    if (fd >= 0) ::close(fd);
}

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= std::size_t(n);
    }
    return true;
}

bool SameStamp(const struct stat& a, const struct stat& b, bool withChangeTime) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           (!withChangeTime ||
            (a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec));
}

QDateTime WholeSecondsOf(const struct stat& st) {
    return QDateTime::fromSecsSinceEpoch(qint64(st.st_mtim.tv_sec), Qt::UTC);
}

QString ErrorText(int error) {
    return QString::fromLocal8Bit(std::strerror(error));
}

QString Normalized(QString path) {
    while (path.endsWith(QLatin1Char('/'))) path.chop(1);
    return path;
}

LocalTarget JudgeLocalTarget(const QString& target, sync::config::FileConfiguration& record,
                             qint64 downloadedSize, const QString& downloadedHash) {
    struct stat local;
    if (::lstat(QFile::encodeName(target).constData(), &local) != 0) {
        if (errno == ENOENT) return LocalTarget::Replaceable;
        SYNC_LOG_WARN("Cannot examine %1: %2", target, ErrorText(errno));
        return LocalTarget::Unreadable;
    }
    const bool regular = S_ISREG(local.st_mode);
    const bool stampAsRecorded =
        regular && record.lastModified.isValid() && qint64(local.st_size) == record.size &&
        qint64(local.st_mtim.tv_sec) == record.lastModified.toSecsSinceEpoch();
    // Read only where it can decide: as recorded by its stamp, or of the downloaded size.
    const QString localHash =
        regular && (stampAsRecorded || qint64(local.st_size) == downloadedSize)
            ? sync::core::CryptographicHash().GetFileHash(target)
            : QString();
    const bool asRecorded =
        stampAsRecorded && (record.checksum.isEmpty() || localHash == record.checksum);
    const bool sameContent = !localHash.isEmpty() && localHash == downloadedHash;
    if (asRecorded || sameContent) return LocalTarget::Replaceable;
    if (stampAsRecorded) record.lastModified = QDateTime();
    return LocalTarget::Edited;
}

}  // namespace remote
}  // namespace sync
