#include "ControlChannel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QSocketNotifier>
#include <cerrno>
#include <cstring>

namespace sync {
namespace host {

namespace {

QString PipeOf(const QString& databasePath) {
    return databasePath + QStringLiteral(".control");
}

}  // namespace

ControlChannel::ControlChannel(const QString& databasePath, QObject* parent)
    : QObject(parent), _path(PipeOf(databasePath)) {}

ControlChannel::~ControlChannel() {
    delete _notifier;
    if (_fd >= 0) ::close(_fd);
}

bool ControlChannel::Listen() {
    const QByteArray native = QFile::encodeName(_path);
    struct stat st;
    if (::lstat(native.constData(), &st) == 0 && !S_ISFIFO(st.st_mode)) {
        _error = QStringLiteral("%1 is in the way of the control pipe").arg(_path);
        return false;
    }
    if (::mkfifo(native.constData(), 0600) != 0 && errno != EEXIST) {
        _error = QStringLiteral("cannot make %1: %2")
                     .arg(_path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    // Read and write: the pipe then never reports the end of a sender as the end of input.
    _fd = ::open(native.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (_fd < 0) {
        _error = QStringLiteral("cannot open %1: %2")
                     .arg(_path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    _notifier = new QSocketNotifier(_fd, QSocketNotifier::Read);
    connect(_notifier, &QSocketNotifier::activated, this, [this] { _Read(); });
    return true;
}

void ControlChannel::_Read() {
    char buffer[256];
    for (;;) {
        const ssize_t n = ::read(_fd, buffer, sizeof buffer);
        if (n <= 0) break;
        _pending.append(buffer, int(n));
    }
    int end;
    while ((end = _pending.indexOf('\n')) >= 0) {
        const QByteArray line = _pending.left(end).trimmed();
        _pending.remove(0, end + 1);
        if (line == "now")
            emit SyncNowRequested();
        else if (line == "schedule")
            emit ScheduleChangeRequested();
    }
    // Nobody legitimate sends long lines; never let a stray writer grow the buffer.
    if (_pending.size() > 1024) _pending.clear();
}

bool ControlChannel::Send(const QString& databasePath, Request request) {
    const int fd = ::open(QFile::encodeName(PipeOf(databasePath)).constData(),
                          O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;  // ENXIO: no reader, no service
    const QByteArray line = request == Request::SyncNow ? "now\n" : "schedule\n";
    const bool sent = ::write(fd, line.constData(), size_t(line.size())) == line.size();
    ::close(fd);
    return sent;
}

}  // namespace host
}  // namespace sync
