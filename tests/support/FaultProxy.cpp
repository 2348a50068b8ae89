#include "FaultProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <unistd.h>

#include <QThread>
#include <algorithm>
#include <chrono>
#include <functional>

namespace sync {
namespace test {

namespace {

constexpr int kPollMs = 100;
constexpr qint64 kMaxBody = qint64(256) << 20;

QByteArray Reason(int status) {
    switch (status) {
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 423:
            return "Locked";
        case 429:
            return "Too Many Requests";
        case 500:
            return "Internal Server Error";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 507:
            return "Insufficient Storage";
        default:
            return "Status";
    }
}

// The value of a header of a message head, trimmed; empty when it is absent.
QByteArray HeaderValue(const QByteArray& head, const QByteArray& name) {
    const QList<QByteArray> lines = head.split('\n');
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == name)
            return line.mid(colon + 1).trimmed();
    }
    return QByteArray();
}

// The head without the named headers; still ending in one CRLF per line, no blank line.
QByteArray WithoutHeaders(const QByteArray& head, const QList<QByteArray>& names) {
    QByteArray out;
    const QList<QByteArray> lines = head.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        QByteArray line = lines.at(i);
        if (line.endsWith('\r')) line.chop(1);
        if (line.isEmpty()) continue;
        const int colon = line.indexOf(':');
        if (i > 0 && colon > 0 && names.contains(line.left(colon).trimmed().toLower())) continue;
        out += line + "\r\n";
    }
    return out;
}

