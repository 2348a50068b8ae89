#pragma once

// Every content version that a user or a third party writes during a random sequence, so that
// the end state can be judged: which file is which version, which version is gone although
// nobody meant to discard it, and which file is no version at all (torn, mixed, truncated).

#include <QByteArray>
#include <QCryptographicHash>
#include <QString>
#include <QVector>
#include <random>

namespace sync {
namespace test {

class VersionLedger {
public:
    struct Version {
        int id = 0;
        QString author;  // "A", "B" or "server"
        QString path;    // where it was first written, below the synced folder
        qint64 size = 0;
        QByteArray digest;
        // Its author or another user replaced or deleted it where they saw it: it may go.
        bool released = false;
    };

    // New content, unlike any other: its first line names the version, the rest is filler of
    // a random length (mostly small, now and then large enough for a streamed transfer). The
    // size differs from avoidSize, so that an edit always changes the size as well.
    QByteArray Write(const QString& author, const QString& path, std::mt19937_64& rng,
                     qint64 avoidSize = -1) {
        Version v;
        v.id = _versions.size() + 1;
        v.author = author;
        v.path = path;
        const QByteArray header =
            QStringLiteral("v%1 by %2 at %3\n").arg(v.id).arg(author, path).toUtf8();
        const unsigned pick = unsigned(rng() % 100);
        qint64 filler = pick < 80   ? qint64(rng() % 400)
                        : pick < 98 ? qint64(1000 + rng() % 20000)
                                    : qint64(1100000 + rng() % 200000);
        if (header.size() + filler == avoidSize) ++filler;
        QByteArray content = header;
        content.reserve(int(header.size() + filler));
        quint64 bits = rng();
        for (qint64 i = 0; i < filler; ++i) {
            if (i % 10 == 0) bits = rng();
            content.append(i % 64 == 63 ? '\n' : char('a' + (bits >> ((i % 10) * 6)) % 26));
        }
        v.size = content.size();
        v.digest = QCryptographicHash::hash(content, QCryptographicHash::Sha1);
        _versions.append(v);
        return content;
    }

    // The version that content is, exactly; 0 when it is none.
    int Identify(const QByteArray& content) const {
        if (!content.startsWith('v')) return 0;
        const int blank = content.indexOf(' ');
        if (blank < 2) return 0;
        bool ok = false;
        const int id = content.mid(1, blank - 1).toInt(&ok);
        if (!ok || id < 1 || id > _versions.size()) return 0;
        const Version& v = _versions[id - 1];
        if (v.size != content.size() ||
            v.digest != QCryptographicHash::hash(content, QCryptographicHash::Sha1))
            return 0;
        return id;
    }

    void Release(int id) {
        if (id >= 1 && id <= _versions.size()) _versions[id - 1].released = true;
    }

    const QVector<Version>& Versions() const { return _versions; }
    const Version& At(int id) const { return _versions[id - 1]; }

private:
    QVector<Version> _versions;
};

}  // namespace test
}  // namespace sync
