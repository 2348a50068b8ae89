#include "OpenNameByName.h"

#include <fcntl.h>
#include <unistd.h>

#include <QList>
#include <cerrno>

namespace sync {
namespace core {

int OpenNameByName(const QByteArray& top, const QByteArray& native) {
    if (!native.startsWith(top)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = ::open(top.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const QByteArray& name : native.mid(top.size()).split('/')) {
        if (name.isEmpty()) continue;
        if (fd < 0) return -1;
        const int next =
            ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int error = errno;
        ::close(fd);
        errno = error;
        fd = next;
    }
    return fd;
}

}  // namespace core
}  // namespace sync