int Connect(const QByteArray& host, int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(quint16(port));
    if (::inet_pton(AF_INET, host.constData(), &address.sin_addr) != 1 ||
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool SendAll(int fd, const QByteArray& data) {
    const char* p = data.constData();
    qint64 left = data.size();
    while (left > 0) {
        const ssize_t n = ::send(fd, p, std::size_t(left), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= n;
    }
    return true;
}

// One side of a connection: its socket and what was read from it but not yet used.
struct Stream {
    int fd = -1;
    QByteArray buffer;
    const std::atomic<bool>* stop = nullptr;

    // Reads what is there; false at the end of the stream, on an error or when stopping.
    bool More() {
        char block[65536];
        for (;;) {
            if (stop->load()) return false;
            pollfd p{fd, POLLIN, 0};
            const int ready = ::poll(&p, 1, kPollMs);
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0) return false;
            if (ready == 0) continue;
            const ssize_t n = ::recv(fd, block, sizeof(block), 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            buffer.append(block, int(n));
            return true;
        }
    }
    // The head of a message without its blank line; false when the stream ended first.
    bool Head(QByteArray* head) {
        for (;;) {
            const int end = buffer.indexOf("\r\n\r\n");
            if (end >= 0) {
                *head = buffer.left(end + 2);
                buffer.remove(0, end + 4);
                return true;
            }
            if (!More()) return false;
        }
    }
    bool Take(qint64 n, QByteArray* out) {
        while (buffer.size() < n)
            if (!More()) return false;
        *out += buffer.left(int(n));
        buffer.remove(0, int(n));
        return true;
    }
    bool Line(QByteArray* out) {
        for (;;) {
            const int end = buffer.indexOf("\r\n");
            if (end >= 0) {
                *out = buffer.left(end + 2);
                buffer.remove(0, end + 2);
                return true;
            }
            if (!More()) return false;
        }
    }
};

// A message body as it came over the wire (raw) and as its content (data).
struct Body {
    QByteArray raw;
    QByteArray data;
};

enum class Framing { None, Length, Chunked, UntilClose };

Framing FramingOf(const QByteArray& head, bool response, const QByteArray& method, int status,
                  qint64* length) {
    if (response && (method == "HEAD" || status / 100 == 1 || status == 204 || status == 304))
        return Framing::None;
    if (HeaderValue(head, "transfer-encoding").toLower().contains("chunked"))
        return Framing::Chunked;
    const QByteArray declared = HeaderValue(head, "content-length");
    if (!declared.isEmpty()) {
        *length = declared.toLongLong();
        return *length > 0 ? Framing::Length : Framing::None;
    }
    return response ? Framing::UntilClose : Framing::None;
}

bool ReadBody(Stream& s, Framing framing, qint64 length, Body* body) {
    switch (framing) {
        case Framing::None:
            return true;
        case Framing::Length:
            if (length > kMaxBody || !s.Take(length, &body->raw)) return false;
            body->data = body->raw;
            return true;
        case Framing::Chunked:
            for (;;) {
                QByteArray line;
                if (!s.Line(&line)) return false;
                body->raw += line;
                bool ok = false;
                const qint64 size = line.split(';').first().trimmed().toLongLong(&ok, 16);
                if (!ok || size < 0 || size > kMaxBody) return false;
                if (size == 0) {
                    // Trailers up to the blank line.
                    for (;;) {
                        if (!s.Line(&line)) return false;
                        body->raw += line;
                        if (line == "\r\n") return true;
                    }
                }
                QByteArray chunk;
                if (!s.Take(size + 2, &chunk)) return false;
                body->raw += chunk;
                body->data += chunk.left(int(size));
            }
        case Framing::UntilClose:
            while (s.More()) {
            }
            body->raw = body->data = s.buffer;
            s.buffer.clear();
            return true;
    }
    return false;
}

int StatusOf(const QByteArray& head) {
    const QList<QByteArray> parts = head.left(head.indexOf('\r')).split(' ');
    return parts.size() > 1 ? parts.at(1).toInt() : 0;
}

// A part of n bytes that is neither nothing nor everything, where n allows it.
int PartOf(qint64 n, double keep) {
    if (n < 2) return 0;
    return int(std::clamp<qint64>(qint64(double(n) * keep), 1, n - 1));
}

}  // namespace

struct FaultProxy::Connection {
    std::mutex mutex;
    int client = -1;
    int upstream = -1;

    void Close(int& fd) {
        std::lock_guard<std::mutex> lock(mutex);
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    void Shutdown() {
        std::lock_guard<std::mutex> lock(mutex);
        if (client >= 0) ::shutdown(client, SHUT_RDWR);
        if (upstream >= 0) ::shutdown(upstream, SHUT_RDWR);
    }
};

const char* FaultProxy::Name(Fault fault) {
    switch (fault) {
        case Fault::Status:
            return "status";
        case Fault::Delay:
            return "delay";
        case Fault::CutRequest:
            return "cut request";
        case Fault::CutResponse:
            return "cut response";
        case Fault::TruncateXml:
            return "truncated XML";
        case Fault::MalformXml:
            return "malformed XML";
        case Fault::EmptyMultistatus:
            return "empty multistatus";
    }
    return "?";
}

FaultProxy::FaultProxy(const QString& upstreamHost, int upstreamPort)
    : _upstreamHost(upstreamHost.toLatin1()), _upstreamPort(upstreamPort) {
    _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(_listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        ::listen(_listener, 64) == 0)
        _port = ntohs(address.sin_port);
    _acceptor = std::thread([this] { _Accept(); });
}

FaultProxy::~FaultProxy() {
    _stop = true;
    ::shutdown(_listener, SHUT_RDWR);
    _acceptor.join();
    ::close(_listener);
    QList<std::shared_ptr<Connection>> connections;
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        connections = _connections;
        threads.swap(_threads);
    }
    for (const auto& c : connections) c->Shutdown();
    for (std::thread& t : threads) t.join();
}

void FaultProxy::AddRule(const Rule& rule) {
    std::lock_guard<std::mutex> lock(_mutex);
    _rules.append(RuleState{rule, 0});
}

void FaultProxy::ClearRules() {
    std::lock_guard<std::mutex> lock(_mutex);
    _rules.clear();
}

QList<FaultProxy::Seen> FaultProxy::Log() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _log;
}

int FaultProxy::Injected() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return int(std::count_if(_log.cbegin(), _log.cend(), [](const Seen& s) { return s.injected; }));
}

int FaultProxy::ForwardedAfterFirstInjection() const {
    std::lock_guard<std::mutex> lock(_mutex);
    int first = -1, count = 0;
    for (const Seen& s : _log) {
        if (first < 0) {
            if (s.injected) first = s.sequence;
            continue;
        }
        if (s.forwarded) ++count;
    }
    return first < 0 ? -1 : count;
}

bool FaultProxy::WaitIdle(int timeoutMs) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _idle.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [this] { return _busy == 0; });
}

