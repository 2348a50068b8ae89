#include "RecordCodec.h"

#include <QTimeZone>
#include <algorithm>
#include <cstring>

#include "Query.h"

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::config::ServerConfiguration;

namespace sync {
namespace database {

namespace {

// Short texts that recur across thousands of records (property names, version numbers,
// privilege texts, content types) are held once per thread and shared: a tree of 100,000 file
// records would otherwise hold 100,000 copies of "version". Each slot keeps the last text that
// hashed to it, so a run of distinct texts costs a hash and a slot each, never a growing table.
class RecurringTexts {
public:
    static constexpr int MaxLength = 24;

    static QString Shared(const QChar* chars, int length) {
        thread_local QString table[256];
        quint32 hash = 2166136261u;
        for (int i = 0; i < length; ++i) hash = (hash ^ chars[i].unicode()) * 16777619u;
        QString& slot = table[hash % 256];
        if (slot.size() != length ||
            std::memcmp(slot.constData(), chars, sizeof(QChar) * static_cast<size_t>(length)) != 0)
            slot = QString(chars, length);
        return slot;
    }
};

// A text column whose values repeat from record to record; NULL reads as a null string.
QString RecurringText(const Query& q, int column) {
    const SQLite::Column& value = q.Value(column);
    const char* text = value.getText(nullptr);
    if (!text) return QString();
    const int bytes = value.getBytes();
    if (bytes == 0 || bytes > RecurringTexts::MaxLength) return q.Text(column);
    QChar chars[RecurringTexts::MaxLength];
    for (int i = 0; i < bytes; ++i) {
        const uchar c = static_cast<uchar>(text[i]);
        if (c >= 0x80) return q.Text(column);
        chars[i] = QChar(c);
    }
    return RecurringTexts::Shared(chars, bytes);
}

// A text column that most records fill with the text of another field (the server's hash is
// mostly the local one; a folder's path is its server path): read as that field's string
// when equal, so that both share one copy. NULL reads as a null string.
QString TextOrSame(const Query& q, int column, const QString& same) {
    const SQLite::Column& value = q.Value(column);
    const char* text = value.getText(nullptr);
    if (!text) return QString();
    if (same.isNull()) return q.Text(column);
    const int bytes = value.getBytes();
    if (bytes == same.size()) {
        const QChar* chars = same.constData();
        int i = 0;
        while (i < bytes && static_cast<uchar>(text[i]) < 0x80 &&
               chars[i].unicode() == static_cast<uchar>(text[i]))
            ++i;
        if (i == bytes) return same;
    }
    QString read = q.Text(column);
    return read == same ? same : read;
}

// A big-endian quint32 count, then the values; a string is a big-endian quint32 byte length
// (0xFFFFFFFF for a null string) and UTF-16BE.
class Writer {
public:
    void UInt32(quint32 v) {
        const char bytes[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
        blob.append(bytes, 4);
    }
    void Int64(qint64 value) {
        const quint64 v = static_cast<quint64>(value);
        UInt32(static_cast<quint32>(v >> 32));
        UInt32(static_cast<quint32>(v));
    }
    void String(const QString& s) {
        if (s.isNull()) {
            UInt32(0xFFFFFFFFu);
            return;
        }
        UInt32(static_cast<quint32>(s.size() * 2));
        for (const QChar c : s) {
            const ushort u = c.unicode();
            const char bytes[2] = {char(u >> 8), char(u)};
            blob.append(bytes, 2);
        }
    }
    QByteArray blob;
};

// Stops at the first value that does not fit; what was read before it stays.
class Reader {
public:
    explicit Reader(const QByteArray& blob)
        : _p(reinterpret_cast<const uchar*>(blob.constData())), _end(_p + blob.size()) {}
    bool ok() const { return _ok; }
    quint32 UInt32() {
        if (_end - _p < 4) return _Fail();
        const quint32 v = (quint32(_p[0]) << 24) | (quint32(_p[1]) << 16) | (quint32(_p[2]) << 8) |
                          quint32(_p[3]);
        _p += 4;
        return v;
    }
    qint64 Int64() {
        const quint64 high = UInt32();
        const quint64 low = UInt32();
        return static_cast<qint64>((high << 32) | low);
    }
    QString String() { return _String(false); }
    // A text that many records repeat (a property name, a version number): shared when short.
    QString RecurringString() { return _String(true); }

private:
    QString _String(bool recurring) {
        const quint32 bytes = UInt32();
        if (!_ok || bytes == 0xFFFFFFFFu) return QString();
        if (bytes % 2 != 0 || quint32(_end - _p) < bytes) {
            _Fail();
            return QString();
        }
        const int length = static_cast<int>(bytes / 2);
        if (recurring && length > 0 && length <= RecurringTexts::MaxLength) {
            QChar chars[RecurringTexts::MaxLength];
            for (int i = 0; i < length; ++i) chars[i] = _Char(i);
            _p += bytes;
            return RecurringTexts::Shared(chars, length);
        }
        QString s(length, Qt::Uninitialized);
        QChar* out = s.data();
        for (int i = 0; i < length; ++i) out[i] = _Char(i);
        _p += bytes;
        return s;
    }
    QChar _Char(int i) const {
        return QChar(static_cast<ushort>((_p[2 * i] << 8) | _p[2 * i + 1]));
    }
    quint32 _Fail() {
        _ok = false;
        _p = _end;
        return 0;
    }
    const uchar* _p;
    const uchar* _end;
    bool _ok = true;
};

}  // namespace

// --- records ----------------------------------------------------------------------------------

void RecordCodec::BindFolder(Query& q, const FolderConfiguration& f) {
    q.Bind(1, f.authenticationId);
    q.Bind(2, f.rootId);
    q.Bind(3, f.inheritedId);
    q.Bind(4, f.name);
    q.Bind(5, f.serverAttribute);
    q.Bind(6, f.path);
    q.Bind(7, f.localPath);
    q.Bind(8, PathKey(f.localPath));
    q.Bind(9, f.serverPath);
    q.Bind(10, f.parentId);
    BindTime(q, 11, f.lastModified);
    q.Bind(13, f.syncScope);
    q.Bind(14, f.serverCreationFailed);
    q.Bind(15, f.inheritedValue);
    q.Bind(16, f.syncOption);
    q.Bind(17, f.privilegeInfo);
    q.Bind(18, f.privileges);
    q.Bind(19, f.serverRootPath);
    q.Bind(20, f.serverFolderId);
    q.BindBlob(21, EncodeProperties(f.properties));
    BindTime(q, 22, f.lastSyncTime);
    BindTime(q, 24, f.lastServerSyncRequestTime);
    q.Bind(26, static_cast<int>(f.syncStatus));
    q.Bind(27, f.userFlag);
}

FolderConfiguration RecordCodec::ReadFolder(const Query& q) {
    FolderConfiguration f;
    f.id = q.Int(0);
    f.authenticationId = q.Int(1);
    f.rootId = q.Int(2);
    f.inheritedId = q.Int(3);
    f.name = q.Text(4);
    f.serverAttribute = RecurringText(q, 5);
    f.path = q.Text(6);
    f.localPath = q.Text(7);
    // 8 is the lookup key
    f.serverPath = TextOrSame(q, 9, f.path);
    f.parentId = q.Int(10);
    f.lastModified = ReadTime(q, 11);
    f.syncScope = q.Int(13);
    f.serverCreationFailed = q.Int(14);
    f.inheritedValue = q.Int(15);
    f.syncOption = q.Int(16);
    f.privilegeInfo = RecurringText(q, 17);
    f.privileges = q.Int(18);
    f.serverRootPath = q.Text(19);
    f.serverFolderId = q.Text(20);
    f.properties = DecodeRecordProperties(q.Blob(21));
    f.lastSyncTime = ReadTime(q, 22);
    f.lastServerSyncRequestTime = ReadTime(q, 24);
    f.syncStatus = static_cast<FolderSynchronizationStatus>(q.Int(26));
    f.userFlag = q.Int(27) != 0;
    return f;
}

void RecordCodec::BindFile(Query& q, const FileConfiguration& f) {
    q.Bind(1, f.folderId);
    q.Bind(2, f.rootId);
    q.Bind(3, f.name);
    q.Bind(4, f.localPath);
    q.Bind(5, PathKey(f.localPath));
    q.Bind(6, f.serverPath);
    q.Bind(7, f.checksum);
    q.Bind(8, f.contentType);
    BindTime(q, 9, f.created);
    BindTime(q, 11, f.lastModified);
    q.Bind(13, static_cast<qint64>(f.size));
    q.Bind(14, f.transferDirection);
    q.BindBlob(15, EncodeProperties(f.properties));
    BindTime(q, 16, f.lastTransferAttempt);
    q.Bind(18, f.inheritedId);
    q.Bind(19, f.generatedKind);
    q.Bind(20, f.parentFileId);
    q.Bind(21, f.privilegeInfo);
    q.Bind(22, f.privileges);
    q.Bind(23, f.isGenerated);
    q.Bind(24, f.serverFileId);
    q.Bind(25, f.serverChecksum);
    q.BindBlob(26, EncodeFileLinks(f.fileLinks));
    BindTime(q, 27, f.serverModified);
    q.Bind(29, static_cast<int>(f.syncStatus));
    q.Bind(30, f.referencesOnly);
    q.Bind(31, f.transferPending);
    q.Bind(32, f.syncStatusSet);
}

void RecordCodec::ReadFile(const Query& q, FileConfiguration& f) {
    f.id = q.Int(0);
    f.folderId = q.Int(1);
    f.rootId = q.Int(2);
    f.name = q.Text(3);
    f.localPath = q.Text(4);
    // 5 is the lookup key
    f.serverPath = q.Text(6);
    f.checksum = q.Text(7);
    f.contentType = RecurringText(q, 8);
    f.created = ReadTime(q, 9);
    f.lastModified = ReadTime(q, 11);
    f.size = q.Int64(13);
    f.transferDirection = q.Int(14);
    f.properties = DecodeFileProperties(q.Blob(15));
    f.lastTransferAttempt = ReadTime(q, 16);
    f.inheritedId = q.Int(18);
    f.generatedKind = q.Int(19);
    f.parentFileId = q.Int(20);
    f.privilegeInfo = RecurringText(q, 21);
    f.privileges = q.Int(22);
    f.isGenerated = q.Int(23);
    f.serverFileId = q.Text(24);
    f.serverChecksum = TextOrSame(q, 25, f.checksum);
    f.fileLinks = DecodeFileLinks(q.Blob(26));
    f.serverModified = ReadTime(q, 27);
    f.syncStatus = static_cast<FileSynchronizationStatus>(q.Int(29));
    f.referencesOnly = q.Int(30);
    f.transferPending = q.Int(31) != 0;
    f.syncStatusSet = q.Int(32) != 0;
}

void RecordCodec::BindAccount(Query& q, const ServerConfiguration& account) {
    q.Bind(1, account.name);
    q.Bind(2, account.kind);
    q.Bind(3, account.baseUrl);
    q.Bind(4, account.userName);
    q.BindBlob(5, EncodeProperties(account.settings));
}

ServerConfiguration RecordCodec::ReadAccount(const Query& q) {
    ServerConfiguration account;
    account.id = q.Int(0);
    account.name = q.Text(1);
    account.kind = q.Text(2);
    account.baseUrl = q.Text(3);
    account.userName = q.Text(4);
    account.settings = DecodeProperties(q.Blob(5));
    return account;
}

// --- times ------------------------------------------------------------------------------------

void RecordCodec::BindTime(Query& q, int index, const QDateTime& value) {
    if (!value.isValid()) {
        q.BindNull(index);
        q.BindNull(index + 1);
        return;
    }
    q.Bind(index, static_cast<qint64>(value.toMSecsSinceEpoch()));
    switch (value.timeSpec()) {
        case Qt::LocalTime:
            q.Bind(index + 1, 0);
            break;
        case Qt::UTC:
            q.Bind(index + 1, 1);
            break;
        case Qt::OffsetFromUTC:
            q.Bind(index + 1, 2 + 4 * static_cast<qint64>(value.offsetFromUtc()));
            break;
        case Qt::TimeZone:
            q.Bind(index + 1, QString::fromUtf8(value.timeZone().id()));
            break;
    }
}

QDateTime RecordCodec::ReadTime(const Query& q, int column) {
    const SQLite::Column& msValue = q.Value(column);
    if (msValue.isNull()) return QDateTime();
    const qint64 ms = msValue.getInt64();
    const SQLite::Column& zoneValue = q.Value(column + 1);
    if (zoneValue.isText())
        return QDateTime::fromMSecsSinceEpoch(ms, QTimeZone(QByteArray(zoneValue.getText())));
    const qint64 zone = zoneValue.getInt64();
    if (zone == 1) return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
    if ((zone >= 2 || zone <= -2) && (zone - 2) % 4 == 0)
        return QDateTime::fromMSecsSinceEpoch(ms, Qt::OffsetFromUTC,
                                              static_cast<int>((zone - 2) / 4));
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::LocalTime);
}

// --- blobs ------------------------------------------------------------------------------------

namespace {

// Both map types keep their entries in key order; the blob lists them in that order.
template <typename Map>
QByteArray EncodeMap(const Map& properties) {
    if (properties.isEmpty()) return QByteArray();
    Writer w;
    w.UInt32(static_cast<quint32>(properties.size()));
    for (auto it = properties.cbegin(); it != properties.cend(); ++it) {
        w.String(it.key());
        w.String(it.value());
    }
    return w.blob;
}

}  // namespace

QByteArray RecordCodec::EncodeProperties(const QMap<QString, QString>& properties) {
    return EncodeMap(properties);
}

QByteArray RecordCodec::EncodeProperties(const sync::config::PropertyMap& properties) {
    return EncodeMap(properties);
}

QMap<QString, QString> RecordCodec::DecodeProperties(const QByteArray& blob) {
    QMap<QString, QString> properties;
    if (blob.isEmpty()) return properties;
    Reader r(blob);
    const quint32 count = r.UInt32();
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        QString key = r.String();
        QString value = r.String();
        if (r.ok()) properties.insert(key, value);
    }
    return properties;
}

namespace {

// The entries of a properties blob in the order stored. Short texts that recur (names, version
// numbers) are shared instead of decoded anew.
std::vector<std::pair<QString, QString>> RecurringEntries(const QByteArray& blob) {
    Reader r(blob);
    const quint32 count = r.UInt32();
    std::vector<std::pair<QString, QString>> entries;
    entries.reserve(std::min<quint32>(count, 8));  // a damaged count must not allocate much
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        QString key = r.RecurringString();
        QString value = r.RecurringString();
        if (r.ok()) entries.emplace_back(std::move(key), std::move(value));
    }
    return entries;
}

// Records read one after the other often carry the same properties: they share one map.
template <typename Map, typename Build>
Map DecodeSharedMap(const QByteArray& blob, Build build) {
    if (blob.isEmpty()) return Map();
    thread_local QByteArray lastBlob;
    thread_local Map lastProperties;
    if (blob == lastBlob) return lastProperties;
    lastProperties = build(RecurringEntries(blob));
    lastBlob = blob;
    return lastProperties;
}

}  // namespace

