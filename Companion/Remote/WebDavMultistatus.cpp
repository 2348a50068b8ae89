#include "WebDavMultistatus.h"

#include <QUrl>
#include <cstring>

namespace sync {
namespace remote {

namespace {

int StatusOfLine(const QString& line) {
    // "HTTP/1.1 200 OK"
    const int space = line.indexOf(QLatin1Char(' '));
    if (space < 0) return 0;
    int end = line.indexOf(QLatin1Char(' '), space + 1);
    if (end < 0) end = line.size();
    return line.mid(space + 1, end - space - 1).toInt();
}

// The decoded path of an href, which may be an absolute URL or an absolute path.
QString PathOfHref(const QString& href) {
    QString encoded = href.trimmed();
    const int scheme = encoded.indexOf(QLatin1String("://"));
    if (scheme > 0) {
        const int slash = encoded.indexOf(QLatin1Char('/'), scheme + 3);
        encoded = slash < 0 ? QString() : encoded.mid(slash);
    }
    QString path = QUrl::fromPercentEncoding(encoded.toUtf8());
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
    _reader.addData(QByteArray(data, int(size)));
    return _Run();
}

bool MultistatusParser::Finish() {
    if (!_error.isEmpty()) return false;
    if (!_ended) {
        _error = QStringLiteral("the listing ended early, after %1 entries").arg(_entries);
        return false;
    }
    return true;
}

bool MultistatusParser::_Run() {
    while (!_reader.atEnd()) {
        switch (_reader.readNext()) {
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
                _entry.path = PathOfHref(_text);
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
