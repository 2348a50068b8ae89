#pragma once

#include <QMutex>
#include <QObject>
#include <QString>
#include <QTextStream>
#include <QTimer>

namespace sync {
namespace host {

// The live line of a running sync on a terminal: files and bytes transferred so far and the
// file being transferred. Transfers report from the service thread (Report); the line is
// redrawn on the host's thread a few times a second, only when something changed.
class ProgressLine : public QObject {
    Q_OBJECT
public:
    explicit ProgressLine(QTextStream& out, QObject* parent = nullptr);
    ~ProgressLine() override;

    // True when out is a terminal; otherwise the line stays silent.
    static bool OutputIsTerminal();

    // Thread-safe.
    void Report(const QString& path, qint64 done, qint64 total);
    // Removes the line, so that the next output starts on a clean line.
    void Clear();

private:
    void _Draw();

    QTextStream& _out;
    QTimer _timer;
    mutable QMutex _mutex;
    int _files = 0;
    qint64 _finishedBytes = 0;
    qint64 _currentDone = 0;
    QString _current;
    bool _changed = false;
    bool _shown = false;
};

}  // namespace host
}  // namespace sync
