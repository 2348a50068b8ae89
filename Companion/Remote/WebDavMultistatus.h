#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QXmlStreamReader>
#include <functional>

namespace sync {
namespace remote {

// One <response> of a multistatus answer, with the properties the server reported as found.
struct DavEntry {
    QString path;  // the decoded path of the href, without a trailing slash ("" for "/")
    // The href's bytes are not UTF-8: path holds a lossy decoding of them, which names another
    // entry or none, so the entry cannot be read, written or deleted by that path.
    bool undecodable = false;
    bool collection = false;
    qint64 size = -1;
    QDateTime modified;  // UTC
    QString etag;        // as the server sent it, weak prefix included
    QString id;          // DAV:resource-id, when the server has one
    // A status for the whole entry instead of properties (a folder the server could not read,
    // say); 0 when the entry came with properties.
    int status = 0;
};

// An RFC 1123 date ("Sun, 06 Nov 1994 08:49:37 GMT") in UTC; invalid when it is none.
QDateTime ParseHttpDate(const QByteArray& text);

// The body of a PROPFIND asking for exactly the properties DavEntry carries; the id only when
// wanted, as a server without ids answers "not found" for it in every entry.
QByteArray PropfindBody(bool withResourceId = true);

// Reads a multistatus answer as it arrives, handing each complete entry on at once, so that a
// listing of any size needs memory for one entry, not for the document.
class MultistatusParser {
public:
    // false stops the parse (Feed then answers false as well).
    using EntryHandler = std::function<bool(DavEntry& entry)>;

    explicit MultistatusParser(EntryHandler handler);

    // false when the document is malformed or the handler stopped.
    bool Feed(const char* data, std::size_t size);
    // true when the whole document arrived well-formed; false for a truncated one.
    bool Finish();
    const QString& Error() const { return _error; }
    // The server said it has no DAV:resource-id.
    bool ResourceIdMissing() const { return _idMissing; }
    int Entries() const { return _entries; }

private:
    enum Element : unsigned char {
        Other,
        Multistatus,
        Response,
        Href,
        Propstat,
        Prop,
        Status,
        ResourceType,
        Collection,
        ContentLength,
        LastModified,
        ETag,
        ResourceId,
    };
    bool _Run();
    bool _Hand();
    void _Start();
    bool _End();

    EntryHandler _handler;
    QXmlStreamReader _reader;
    QString _error;
    int _entries = 0;
    bool _ended = false;
    // Element kinds from the document element down to the current one.
    QVector<Element> _stack;
    QString _text;
    DavEntry _entry;
    // Properties of the propstat being read; they count only once its status says found.
    DavEntry _found;
    int _propstatStatus = 0;
    bool _idInPropstat = false;
    bool _idMissing = false;
    bool _hrefSeen = false;
    // Data not yet handed to the reader (see Feed): the start of the document until its XML
    // declaration is complete, and data that waits while the reader is stuck on _stuck bytes
    // of one long token.
    QByteArray _held;
    bool _holdingHead = true;
    qint64 _stuck = 0;
    qint64 _tokens = 0;
};

}  // namespace remote
}  // namespace sync