void FaultProxy::_Busy(int delta) {
    std::lock_guard<std::mutex> lock(_mutex);
    _busy += delta;
    if (_busy == 0) _idle.notify_all();
}

bool FaultProxy::_Pick(const QByteArray& method, const QByteArray& path, const QByteArray& head,
                       Rule* picked) {
    std::lock_guard<std::mutex> lock(_mutex);
    bool found = false;
    for (RuleState& state : _rules) {
        const Rule& r = state.rule;
        if (!r.method.isEmpty() && r.method != method) continue;
        if (!r.pathContains.isEmpty() && !path.contains(r.pathContains)) continue;
        if (!r.headerContains.isEmpty() && !head.contains(r.headerContains)) continue;
        ++state.matched;
        if (found) continue;
        if (r.occurrence == 0 || r.occurrence == state.matched) {
            *picked = r;
            found = true;
        }
    }
    return found;
}

int FaultProxy::_Record(const Seen& seen) {
    std::lock_guard<std::mutex> lock(_mutex);
    Seen entry = seen;
    entry.sequence = _log.size() + 1;
    _log.append(entry);
    return entry.sequence;
}

void FaultProxy::_Update(int sequence, const std::function<void(Seen&)>& change) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (sequence >= 1 && sequence <= _log.size()) change(_log[sequence - 1]);
}

void FaultProxy::_Accept() {
    while (!_stop) {
        const int fd = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            return;
        }
        auto connection = std::make_shared<Connection>();
        connection->client = fd;
        std::lock_guard<std::mutex> lock(_mutex);
        if (_stop) {
            ::close(fd);
            return;
        }
        _connections.append(connection);
        _threads.emplace_back([this, connection] { _Serve(connection); });
    }
}