QMap<QString, QString> RecordCodec::DecodeRecordProperties(const QByteArray& blob) {
    return DecodeSharedMap<QMap<QString, QString>>(blob, [](auto&& entries) {
        QMap<QString, QString> properties;
        for (auto& entry : entries) properties.insert(entry.first, entry.second);
        return properties;
    });
}

sync::config::PropertyMap RecordCodec::DecodeFileProperties(const QByteArray& blob) {
    return DecodeSharedMap<sync::config::PropertyMap>(blob, [](auto&& entries) {
        return sync::config::PropertyMap::FromEntries(std::move(entries));
    });
}

QByteArray RecordCodec::EncodeFileLinks(const QList<sync::config::FileLink>& links) {
    if (links.isEmpty()) return QByteArray();
    Writer w;
    w.UInt32(static_cast<quint32>(links.size()));
    for (const auto& link : links) {
        w.Int64(link.linkId);
        w.String(link.target);
        w.String(link.kind);
        w.String(link.extra);
    }
    return w.blob;
}

QList<sync::config::FileLink> RecordCodec::DecodeFileLinks(const QByteArray& blob) {
    QList<sync::config::FileLink> links;
    if (blob.isEmpty()) return links;
    Reader r(blob);
    const quint32 count = r.UInt32();
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        sync::config::FileLink link;
        link.linkId = r.Int64();
        link.target = r.String();
        link.kind = r.RecurringString();
        link.extra = r.String();
        if (r.ok()) links.append(link);
    }
    return links;
}

QByteArray RecordCodec::EncodeStrings(const QVector<QString>& strings) {
    if (strings.isEmpty()) return QByteArray();
    Writer w;
    w.UInt32(static_cast<quint32>(strings.size()));
    for (const auto& s : strings) w.String(s);
    return w.blob;
}

QVector<QString> RecordCodec::DecodeStrings(const QByteArray& blob) {
    QVector<QString> strings;
    if (blob.isEmpty()) return strings;
    Reader r(blob);
    const quint32 count = r.UInt32();
    for (quint32 i = 0; i < count && r.ok(); ++i) {
        QString s = r.String();
        if (r.ok()) strings.append(s);
    }
    return strings;
}

}  // namespace database
}  // namespace sync
