// The header lines of a WebDAV answer, one line each as the HTTP library hands them on:
// status lines, ETag, Content-Length, Last-Modified and Retry-After (seconds or a date).
// Besides never crashing, what is read must be usable as it is documented: a Retry-After is
// -1 or a wait in seconds, a date is UTC, and a date that was read reads again from its own
// RFC 1123 form as the same instant.
#include <QByteArray>
#include <QDateTime>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "WebDavConnection.h"
#include "WebDavMultistatus.h"

using sync::remote::DavResponse;
using sync::remote::ParseHttpDate;
using sync::remote::WebDavConnection;

namespace {

[[noreturn]] void Fail(const char* what, const QByteArray& line) {
    std::fprintf(stderr, "headers fuzzer: %s: \"%s\"\n", what, line.constData());
    std::abort();
}

QByteArray Rfc1123(const QDateTime& utc) {
    static const char* const days[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const QDate d = utc.date();
    const QTime t = utc.time();
    return QByteArray(days[d.dayOfWeek() - 1]) + ", " + QByteArray::number(d.day()) + ' ' +
           months[d.month() - 1] + ' ' + QByteArray::number(d.year()) + ' ' +
           QByteArray::number(t.hour()) + ':' + QByteArray::number(t.minute()) + ':' +
           QByteArray::number(t.second()) + " GMT";
}

void CheckDate(const QByteArray& text) {
    const QDateTime date = ParseHttpDate(text);
    if (!date.isValid()) return;
    if (date.timeSpec() != Qt::UTC) Fail("a date is not UTC", text);
    if (ParseHttpDate(Rfc1123(date)) != date) Fail("a date does not read back", text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray block(reinterpret_cast<const char*>(data), static_cast<int>(size));
    DavResponse response;
    qsizetype start = 0;
    while (start < block.size()) {
        qsizetype end = block.indexOf('\n', start);
        end = end < 0 ? block.size() : end + 1;
        const QByteArray line = block.mid(start, end - start);
        WebDavConnection::ReadHeaderLine(line.constData(), static_cast<std::size_t>(line.size()),
                                         response);
        if (response.retryAfter < -1) Fail("a Retry-After is a negative wait", line);
        if (response.lastModified.isValid() && response.lastModified.timeSpec() != Qt::UTC)
            Fail("a Last-Modified date is not UTC", line);
        const qsizetype colon = line.indexOf(':');
        CheckDate(colon < 0 ? line : line.mid(colon + 1));
        start = end;
    }
    return 0;
}
