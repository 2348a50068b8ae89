#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "PosixIo.h"

namespace posixio {

bool IsLockedForWrite(const char* utf8Path) {
    const int fd = ::open(utf8Path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return true;
    // Linux has no O_EXLOCK: take the same exclusive lock right after opening.
    const bool locked = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return locked;
}

}  // namespace posixio
