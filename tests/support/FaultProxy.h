#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace sync {
namespace test {

// An HTTP proxy on 127.0.0.1 between a client and a real server (an ApacheServer, say) that
// forwards every request as it is, keep-alive connections and chunked or Content-Length bodies
// included, except those a rule picks: those it answers itself with a refusal, holds past the
// client's patience, cuts off in the middle of a body, or passes on with a broken XML body.
// It records every request and what it did with it.
//
// It serves on threads of its own with blocking sockets, so a test may block its own thread in
// a synchronous client (libcurl) or wait for a program while the proxy works.
class FaultProxy {
public:
    enum class Fault {
        // Answers with status (and Retry-After when retryAfter is set); the server sees nothing.
        Status,
        // Holds the request for delayMs, then forwards it: a server slower than the client
        // waits for. Whatever the server answers goes to a client that may have given up.
        Delay,
        // Forwards the head and part of the request body, then closes both connections.
        CutRequest,
        // Forwards the request; passes on the head and part of the answer's body, then closes.
        CutResponse,
        // Forwards the request; passes on a complete HTTP answer whose XML body ends early.
        TruncateXml,
        // Forwards the request; passes on a complete HTTP answer whose XML body is broken.
        MalformXml,
        // Forwards the request; answers with a well-formed multistatus that lists nothing.
        EmptyMultistatus,
    };

    struct Rule {
        QByteArray method;          // empty: any method
        QByteArray pathContains;    // empty: any path
        QByteArray headerContains;  // empty: any request; else a text the head must contain
        // The n-th request that matches (1 is the first); 0 for every one.
        int occurrence = 1;
        Fault fault = Fault::Status;
        int status = 500;
        QByteArray retryAfter;  // the Retry-After value of a Status answer; empty for none
        int delayMs = 0;
        // How much of the body passes before a cut or a truncation, as a fraction of it.
        double keep = 0.5;
    };

    // One request as the proxy saw it.
    struct Seen {
        int sequence = 0;
        QByteArray method;
        QByteArray path;
        QByteArray head;
        // Whether a rule changed this exchange, and which.
        bool injected = false;
        Fault fault = Fault::Status;
        // Whether the request reached the server (in whole or, for CutRequest, in part).
        bool forwarded = false;
        // The status the client was given (0 when it got no status line).
        int status = 0;
        qint64 requestBodyBytes = 0;
    };

    FaultProxy(const QString& upstreamHost, int upstreamPort);
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    int Port() const { return _port; }
    QString Url() const { return QStringLiteral("http://127.0.0.1:%1").arg(_port); }

    // Rules are tried in the order added; the first that matches a request acts on it. A rule
    // counts the requests it matched from the moment it was added.
    void AddRule(const Rule& rule);
    void ClearRules();

    QList<Seen> Log() const;
    // How many exchanges the rules changed so far.
    int Injected() const;
    // Requests that reached the server after the first injected one (all of them when nothing
    // was injected yet would be meaningless: -1 then).
    int ForwardedAfterFirstInjection() const;
    // Waits until no request is being worked on (a delayed one, say); false after timeoutMs.
    bool WaitIdle(int timeoutMs);

    static const char* Name(Fault fault);

private:
    struct Connection;
    struct RuleState {
        Rule rule;
        int matched = 0;
    };
    void _Accept();
    void _Serve(std::shared_ptr<Connection> connection);
    // Whether a rule acts on a request (the first that does goes to picked); every rule that
    // matches counts it.
    bool _Pick(const QByteArray& method, const QByteArray& path, const QByteArray& head,
               Rule* picked);
    int _Record(const Seen& seen);
    void _Update(int sequence, const std::function<void(Seen&)>& change);
    void _Busy(int delta);

    QByteArray _upstreamHost;
    int _upstreamPort;
    int _listener = -1;
    int _port = 0;
    std::atomic<bool> _stop{false};
    std::thread _acceptor;

    mutable std::mutex _mutex;
    std::condition_variable _idle;
    int _busy = 0;
    QList<RuleState> _rules;
    QList<Seen> _log;
    QList<std::shared_ptr<Connection>> _connections;
    std::vector<std::thread> _threads;
};

}  // namespace test
}  // namespace sync
