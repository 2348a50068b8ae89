#pragma once

#include <sys/stat.h>

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <cstddef>
#include <utility>
#include <vector>

#include "FileConfiguration.h"
#include "IFileConfigManager.h"

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
// Records of files just uploaded, each with the status of the local file as the upload read
// it. A write in the second of the recorded time that keeps the size would not show in that
// time, and the record would claim a content the file no longer has: when a time stamp falls
// in the current second, waits (once) until that second is over, then looks at each file
// again. A file unchanged since it was read keeps its recorded time; one written meanwhile
// loses it, so that the next cycle reads its content to tell.
using UploadedFile = std::pair<sync::config::FileConfiguration*, struct stat>;
void SettleTimesOfRecentFiles(const std::vector<UploadedFile>& files);
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

// The database's record of a file as it was last synchronised; none (id -1) for a file that
// never settled a transfer (no checksum): its record was written for the transfer under way,
// naming a server version that was only seen, never synchronised.
sync::config::FileConfiguration LastSynchronised(sync::interf::IFileConfigManager& database,
                                                 const sync::config::FileConfiguration& file);

// After a failed upload of a file the database knows: the record names again the server
// version last synchronised, and for a file never synchronised no server version and no local
// one, so that the next cycle uploads it again and keeps a server version it replaces unseen.
// Whatever is written of the record next must not claim what did not happen.
void ForgetUnsynchronised(sync::config::FileConfiguration& file,
                          const sync::config::FileConfiguration& last);

}  // namespace remote
}  // namespace sync
