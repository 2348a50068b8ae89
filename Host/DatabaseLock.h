#pragma once

#include <QString>

namespace sync {
namespace host {

// One process syncs a database at a time: the lock is a file beside the database, held with
// flock() for as long as this object lives, and names the holder's process id so that a second
// process can say who holds it. The kernel drops the lock when the holder dies, so a crash
// never leaves the database locked.
class DatabaseLock {
public:
    explicit DatabaseLock(const QString& databasePath);
    ~DatabaseLock();
    DatabaseLock(const DatabaseLock&) = delete;
    DatabaseLock& operator=(const DatabaseLock&) = delete;

    // True when this process now holds the lock. With wait, blocks until the holder lets go.
    bool Acquire(bool wait);
    // The holder's process id as the lock file names it; 0 when unknown.
    qint64 HolderPid() const;
    // Why the lock file could not be opened; empty otherwise.
    const QString& Error() const { return _error; }

private:
    QString _path;
    QString _error;
    int _fd = -1;
    bool _held = false;
};

}  // namespace host
}  // namespace sync
