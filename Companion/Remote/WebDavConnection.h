#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <functional>
#include <memory>

namespace sync {
namespace remote {

class ServerPause;

// What one request brought back. status is the HTTP status of the final answer, or, when no
// answer came, a status that says why (see WebDavConnection::Perform).
struct DavResponse {
    int status = 0;
    // Set when the request ended before a complete answer: the text says what went wrong,
    // never with credentials.
    QString error;
    // The exit checker asked to stop, or a body source or sink refused to go on.
    bool aborted = false;
    QByteArray etag;
    qint64 contentLength = -1;
    QDateTime lastModified;
    // Seconds from a Retry-After header; -1 without one.
    int retryAfter = -1;
    // The start of the body of an answer that was not a success, for the log and for
    // recognising a server's refusal reason.
    QByteArray errorBody;
    qint64 bodyBytes = 0;

    bool Ok() const { return !aborted && error.isEmpty() && status >= 200 && status < 300; }
};

// One libcurl easy handle of one account, reused across requests so that the connection (and
// its TLS session) stays open between them. Not thread-safe: one backend object, one thread.
//
// A request that moves no byte for two minutes is given up (503); the environment variable
// FOLDERSYNC_HTTP_TIMEOUT sets that limit in seconds instead (for tests of slow servers).
//
// Certificates are always verified, against caFile when one is given, else against the
// system's trust store. Credentials travel only in the Authorization header (Basic, sent only
// when a user name is set) and are never part of a URL, a log line or an error text.
class WebDavConnection {
public:
    // A body sink: false stops the transfer. A source fills at most size bytes and answers the
    // number filled, 0 at the end, or -1 to stop the transfer.
    using Sink = std::function<bool(const char* data, std::size_t size)>;
    using Source = std::function<qint64(char* buffer, std::size_t size)>;
    // Called when the source has to start again from its beginning; false when it cannot.
    using Rewind = std::function<bool()>;

    struct Request {
        QByteArray method;
        QByteArray url;  // percent-encoded
        QList<QByteArray> headers;
        QByteArray body;
        Source source;
        Rewind rewind;
        qint64 sourceSize = -1;
        // Receives the body of a successful (2xx) answer; other bodies go to errorBody.
        Sink sink;
        // A long transfer that the exit checker may stop.
        bool stoppable = false;
    };

    WebDavConnection(const QString& user, const QString& password, const QString& caFile);
    ~WebDavConnection();
    WebDavConnection(const WebDavConnection&) = delete;
    WebDavConnection& operator=(const WebDavConnection&) = delete;

    void SetStopCheck(std::function<bool()> shouldStop) { _shouldStop = std::move(shouldStop); }
    // The account's pause: answers that ask for one start it, and while it lasts no request is
    // sent (each answers the status that asked for it, with error set).
    void SetPause(std::shared_ptr<ServerPause> pause) { _pause = std::move(pause); }

    // Transport failures answer as a gateway would: 503 when the server cannot be reached
    // (refused, unresolved, timed out), 502 when the connection broke during the answer or the
    // answer made no sense, 495 when the server's certificate is not trusted.
    DavResponse Perform(const Request& request);

    // The percent-encoded URL with any user information removed, for log lines.
    static QString Shown(const QByteArray& url);
    // Takes one header line of an answer, as the server sent it, into response: a status line
    // starts a new answer; ETag, Content-Length, Last-Modified and Retry-After are kept.
    static void ReadHeaderLine(const char* data, std::size_t size, DavResponse& response);

private:
    void* _curl = nullptr;  // the CURL handle; libcurl's header stays out of this one
    QByteArray _user;
    QByteArray _password;
    QByteArray _caFile;
    std::function<bool()> _shouldStop;
    std::shared_ptr<ServerPause> _pause;
};

}  // namespace remote
}  // namespace sync
