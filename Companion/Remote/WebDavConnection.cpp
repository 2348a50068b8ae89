#include "WebDavConnection.h"

#include <curl/curl.h>

#include <QUrl>
#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>

#include "ServerPause.h"
#include "SyncCodes.h"
#include "WebDavMultistatus.h"

namespace sync {
namespace remote {

namespace {

// Large blocks keep the per-call cost of the callbacks and of the digest small; these are
// libcurl's upper limits for receiving and sending.
constexpr long kReceiveBufferBytes = 512L * 1024;
constexpr long kSendBufferBytes = 2L * 1024 * 1024;
constexpr std::size_t kErrorBodyBytes = 64 * 1024;
constexpr long kConnectTimeoutSeconds = 20;
// A transfer that moves nothing for this long is given up; a slow one is not.
constexpr long kStallSeconds = 120;

// FOLDERSYNC_HTTP_TIMEOUT, when it holds a positive number of seconds, replaces the stall limit
// (and shortens the connect limit to it): tests of slow servers cannot wait two minutes.
long StallSeconds() {
    static const long seconds = [] {
        bool ok = false;
        const int given = qEnvironmentVariableIntValue("FOLDERSYNC_HTTP_TIMEOUT", &ok);
        return ok && given > 0 ? long(given) : kStallSeconds;
    }();
    return seconds;
}

void InitialiseOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

QByteArray Trimmed(const char* data, std::size_t size) {
    return QByteArray(data, int(size)).trimmed();
}

// Seconds or an HTTP date, as Retry-After may carry either. A wait longer than an int holds
// is the longest one, never a number wrapped around into a short or negative one.
int RetryAfterOf(const QByteArray& value) {
    const auto wait = [](qint64 seconds) {
        return int(std::min<qint64>(std::max<qint64>(seconds, 0), std::numeric_limits<int>::max()));
    };
    bool isNumber = false;
    const qint64 seconds = value.toLongLong(&isNumber);
    if (isNumber) return wait(seconds);
    const QDateTime when = ParseHttpDate(value);
    if (!when.isValid()) return -1;
    return wait(QDateTime::currentDateTimeUtc().secsTo(when));
}

struct TransferState {
    const WebDavConnection::Request* request = nullptr;
    const std::function<bool()>* shouldStop = nullptr;
    DavResponse response;
    bool stopped = false;
};

std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* opaque) {
    auto* state = static_cast<TransferState*>(opaque);
    const std::size_t length = size * count;
    WebDavConnection::ReadHeaderLine(data, length, state->response);
    return length;
}

std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* opaque) {
    auto* state = static_cast<TransferState*>(opaque);
    const std::size_t length = size * count;
    DavResponse& r = state->response;
    r.bodyBytes += qint64(length);
    if (r.status >= 200 && r.status < 300 && state->request->sink) {
        if (!state->request->sink(data, length)) {
            state->stopped = true;
            return 0;
        }
        return length;
    }
    const std::size_t room =
        kErrorBodyBytes - std::min(kErrorBodyBytes, std::size_t(r.errorBody.size()));
    r.errorBody.append(data, int(std::min(room, length)));
    return length;
}

std::size_t OnRead(char* data, std::size_t size, std::size_t count, void* opaque) {
    auto* state = static_cast<TransferState*>(opaque);
    const qint64 n = state->request->source(data, size * count);
    if (n < 0) {
        state->stopped = true;
        return CURL_READFUNC_ABORT;
    }
    return std::size_t(n);
}

int OnSeek(void* opaque, curl_off_t offset, int origin) {
    auto* state = static_cast<TransferState*>(opaque);
    if (offset != 0 || origin != SEEK_SET || !state->request->rewind) return CURL_SEEKFUNC_CANTSEEK;
    return state->request->rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

int OnProgress(void* opaque, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* state = static_cast<TransferState*>(opaque);
    if (state->shouldStop && *state->shouldStop && (*state->shouldStop)()) {
        state->stopped = true;
        return 1;
    }
    return 0;
}

}  // namespace

WebDavConnection::WebDavConnection(const QString& user, const QString& password,
                                   const QString& caFile)
    : _user(user.toUtf8()), _password(password.toUtf8()), _caFile(caFile.toLocal8Bit()) {
    InitialiseOnce();
    _curl = curl_easy_init();
}

WebDavConnection::~WebDavConnection() {
    if (_curl) curl_easy_cleanup(static_cast<CURL*>(_curl));
}

QString WebDavConnection::Shown(const QByteArray& url) {
    return QUrl::fromEncoded(url).toString(QUrl::RemoveUserInfo | QUrl::FullyEncoded);
}

void WebDavConnection::ReadHeaderLine(const char* data, std::size_t length, DavResponse& r) {
    if (length >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
        // A new answer (after a 100 Continue, say): what the one before said no longer holds.
        const QList<QByteArray> parts = Trimmed(data, length).split(' ');
        r = DavResponse();
        r.status = parts.size() > 1 ? parts.at(1).toInt() : 0;
        return;
    }
    const char* colon = static_cast<const char*>(std::memchr(data, ':', length));
    if (!colon) return;
    const QByteArray name = QByteArray(data, int(colon - data)).trimmed().toLower();
    const QByteArray value = Trimmed(colon + 1, length - std::size_t(colon + 1 - data));
    if (name == "etag")
        r.etag = value;
    else if (name == "content-length")
        r.contentLength = value.toLongLong();
    else if (name == "last-modified")
        r.lastModified = ParseHttpDate(value);
    else if (name == "retry-after")
        r.retryAfter = RetryAfterOf(value);
}

DavResponse WebDavConnection::Perform(const Request& request) {
    TransferState state;
    state.request = &request;
    state.shouldStop = &_shouldStop;
    int pauseLeft = 0;
    const int refusal = _pause ? _pause->Refusal(&pauseLeft) : 0;
    if (refusal != 0) {
        // The server asked for a pause: asking again before it ends would only prolong it.
        state.response.status = refusal;
        state.response.error = QStringLiteral("%1 asked for a pause (%2); not sent, %3 s left")
                                   .arg(QUrl::fromEncoded(request.url).host())
                                   .arg(refusal)
                                   .arg(pauseLeft);
        return state.response;
    }
    CURL* curl = static_cast<CURL*>(_curl);
    if (!curl) {
        state.response.status = sync::http::ServiceUnavailable;
        state.response.error = QStringLiteral("the HTTP library could not be initialised");
        return state.response;
    }
    // Resetting keeps the open connections, the TLS sessions and the name cache.
    curl_easy_reset(curl);
    char errorText[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_URL, request.url.constData());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                     std::min(kConnectTimeoutSeconds, StallSeconds()));
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, StallSeconds());
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!_caFile.isEmpty()) curl_easy_setopt(curl, CURLOPT_CAINFO, _caFile.constData());
    if (!_user.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, long(CURLAUTH_BASIC));
        curl_easy_setopt(curl, CURLOPT_USERNAME, _user.constData());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, _password.constData());
    }
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &OnHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &state);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &OnBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &state);

    if (request.method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (request.source) {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, &OnRead);
        curl_easy_setopt(curl, CURLOPT_READDATA, &state);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &OnSeek);
        curl_easy_setopt(curl, CURLOPT_SEEKDATA, &state);
        if (request.sourceSize >= 0)
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, curl_off_t(request.sourceSize));
        if (request.method != "PUT")
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.constData());
    } else if (!request.body.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.constData());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.body.size()));
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.constData());
    } else if (request.method != "GET") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.constData());
    }
    if (request.stoppable && _shouldStop) {
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &OnProgress);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &state);
    }
    struct curl_slist* headers = nullptr;
    for (const QByteArray& header : request.headers)
        headers = curl_slist_append(headers, header.constData());
    if (!request.body.isEmpty())
        headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);

    const CURLcode code = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);

    DavResponse& r = state.response;
    if (code == CURLE_OK) {
        if (_pause) _pause->Note(r.status, r.retryAfter);
        return r;
    }
    const QString host = QUrl::fromEncoded(request.url).host();
    const QString detail =
        QString::fromUtf8(errorText[0] ? errorText : curl_easy_strerror(code)).trimmed();
    if (state.stopped) {
        r.aborted = true;
        r.error = QStringLiteral("transfer with %1 stopped").arg(host);
        return r;
    }
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:
            r.status = sync::http::ServiceUnavailable;
            r.error = QStringLiteral("cannot reach %1 (%2)").arg(host, detail);
            break;
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
            // 495 is the status some servers give a client whose certificate fails; here it
            // names the server's certificate failing with us.
            r.status = sync::http::CertificateNotTrusted;
            r.error = QStringLiteral("certificate of %1 not trusted (%2)").arg(host, detail);
            break;
        case CURLE_SSL_CONNECT_ERROR:
            r.status = sync::http::CertificateNotTrusted;
            r.error = QStringLiteral("secure connection to %1 failed (%2)").arg(host, detail);
            break;
        default:
            r.status = sync::http::BadGateway;
            r.error = QStringLiteral("connection to %1 broke off (%2)").arg(host, detail);
            break;
    }
    return r;
}

}  // namespace remote
}  // namespace sync
