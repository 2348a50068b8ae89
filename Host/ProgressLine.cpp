#include "ProgressLine.h"

#include <unistd.h>

#include <QFileInfo>
#include <QMutexLocker>

namespace sync {
namespace host {

namespace {

QString Bytes(qint64 bytes) {
    if (bytes < 1024 * 1024) return QStringLiteral("%1 KiB").arg(bytes / 1024);
    if (bytes < qint64(1024) * 1024 * 1024)
        return QStringLiteral("%1 MiB").arg(double(bytes) / (1024 * 1024), 0, 'f', 1);
    return QStringLiteral("%1 GiB").arg(double(bytes) / (1024.0 * 1024 * 1024), 0, 'f', 2);
}

}  // namespace

ProgressLine::ProgressLine(QTextStream& out, QObject* parent) : QObject(parent), _out(out) {
    connect(&_timer, &QTimer::timeout, this, [this] { _Draw(); });
    _timer.start(250);
}

ProgressLine::~ProgressLine() {
    Clear();
}

bool ProgressLine::OutputIsTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

void ProgressLine::Report(const QString& path, qint64 done, qint64 total) {
    QMutexLocker lock(&_mutex);
    if (done >= total) {
        ++_files;
        _finishedBytes += total;
        _currentDone = 0;
    } else {
        _currentDone = done;
    }
    _current = path;
    _changed = true;
}

void ProgressLine::_Draw() {
    QString line;
    {
        QMutexLocker lock(&_mutex);
        if (!_changed) return;
        _changed = false;
        line = QStringLiteral("%1 file(s), %2 transferred  %3")
                   .arg(_files)
                   .arg(Bytes(_finishedBytes + _currentDone), QFileInfo(_current).fileName());
    }
    // Kept to one terminal line, whatever the name.
    if (line.size() > 100) line = line.left(99) + QChar(0x2026);
    _out << "\r\033[K" << line;
    _out.flush();
    _shown = true;
}

void ProgressLine::Clear() {
    if (!_shown) return;
    _out << "\r\033[K";
    _out.flush();
    _shown = false;
}

}  // namespace host
}  // namespace sync
