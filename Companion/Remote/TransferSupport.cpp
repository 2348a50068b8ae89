#include "TransferSupport.h"

#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>
#include <ctime>

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

void SettleTimesOfRecentFiles(const std::vector<UploadedFile>& files) {
    if (files.empty()) return;
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    time_t latest = -1;
    // A time stamp in the future is no risk: any write moves it to the present.
    for (const UploadedFile& file : files)
        if (file.second.st_mtim.tv_sec == now.tv_sec) latest = now.tv_sec;
    // Into the next second, after which any further write shows in the time stamp.
    while (latest >= 0 && now.tv_sec <= latest) {
        ::usleep(useconds_t((1000000000L - now.tv_nsec) / 1000 + 1000));
        ::clock_gettime(CLOCK_REALTIME, &now);
    }
    // A file read in an earlier second may have been written since, in the same second as its
    // time stamp: one stat each tells.
    for (const UploadedFile& file : files) {
        if (!file.first->lastModified.isValid()) continue;
        struct stat st;
        if (::stat(QFile::encodeName(file.first->localPath).constData(), &st) != 0 ||
            !SameStamp(st, file.second))
            file.first->lastModified = QDateTime();
    }
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
    // A record that lost its time (below) is judged by its content alone.
    const bool contentDecides = regular && !record.lastModified.isValid() &&
                                !record.checksum.isEmpty() && qint64(local.st_size) == record.size;
    // Read only where it can decide: as recorded by its stamp or its content, or of the
    // downloaded size.
    const bool hashed =
        regular && (stampAsRecorded || contentDecides || qint64(local.st_size) == downloadedSize);
    const QString localHash =
        hashed ? sync::core::CryptographicHash().GetFileHash(target) : QString();
    if (hashed && localHash.isEmpty()) {
        // A file that cannot be read now cannot be judged: neither replaced nor taken for an
        // edit, and the record keeps what it says.
        SYNC_LOG_WARN("Cannot read %1 to judge it", target);
        return LocalTarget::Unreadable;
    }
    const bool asRecorded =
        (stampAsRecorded && (record.checksum.isEmpty() || localHash == record.checksum)) ||
        (contentDecides && localHash == record.checksum);
    const bool sameContent = !localHash.isEmpty() && localHash == downloadedHash;
    if (asRecorded || sameContent) return LocalTarget::Replaceable;
    if (stampAsRecorded) record.lastModified = QDateTime();
    return LocalTarget::Edited;
}

sync::config::FileConfiguration LastSynchronised(sync::interf::IFileConfigManager& database,
                                                 const sync::config::FileConfiguration& file) {
    if (file.id <= 0) return sync::config::FileConfiguration();
    const sync::config::FileConfiguration stored = database.GetFileById(file.id);
    if (stored.id != file.id || stored.checksum.isEmpty()) return sync::config::FileConfiguration();
    return stored;
}

void ForgetUnsynchronised(sync::config::FileConfiguration& file,
                          const sync::config::FileConfiguration& last) {
    const QString version = QStringLiteral("version"), versionId = QStringLiteral("versionId");
    file.serverFileId = last.serverFileId;
    file.serverChecksum = last.serverChecksum;
    file.serverModified = last.serverModified;
    for (const QString& key : {version, versionId}) {
        if (last.properties.contains(key))
            file.properties.insert(key, last.properties.value(key));
        else
            file.properties.remove(key);
    }
    if (last.id > 0) return;
    file.lastModified = QDateTime();
    file.checksum.clear();
}

}  // namespace remote
}  // namespace sync
