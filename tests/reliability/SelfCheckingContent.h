#pragma once

// File contents that tell on their own which file and which version they are, and whether they
// arrived whole: a one-line header names an identity, a version and the body's length, and the
// body is a stream generated from the identity and the version. A truncated file, a mix of two
// versions or a file that the test never wrote is recognised by reading it alone.

#include <QByteArray>
#include <QCryptographicHash>
#include <QList>
#include <QString>
#include <cstring>

namespace sync {
namespace test {

struct ContentStamp {
    QString identity;  // which user file this is, whatever its path now
    int version = 0;   // which of its versions
    // "identity#version": one key per version a user wrote.
    QString Key() const { return identity + QLatin1Char('#') + QString::number(version); }
};

// What reading a file found.
struct ContentReading {
    enum Verdict { Intact, Torn, Foreign };
    Verdict verdict = Foreign;
    ContentStamp stamp;  // set for Intact and Torn (when the header could be read)
    QString why;         // for Torn and Foreign
};

namespace detail {

constexpr char kContentMagic[] = "SCF1 ";

inline quint64 SeedOf(const QString& identity, int version) {
    const QByteArray digest = QCryptographicHash::hash(
        identity.toUtf8() + '#' + QByteArray::number(version), QCryptographicHash::Sha1);
    quint64 seed = 0;
    std::memcpy(&seed, digest.constData(), sizeof seed);
    return seed | 1;
}

// xorshift64*: fast, and no two identities or versions share a stream.
inline void FillBody(char* out, qint64 size, quint64 state) {
    qint64 i = 0;
    while (i < size) {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        const quint64 word = state * 0x2545F4914F6CDD1DULL;
        for (int b = 0; b < 8 && i < size; ++b, ++i) out[i] = char((word >> (8 * b)) & 0xff);
    }
}

}  // namespace detail

inline QByteArray MakeContent(const ContentStamp& stamp, qint64 bodySize) {
    const QByteArray header = QByteArray(detail::kContentMagic) + "id=" + stamp.identity.toUtf8() +
                              " v=" + QByteArray::number(stamp.version) +
                              " len=" + QByteArray::number(bodySize) + '\n';
    QByteArray content(header.size() + int(bodySize), Qt::Uninitialized);
    std::memcpy(content.data(), header.constData(), size_t(header.size()));
    detail::FillBody(content.data() + header.size(), bodySize,
                     detail::SeedOf(stamp.identity, stamp.version));
    return content;
}

inline ContentReading ReadContent(const QByteArray& bytes) {
    ContentReading r;
    const int newline = bytes.indexOf('\n');
    if (!bytes.startsWith(detail::kContentMagic) || newline < 0 || newline > 300) {
        r.why = bytes.isEmpty() ? QStringLiteral("empty") : QStringLiteral("no header");
        // The test writes no empty file: an empty one, or a header cut short, is a torn file
        // of its own rather than a stranger.
        if (bytes.isEmpty() || bytes.startsWith(detail::kContentMagic) ||
            QByteArray(detail::kContentMagic).startsWith(bytes))
            r.verdict = ContentReading::Torn;
        return r;
    }
    const QList<QByteArray> fields = bytes.mid(5, newline - 5).split(' ');
    qint64 length = -1;
    bool versionOk = false, lengthOk = false;
    for (const QByteArray& field : fields) {
        if (field.startsWith("id=")) r.stamp.identity = QString::fromUtf8(field.mid(3));
        if (field.startsWith("v=")) r.stamp.version = field.mid(2).toInt(&versionOk);
        if (field.startsWith("len=")) length = field.mid(4).toLongLong(&lengthOk);
    }
    r.verdict = ContentReading::Torn;
    if (r.stamp.identity.isEmpty() || !versionOk || !lengthOk) {
        r.why = QStringLiteral("unreadable header");
        return r;
    }
    const qint64 body = qint64(bytes.size()) - newline - 1;
    if (body != length) {
        r.why = QStringLiteral("body of %1 bytes, header says %2").arg(body).arg(length);
        return r;
    }
    QByteArray expected(int(length), Qt::Uninitialized);
    detail::FillBody(expected.data(), length, detail::SeedOf(r.stamp.identity, r.stamp.version));
    if (std::memcmp(expected.constData(), bytes.constData() + newline + 1, size_t(length)) != 0) {
        r.why = QStringLiteral("body is not the one of its version");
        return r;
    }
    r.verdict = ContentReading::Intact;
    return r;
}

}  // namespace test
}  // namespace sync
