#pragma once

#include <QObject>
#include <QString>

class QSocketNotifier;

namespace sync {
namespace host {

// How one foldersync process asks the service running on the same database for a cycle now or
// to reread its schedule: a named pipe beside the database. The service keeps it open for
// reading; a sender's open fails when no service reads, so it can say so at once.
class ControlChannel : public QObject {
    Q_OBJECT
public:
    enum class Request { SyncNow, ScheduleChanged };

    explicit ControlChannel(const QString& databasePath, QObject* parent = nullptr);
    ~ControlChannel() override;

    // The service's end. False (with Error()) when the pipe cannot be made or opened.
    bool Listen();
    const QString& Error() const { return _error; }

    // A sender's end: false when no service listens on that database.
    static bool Send(const QString& databasePath, Request request);

Q_SIGNALS:
    void SyncNowRequested();
    void ScheduleChangeRequested();

private:
    void _Read();

    QString _path;
    QString _error;
    int _fd = -1;
    QSocketNotifier* _notifier = nullptr;
    QByteArray _pending;
};

}  // namespace host
}  // namespace sync
