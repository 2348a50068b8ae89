#include "ScriptedHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <unistd.h>

namespace sync {
namespace test {

ScriptedHttpServer::ScriptedHttpServer(Handler handler) : _handler(std::move(handler)) {
    _listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        ::listen(_listener, 8) == 0)
        _port = ntohs(address.sin_port);
    _thread = std::thread([this] { _Serve(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
    _stop = true;
    // Wakes the accept() of the server's thread.
    ::shutdown(_listener, SHUT_RDWR);
    _thread.join();
    ::close(_listener);
}

QList<ScriptedHttpServer::Request> ScriptedHttpServer::Requests() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _requests;
}

QByteArray ScriptedHttpServer::Answer(const QByteArray& status, const QByteArray& body,
                                      const QByteArray& extraHeaders, qint64 announced) {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " +
           QByteArray::number(announced >= 0 ? announced : body.size()) + "\r\n" + extraHeaders +
           "\r\n" + body;
}

void ScriptedHttpServer::_Serve() {
    while (!_stop) {
        const int fd = ::accept(_listener, nullptr, nullptr);
        if (fd < 0) return;
        QByteArray data;
        char buffer[65536];
        int headEnd = -1;
        qint64 bodyLength = 0;
        bool continued = false;
        for (;;) {
            if (headEnd < 0) headEnd = data.indexOf("\r\n\r\n");
            if (headEnd >= 0) {
                const QByteArray head = data.left(headEnd).toLower();
                const int at = head.indexOf("content-length:");
                if (at >= 0) {
                    const int end = head.indexOf('\r', at);
                    bodyLength =
                        head.mid(at + 15, end < 0 ? -1 : end - at - 15).trimmed().toLongLong();
                }
                if (data.size() >= headEnd + 4 + bodyLength) break;
                if (!continued && head.contains("expect: 100-continue")) {
                    ::send(fd, "HTTP/1.1 100 Continue\r\n\r\n", 25, MSG_NOSIGNAL);
                    continued = true;
                }
            }
            const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
            if (n <= 0) break;
            data.append(buffer, int(n));
        }
        Request request;
        request.head = data.left(headEnd);
        const QList<QByteArray> line = request.head.left(request.head.indexOf("\r\n")).split(' ');
        request.method = line.value(0);
        request.path = line.value(1);
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _requests.append(request);
        }
        const QByteArray answer = _handler(request);
        ::send(fd, answer.constData(), std::size_t(answer.size()), MSG_NOSIGNAL);
        ::shutdown(fd, SHUT_WR);
        ::close(fd);
    }
}

}  // namespace test
}  // namespace sync
