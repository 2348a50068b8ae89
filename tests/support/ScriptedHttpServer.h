#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace sync {
namespace test {

// An HTTP server on 127.0.0.1 that answers each request with the bytes its handler returns and
// then closes the connection: enough to cut answers short, refuse with any status, and see what
// a client sent. One request per connection; the handler runs on the server's thread.
class ScriptedHttpServer {
public:
    struct Request {
        QByteArray method, path;
        QByteArray head;  // the request line and the headers
    };
    using Handler = std::function<QByteArray(const Request&)>;

    explicit ScriptedHttpServer(Handler handler);
    ~ScriptedHttpServer();
    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    int Port() const { return _port; }
    QString Url() const { return QStringLiteral("http://127.0.0.1:%1").arg(_port); }
    // Every request received so far, in order.
    QList<Request> Requests() const;

    // A whole answer; announced >= 0 promises that many body bytes whatever the body holds.
    static QByteArray Answer(const QByteArray& status, const QByteArray& body,
                             const QByteArray& extraHeaders = QByteArray(), qint64 announced = -1);

private:
    void _Serve();

    Handler _handler;
    int _listener = -1;
    int _port = 0;
    std::atomic<bool> _stop{false};
    std::thread _thread;
    mutable std::mutex _mutex;
    QList<Request> _requests;
};

}  // namespace test
}  // namespace sync