void FaultProxy::_Serve(std::shared_ptr<Connection> c) {
    Stream client{c->client, {}, &_stop};
    Stream upstream{-1, {}, &_stop};
    const auto openUpstream = [&] {
        c->Close(c->upstream);
        const int fd = Connect(_upstreamHost, _upstreamPort);
        {
            std::lock_guard<std::mutex> lock(c->mutex);
            c->upstream = fd;
        }
        upstream = Stream{fd, {}, &_stop};
        return fd >= 0;
    };

    for (;;) {
        QByteArray head;
        if (!client.Head(&head)) break;
        _Busy(+1);
        const QList<QByteArray> line = head.left(head.indexOf('\r')).split(' ');
        Seen seen;
        seen.method = line.value(0);
        seen.path = line.value(1);
        seen.head = head;
        Rule rule;
        const bool act = _Pick(seen.method, seen.path, head, &rule);
        seen.injected = act;
        seen.fault = rule.fault;
        const int sequence = _Record(seen);
        bool keepOpen = false;
        // One exchange; keepOpen says whether the connection serves another.
        [&] {
            const bool expectContinue =
                HeaderValue(head, "expect").toLower().contains("100-continue");
            qint64 length = 0;
            const Framing requestFraming = FramingOf(head, false, seen.method, 0, &length);
            Body request;
            if (act && rule.fault == Fault::Status) {
                // A client that waits for "100 Continue" sends no body to a final answer.
                if (!expectContinue) ReadBody(client, requestFraming, length, &request);
                QByteArray answer = "HTTP/1.1 " + QByteArray::number(rule.status) + ' ' +
                                    Reason(rule.status) + "\r\n";
                const QByteArray body = "injected " + QByteArray::number(rule.status) + "\n";
                answer += "Content-Type: text/plain\r\nConnection: close\r\nContent-Length: " +
                          QByteArray::number(body.size()) + "\r\n";
                if (!rule.retryAfter.isEmpty())
                    answer += "Retry-After: " + rule.retryAfter + "\r\n";
                if (rule.status == 401) answer += "WWW-Authenticate: Basic realm=\"dav\"\r\n";
                answer += "\r\n" + body;
                SendAll(c->client, answer);
                _Update(sequence, [&](Seen& s) {
                    s.status = rule.status;
                    s.requestBodyBytes = request.data.size();
                });
                return;
            }
            if (expectContinue && !SendAll(c->client, "HTTP/1.1 100 Continue\r\n\r\n")) return;
            if (!ReadBody(client, requestFraming, length, &request)) return;
            _Update(sequence, [&](Seen& s) { s.requestBodyBytes = request.data.size(); });
            const QByteArray forwardHead = WithoutHeaders(head, {"expect"}) + "\r\n";

            if (act && rule.fault == Fault::Delay) {
                const auto until =
                    std::chrono::steady_clock::now() + std::chrono::milliseconds(rule.delayMs);
                while (!_stop && std::chrono::steady_clock::now() < until) QThread::msleep(20);
            }
            if (act && rule.fault == Fault::CutRequest) {
                // The server gets the head and part of the body, then the connection ends.
                if (!openUpstream()) return;
                const int part = PartOf(request.raw.size(), rule.keep);
                SendAll(upstream.fd, forwardHead + request.raw.left(part));
                _Update(sequence, [](Seen& s) { s.forwarded = true; });
                // Long enough for the server to read what came before it sees the end.
                QThread::msleep(50);
                return;
            }

            // Forwards; a kept-alive upstream connection that the server closed meanwhile is
            // opened again once.
            QByteArray answerHead;
            bool sent = false;
            for (int attempt = 0; attempt < 2 && !sent; ++attempt) {
                const bool fresh = upstream.fd < 0 || attempt > 0;
                if (fresh && !openUpstream()) return;
                if (!SendAll(upstream.fd, forwardHead + request.raw)) continue;
                if (upstream.Head(&answerHead)) {
                    sent = true;
                } else if (!upstream.buffer.isEmpty() || fresh) {
                    break;
                }
            }
            _Update(sequence, [](Seen& s) { s.forwarded = true; });
            if (!sent) return;
            int status = StatusOf(answerHead);
            // An interim answer is passed on as it is; the final one follows.
            while (status / 100 == 1 && status != 101) {
                if (!SendAll(c->client, answerHead + "\r\n") || !upstream.Head(&answerHead)) return;
                status = StatusOf(answerHead);
            }
            qint64 answerLength = 0;
            const Framing answerFraming =
                FramingOf(answerHead, true, seen.method, status, &answerLength);
            Body answer;
            if (!ReadBody(upstream, answerFraming, answerLength, &answer)) return;
            _Update(sequence, [&](Seen& s) { s.status = status; });

            // What the answer becomes: the server's, cut short, or with another body.
            const bool rewrite =
                act && (rule.fault == Fault::TruncateXml || rule.fault == Fault::MalformXml ||
                        rule.fault == Fault::EmptyMultistatus);
            if (act && rule.fault == Fault::CutResponse) {
                // The head goes whole when there is a body to cut; else half the head goes.
                const QByteArray whole = answerHead + "\r\n";
                const int part = PartOf(answer.raw.size(), rule.keep);
                SendAll(c->client, part > 0 ? whole + answer.raw.left(part)
                                            : whole.left(PartOf(whole.size(), rule.keep)));
                return;
            }
            if (rewrite) {
                QByteArray body = answer.data;
                const int at = PartOf(body.size(), rule.keep);
                if (rule.fault == Fault::TruncateXml)
                    body = body.left(at);
                else if (rule.fault == Fault::MalformXml)
                    // An end tag that closes nothing, wherever it falls, breaks the document.
                    body = body.left(at) + "</D:unopened>" + body.mid(at);
                else
                    body =
                        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus "
                        "xmlns:D=\"DAV:\">\n</D:multistatus>\n";
                const QByteArray changedHead =
                    WithoutHeaders(answerHead, {"content-length", "transfer-encoding"}) +
                    "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n";
                if (!SendAll(c->client, changedHead + body)) return;
            } else if (!SendAll(c->client, answerHead + "\r\n" + answer.raw)) {
                return;
            }
            const bool closing =
                answerFraming == Framing::UntilClose ||
                HeaderValue(answerHead, "connection").toLower().contains("close") ||
                HeaderValue(head, "connection").toLower().contains("close");
            if (closing) {
                c->Close(c->upstream);
                upstream.fd = -1;
                return;
            }
            keepOpen = true;
        }();
        _Busy(-1);
        if (!keepOpen) break;
    }
    c->Close(c->upstream);
    c->Close(c->client);
}

}  // namespace test
}  // namespace sync
