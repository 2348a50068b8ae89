#include "WebDavMultistatus.h"

#include <QUrl>
#include <algorithm>
#include <cstring>

namespace sync {
namespace remote {

namespace {

// No listing comes near these; a server that sends more is refused instead of followed until
// memory runs out.
constexpr int kMaxHeadBytes = 4096;           // the XML declaration
constexpr qint64 kMaxTokenBytes = 1 << 20;    // one comment, tag, CDATA section or the like
constexpr int kMaxValueCharacters = 1 << 20;  // one href, tag, date or status text

int StatusOfLine(const QString& line) {
    // "HTTP/1.1 200 OK"
    const int space = line.indexOf(QLatin1Char(' '));
    if (space < 0) return 0;
    int end = line.indexOf(QLatin1Char(' '), space + 1);
    if (end < 0) end = line.size();
    return line.mid(space + 1, end - space - 1).toInt();
}

// The decoded path of an href, which may be an absolute URL or an absolute path; undecodable
// tells whether its bytes are UTF-8 that decodes and encodes back unchanged.
QString PathOfHref(const QString& href, bool& undecodable) {
    QString encoded = href.trimmed();
    const int scheme = encoded.indexOf(QLatin1String("://"));
    if (scheme > 0) {
        const int slash = encoded.indexOf(QLatin1Char('/'), scheme + 3);
        encoded = slash < 0 ? QString() : encoded.mid(slash);
    }
    const QByteArray bytes = QByteArray::fromPercentEncoding(encoded.toUtf8());
    QString path = QString::fromUtf8(bytes);
    undecodable = path.toUtf8() != bytes;
    while (path.endsWith(QLatin1Char('/'))) path.chop(1);
    return path;
}

}  // namespace

QDateTime ParseHttpDate(const QByteArray& text) {
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    // "Sun, 06 Nov 1994 08:49:37 GMT": the weekday is redundant and not checked.
    const QList<QByteArray> parts = text.trimmed().split(' ');
    if (parts.size() != 6 || parts.at(5) != "GMT") return QDateTime();
    const int day = parts.at(1).toInt();
    int month = 0;
    while (month < 12 && parts.at(2) != months[month]) ++month;
    const int year = parts.at(3).toInt();
    const QList<QByteArray> clock = parts.at(4).split(':');
    if (month == 12 || clock.size() != 3) return QDateTime();
    const QDate date(year, month + 1, day);
    const QTime time(clock.at(0).toInt(), clock.at(1).toInt(), clock.at(2).toInt());
    if (!date.isValid() || !time.isValid()) return QDateTime();
    return QDateTime(date, time, Qt::UTC);
}

QByteArray PropfindBody(bool withResourceId) {
    return QByteArrayLiteral(
               "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
               "<D:propfind xmlns:D=\"DAV:\"><D:prop>"
               "<D:resourcetype/><D:getcontentlength/><D:getlastmodified/><D:getetag/>") +
           (withResourceId ? QByteArrayLiteral("<D:resource-id/>") : QByteArray()) +
           QByteArrayLiteral("</D:prop></D:propfind>");
}

MultistatusParser::MultistatusParser(EntryHandler handler) : _handler(std::move(handler)) {
    _stack.reserve(16);
}

bool MultistatusParser::Feed(const char* data, std::size_t size) {
    if (!_error.isEmpty()) return false;
    if (_holdingHead) {
        // When the XML declaration names another encoding than the reader guessed from the
        // first bytes (UTF-16, say), the reader decodes again only the bytes it holds at that
        // moment: a declaration that arrived in pieces leaves it reading garbage. It gets the
        // declaration in one piece: up to the first '>' and the rest of that character. A '>'
        // seen before is among the last two bytes held, or they would be gone: the scan starts
        // there, not at the start again.
        const int from = std::max(0, int(_held.size()) - 2);
        _held.append(data, int(size));
        const int close = _held.indexOf('>', from);
        if (close < 0 ? _held.size() < kMaxHeadBytes : _held.size() < close + 3) return true;
        _holdingHead = false;
        return _Hand();
    }
    _held.append(data, int(size));
    // Inside a comment, a CDATA section or a processing instruction the reader reads all of it
    // again each time data arrives, which a long one arriving in small pieces makes quadratic:
    // the data waits until there is as much again as the reader is stuck on, or until the two
    // are more than one item may be.
    if (_held.size() < _stuck && _stuck + _held.size() <= kMaxTokenBytes) return true;
    return _Hand();
}

bool MultistatusParser::_Hand() {
    const qint64 tokens = _tokens;
    const qint64 handed = _held.size();
    _reader.addData(_held);
    _held.clear();
    if (!_Run()) return false;
    _stuck = _tokens == tokens ? _stuck + handed : 0;
    if (_stuck > kMaxTokenBytes) {
        _error = QStringLiteral("the listing holds a single item of more than %1 bytes")
                     .arg(kMaxTokenBytes);
        return false;
    }
    return true;
}

bool MultistatusParser::Finish() {
    if (!_error.isEmpty()) return false;
    _holdingHead = false;
    if (!_held.isEmpty() && !_Hand()) return false;
    if (!_ended) {
        _error = QStringLiteral("the listing ended early, after %1 entries").arg(_entries);
        return false;
    }
    return true;
}

bool MultistatusParser::_Run() {
    while (!_reader.atEnd()) {
        const QXmlStreamReader::TokenType token = _reader.readNext();
        if (token != QXmlStreamReader::Invalid) ++_tokens;
        switch (token) {
            case QXmlStreamReader::StartElement:
                _Start();
                break;
            case QXmlStreamReader::EndElement:
                if (!_End()) return false;
                break;
            case QXmlStreamReader::Characters:
                if (!_stack.isEmpty()) {
                    const Element e = _stack.last();
                    if (e == Href || e == Status || e == ContentLength || e == LastModified ||
                        e == ETag)
                        _text += _reader.text();
                    if (_text.size() > kMaxValueCharacters) {
                        _error = QStringLiteral(
                                     "the listing holds a value of more than %1 "
                                     "characters")
                                     .arg(kMaxValueCharacters);
                        return false;
                    }
                }
                break;
            case QXmlStreamReader::EndDocument:
                _ended = true;
                break;
            default:
                break;
        }
    }
    if (_reader.hasError() && _reader.error() != QXmlStreamReader::PrematureEndOfDocumentError) {
        _error = QStringLiteral("the listing is no valid XML: %1 (line %2)")
                     .arg(_reader.errorString())
                     .arg(_reader.lineNumber());
        return false;
    }
    return true;
}

void MultistatusParser::_Start() {
    Element e = Other;
    if (_reader.namespaceUri() == QLatin1String("DAV:")) {
        const auto name = _reader.name();
        if (name == QLatin1String("response"))
            e = Response;
        else if (name == QLatin1String("href"))
            e = Href;
        else if (name == QLatin1String("propstat"))
            e = Propstat;
        else if (name == QLatin1String("prop"))
            e = Prop;
        else if (name == QLatin1String("status"))
            e = Status;
        else if (name == QLatin1String("resourcetype"))
            e = ResourceType;
        else if (name == QLatin1String("collection"))
            e = Collection;
        else if (name == QLatin1String("getcontentlength"))
            e = ContentLength;
        else if (name == QLatin1String("getlastmodified"))
            e = LastModified;
        else if (name == QLatin1String("getetag"))
            e = ETag;
        else if (name == QLatin1String("resource-id"))
            e = ResourceId;
        else if (name == QLatin1String("multistatus"))
            e = Multistatus;
    }
    if (e == Response) {
        _entry = DavEntry();
        _hrefSeen = false;
    } else if (e == Propstat) {
        _found = DavEntry();
        _propstatStatus = 0;
        _idInPropstat = false;
    } else if (e == ResourceId) {
        _idInPropstat = true;
    }
    _text.clear();
    _stack.append(e);
}

bool MultistatusParser::_End() {
    if (_stack.isEmpty()) return true;
    const Element e = _stack.takeLast();
    const Element parent = _stack.isEmpty() ? Other : _stack.last();
    switch (e) {
        case Href:
            if (parent == Response) {
                _entry.path = PathOfHref(_text, _entry.undecodable);
                _hrefSeen = true;
            } else if (parent == ResourceId) {
                _found.id = _text.trimmed();
            }
            break;
        case Status:
            if (parent == Propstat)
                _propstatStatus = StatusOfLine(_text.trimmed());
            else if (parent == Response)
                _entry.status = StatusOfLine(_text.trimmed());
            break;
        case Collection:
            if (parent == ResourceType) _found.collection = true;
            break;
        case ContentLength:
            _found.size = _text.trimmed().toLongLong();
            break;
        case LastModified:
            _found.modified = ParseHttpDate(_text.toLatin1());
            break;
        case ETag:
            _found.etag = _text.trimmed();
            break;
        case Propstat:
            if (_propstatStatus >= 200 && _propstatStatus < 300) {
                _entry.collection = _entry.collection || _found.collection;
                if (_found.size >= 0) _entry.size = _found.size;
                if (_found.modified.isValid()) _entry.modified = _found.modified;
                if (!_found.etag.isEmpty()) _entry.etag = _found.etag;
                if (!_found.id.isEmpty()) _entry.id = _found.id;
            } else if (_idInPropstat) {
                _idMissing = true;
            }
            break;
        case Response:
            if (!_hrefSeen) {
                _error = QStringLiteral("an entry of the listing has no href");
                return false;
            }
            ++_entries;
            if (!_handler(_entry)) {
                _error = QStringLiteral("the listing was stopped");
                return false;
            }
            break;
        default:
            break;
    }
    _text.clear();
    return true;
}

}  // namespace remote
}  // namespace sync
