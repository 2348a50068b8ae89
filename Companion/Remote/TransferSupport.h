#pragma once

#include <sys/stat.h>

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <cstddef>

#include "FileConfiguration.h"

namespace sync {
namespace remote {

// What the backends share when they move bytes between the local disk and a server.

// Closes a file descriptor at the end of its scope.
class FdCloser {
public:
    explicit FdCloser(int fd) : fd(fd) {}
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;
    ~FdCloser();
    const int fd;
};

// Writes everything, across short writes and interrupts; false with errno set.
bool WriteAll(int fd, const char* data, std::size_t size);
// Size and modification time tell a local file's version; on a server folder the change time
// too, as the local-folder server's version ids do.
bool SameStamp(const struct stat& a, const struct stat& b, bool withChangeTime = false);
// Whole seconds: the database keeps no finer time, and the local side compares in seconds.
QDateTime WholeSecondsOf(const struct stat& st);
QString ErrorText(int error);
// A server path without trailing slashes.
QString Normalized(QString path);

// Whether a download may take the place of the local file at target, judged just before the
// rename. A file edited since it was planned is the user's work and is kept. Time stamps count
// in whole seconds, so an edit of the same size within the second of the last sync shows only
// in the content: the record's hash decides. Such an edit would never be uploaded and the
// download would fail for ever, so the record loses its time: the next cycle hashes the file
// and finds the change. A file that already holds the downloaded content loses nothing.
enum class LocalTarget { Replaceable, Edited, Unreadable };
LocalTarget JudgeLocalTarget(const QString& target, sync::config::FileConfiguration& record,
                             qint64 downloadedSize, const QString& downloadedHash);

}  // namespace remote
}  // namespace sync
