#pragma once

// A census of a synced folder, a server folder or a trash: every file read and judged by its
// self-checking content, every folder, and the temporary files a transfer leaves while it runs.
// And the checks that a census allows: both sides equal, nothing torn, no user version lost.

#include <sys/stat.h>

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMap>
#include <QSet>
#include <QStringList>

#include "SelfCheckingContent.h"

namespace sync {
namespace test {

struct Census {
    QMap<QString, ContentReading> files;  // path below the folder -> what the file holds
    QSet<QString> folders;                // paths below the folder
    QStringList temporaries;              // transfer leftovers, never content
    // The files that are not whole versions written by the user, as "path: why".
    QStringList Damaged() const {
        QStringList out;
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            if (it->verdict != ContentReading::Intact)
                out << QStringLiteral("%1: %2 %3")
                           .arg(it.key(),
                                it->verdict == ContentReading::Torn ? QStringLiteral("torn")
                                                                    : QStringLiteral("foreign"),
                                it->why);
        return out;
    }
    QSet<QString> Keys() const {
        QSet<QString> keys;
        for (const ContentReading& r : files)
            if (r.verdict == ContentReading::Intact) keys.insert(r.stamp.Key());
        return keys;
    }
};

// Which names are transfer leftovers rather than content.
enum class CensusSide {
    Local,   // the client's ".{SyncTemp}" and ".{SyncBackup}" at the top
    Server,  // upload temporaries of the local-folder server, and Apache's
    Trash,   // none
};

// Reads each file once per version on the disk: a file whose inode, size and times did not
// change since the last census keeps its reading, so a census after every kill stays cheap.
class CensusTaker {
public:
    Census Take(const QString& folder, CensusSide side) {
        Census census;
        QDirIterator it(folder,
                        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QString below = path.mid(folder.size() + 1);
            const QFileInfo info = it.fileInfo();
            if (IsTemporary(below, side)) {
                if (!info.isDir()) census.temporaries << below;
                continue;
            }
            if (info.isDir() && !info.isSymLink()) {
                census.folders.insert(below);
                continue;
            }
            census.files.insert(below, _Read(path));
        }
        census.temporaries.sort();
        return census;
    }

    static bool IsTemporary(const QString& below, CensusSide side) {
        const QString name = below.mid(below.lastIndexOf(QLatin1Char('/')) + 1);
        switch (side) {
            case CensusSide::Local:
                return below.startsWith(QLatin1String(".{SyncTemp}")) ||
                       below.startsWith(QLatin1String(".{SyncBackup}"));
            case CensusSide::Server:
                return name.contains(QLatin1String(".{SyncUpload}")) ||
                       name.startsWith(QLatin1String(".davfs.tmp")) ||
                       name == QLatin1String(".DAV") || below.contains(QLatin1String(".DAV/"));
            case CensusSide::Trash:
                return false;
        }
        return false;
    }

private:
    struct Seen {
        quint64 inode = 0;
        qint64 size = -1;
        qint64 modifiedNs = 0;
        qint64 changedNs = 0;
        ContentReading reading;
    };

    ContentReading _Read(const QString& path) {
        struct stat st;
        const QByteArray native = QFile::encodeName(path);
        if (::lstat(native.constData(), &st) != 0) {
            ContentReading gone;
            gone.why = QStringLiteral("vanished while read");
            return gone;
        }
        if (!S_ISREG(st.st_mode)) {
            ContentReading odd;
            odd.why = QStringLiteral("not a regular file");
            return odd;
        }
        const qint64 modified = qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
        const qint64 changed = qint64(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
        auto found = _seen.find(path);
        if (found != _seen.end() && found->inode == quint64(st.st_ino) &&
            found->size == qint64(st.st_size) && found->modifiedNs == modified &&
            found->changedNs == changed)
            return found->reading;
        QFile file(path);
        ContentReading reading;
        if (!file.open(QIODevice::ReadOnly))
            reading.why = QStringLiteral("unreadable");
        else
            reading = ReadContent(file.readAll());
        _seen.insert(path,
                     Seen{quint64(st.st_ino), qint64(st.st_size), modified, changed, reading});
        return reading;
    }

    QHash<QString, Seen> _seen;
};

// How two sides differ, one line per path; empty when they are the same tree with the same
// versions.
inline QStringList TreeDifferences(const Census& local, const Census& server) {
    QStringList out;
    for (auto it = local.files.cbegin(); it != local.files.cend(); ++it) {
        const auto other = server.files.constFind(it.key());
        if (other == server.files.cend())
            out << QStringLiteral("only local: %1 (%2)").arg(it.key(), it->stamp.Key());
        else if (other->stamp.Key() != it->stamp.Key() || other->verdict != it->verdict)
            out << QStringLiteral("differs: %1 (local %2, server %3)")
                       .arg(it.key(), it->stamp.Key(), other->stamp.Key());
    }
    for (auto it = server.files.cbegin(); it != server.files.cend(); ++it)
        if (!local.files.contains(it.key()))
            out << QStringLiteral("only on the server: %1 (%2)").arg(it.key(), it->stamp.Key());
    for (const QString& folder : local.folders)
        if (!server.folders.contains(folder))
            out << QStringLiteral("folder only local: %1").arg(folder);
    for (const QString& folder : server.folders)
        if (!local.folders.contains(folder))
            out << QStringLiteral("folder only on the server: %1").arg(folder);
    out.sort();
    return out;
}

// The versions the user wrote that a sync must keep somewhere (at their path, on the other
// side, under a conflict name or in the trash): every version on either side when the sync
// began, except the copy of one that the user deleted or overwrote on the other side. Such a
// change loses only the version it replaced: a version changed on the other side meanwhile is
// kept, and so is a version moved to another path.
//
// before: both sides before the user's changes; start: both sides when the sync began.
inline QSet<QString> VersionsToKeep(const Census& localBefore, const Census& serverBefore,
                                    const Census& localStart, const Census& serverStart) {
    QHash<QString, int> keptLocations;  // key -> locations that do not mirror a user change
    QSet<QString> all;
    const auto walk = [&](const Census& start, const Census& otherBefore,
                          const Census& otherStart) {
        for (auto it = start.files.cbegin(); it != start.files.cend(); ++it) {
            if (it->verdict != ContentReading::Intact) continue;
            const QString key = it->stamp.Key();
            all.insert(key);
            const auto mirrorBefore = otherBefore.files.constFind(it.key());
            const auto mirrorNow = otherStart.files.constFind(it.key());
            const bool mirrorReplaced =
                mirrorBefore != otherBefore.files.cend() && mirrorBefore->stamp.Key() == key &&
                (mirrorNow == otherStart.files.cend() || mirrorNow->stamp.Key() != key);
            if (!mirrorReplaced) ++keptLocations[key];
        }
    };
    walk(localStart, serverBefore, serverStart);
    walk(serverStart, localBefore, localStart);
    QSet<QString> keep;
    for (const QString& key : all)
        if (keptLocations.value(key) > 0) keep.insert(key);
    return keep;
}

// Files the user deleted on one side while the other side kept them as they were: the deletion
// must have reached the other side. What came back instead, one "path (version)" per file.
inline QStringList DeletionsUndone(const Census& localBefore, const Census& serverBefore,
                                   const Census& localStart, const Census& serverStart,
                                   const Census& end) {
    QStringList undone;
    const auto walk = [&](const Census& before, const Census& start, const Census& otherBefore,
                          const Census& otherStart) {
        for (auto it = before.files.cbegin(); it != before.files.cend(); ++it) {
            if (start.files.contains(it.key())) continue;
            const auto otherThen = otherBefore.files.constFind(it.key());
            const auto otherNow = otherStart.files.constFind(it.key());
            if (otherThen == otherBefore.files.cend() || otherNow == otherStart.files.cend() ||
                otherThen->stamp.Key() != otherNow->stamp.Key())
                continue;
            const auto found = end.files.constFind(it.key());
            if (found != end.files.cend())
                undone << QStringLiteral("%1 (%2)").arg(it.key(), found->stamp.Key());
        }
    };
    walk(localBefore, localStart, serverBefore, serverStart);
    walk(serverBefore, serverStart, localBefore, localStart);
    undone.sort();
    undone.removeDuplicates();
    return undone;
}

// Versions that the sync stored under more than one name of its own (a conflict copy made
// again by a run after one that died), as "version: path | path".
inline QStringList CopiesMadeTwice(const Census& localStart, const Census& serverStart,
                                   const Census& end) {
    QHash<QString, QStringList> newPaths;
    for (auto it = end.files.cbegin(); it != end.files.cend(); ++it)
        if (it->verdict == ContentReading::Intact && !localStart.files.contains(it.key()) &&
            !serverStart.files.contains(it.key()))
            newPaths[it->stamp.Key()] << it.key();
    QStringList twice;
    for (auto it = newPaths.cbegin(); it != newPaths.cend(); ++it)
        if (it->size() > 1)
            twice << it.key() + QStringLiteral(": ") + it->join(QLatin1String(" | "));
    twice.sort();
    return twice;
}

}  // namespace test
}  // namespace sync
