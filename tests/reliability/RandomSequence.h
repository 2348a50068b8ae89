#pragma once

// One seeded random sequence of two machines and a third party working on one server folder:
// edits, additions, deletions, moves and clashes on all three sides between sync runs of the
// two machines in random order, then runs until both machines have nothing left to do; and the
// judgement of the end state (both local folders equal the server folder, no torn file, no
// version that nobody discarded missing from the folders and the trashes).

#include <QDir>
#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <algorithm>
#include <functional>
#include <random>

#include "TwoClientsWorld.h"
#include "VersionLedger.h"

namespace sync {
namespace test {

class RandomSequence {
public:
    enum Side { A, B, Server };
    // The server: a folder on a WebDAV server, or a folder on this machine.
    enum class Kind { WebDav, LocalFolder };

    struct Figures {
        int operations = 0;
        int runs = 0;
        int lost = 0;
        int torn = 0;
        bool converged = false;
    };

    // verbose: every operation and every run's output go to stdout as they happen (a replay).
    RandomSequence(Kind kind, quint64 seed, bool verbose)
        : _kind(kind), _seed(seed), _verbose(verbose), _rng(seed) {
        if (kind == Kind::WebDav) {
            _server = DavSite::Server().DocumentRoot() + QStringLiteral("/seq%1").arg(seed);
            _remote = DavSite::Server().Url() + QStringLiteral("/seq%1/Docs").arg(seed);
            QDir(_server).removeRecursively();
        } else {
            _server = _dir.filePath(QStringLiteral("server"));
            _remote = _server + QStringLiteral("/Docs");
        }
        QDir().mkpath(_server);
        HandOver(_server);
        _a = std::make_unique<Client>(QStringLiteral("A"), _dir.filePath(QStringLiteral("a")));
        _b = std::make_unique<Client>(QStringLiteral("B"), _dir.filePath(QStringLiteral("b")));
        // A replay keeps the machines' folders and logs for a look afterwards.
        if (verbose) _dir.setAutoRemove(false);
    }
    ~RandomSequence() {
        if (!_verbose && _kind == Kind::WebDav) QDir(_server).removeRecursively();
    }

    // Plays the whole sequence; the failures found, none when all is well.
    QStringList Play() {
        Setup();
        const int rounds = 1 + int(_rng() % 3);
        for (int round = 0; round < rounds; ++round) {
            const int operations = 1 + int(_rng() % 3);
            for (int i = 0; i < operations; ++i) Operate();
            const int runs = int(_rng() % 3);
            for (int i = 0; i < runs; ++i) RunClient(_rng() % 2 ? B : A);
        }
        Settle();
        Judge();
        return _failures;
    }

    // Plays a written sequence instead, one step a line, then settles and judges as above:
    //   "A+ F/a.txt" create (or overwrite) a file on A (A, B or S for the server), "A~ F/a.txt"
    //   edit it, "A- F" delete a file or a folder with its content, "A/ F/H" create a folder,
    //   "sync A" one run of machine A.
    QStringList Play(const QStringList& script) {
        QDir().mkpath(Root(Server));
        HandOver(Root(Server));
        for (const QString& step : script) {
            const QString path = step.mid(3);
            const Side side = step.at(0) == QLatin1Char('A')   ? A
                              : step.at(0) == QLatin1Char('B') ? B
                                                               : Server;
            if (step.startsWith(QLatin1String("sync "))) {
                RunClient(step.endsWith(QLatin1Char('A')) ? A : B);
            } else if (step.at(1) == QLatin1Char('+')) {
                ReleaseBelow(side, path);
                CreateFile(side, path);
            } else if (step.at(1) == QLatin1Char('~')) {
                EditFile(side, path);
            } else if (step.at(1) == QLatin1Char('-')) {
                Remove(side, path);
                Note(QStringLiteral("%1: delete %2").arg(SideName(side), path));
            } else if (step.at(1) == QLatin1Char('/')) {
                MakeFolder(side, path);
                Note(QStringLiteral("%1: create folder %2").arg(SideName(side), path));
            }
        }
        Settle();
        Judge();
        return _failures;
    }

    const QStringList& Log() const { return _log; }
    const Figures& Counts() const { return _figures; }
    QString Folder() const { return _dir.path(); }

private:
    // --- The three copies of the folder ------------------------------------------------------

    QString Root(Side side) const {
        return side == A   ? _a->Local()
               : side == B ? _b->Local()
                           : _server + QStringLiteral("/Docs");
    }
    static QString SideName(Side side) {
        return side == A   ? QStringLiteral("A")
               : side == B ? QStringLiteral("B")
                           : QStringLiteral("server");
    }
    QMap<QString, QString> Look(Side side) const {
        return FolderSnapshot::Take(Root(side), _ledger);
    }
    static bool IsFolder(const QMap<QString, QString>& tree, const QString& path) {
        return tree.value(path) == QLatin1String("/");
    }
    static bool IsFile(const QMap<QString, QString>& tree, const QString& path) {
        return tree.contains(path) && !IsFolder(tree, path);
    }
    // Free for a new entry: nothing there, and no file on the way to it.
    static bool IsFree(const QMap<QString, QString>& tree, const QString& path) {
        if (tree.contains(path)) return false;
        for (int slash = path.indexOf(QLatin1Char('/')); slash > 0;
             slash = path.indexOf(QLatin1Char('/'), slash + 1))
            if (IsFile(tree, path.left(slash))) return false;
        return true;
    }

    // The names the operations choose from: few, so that the sides meet on the same entries.
    static const QStringList& FolderPool() {
        static const QStringList pool{QStringLiteral("F"), QStringLiteral("G"),
                                      QStringLiteral("F/H")};
        return pool;
    }
    static const QStringList& FilePool() {
        static const QStringList pool = [] {
            QStringList paths;
            for (const QString& folder :
                 {QString(), QStringLiteral("F/"), QStringLiteral("G/"), QStringLiteral("F/H/")})
                for (const QString& name :
                     {QStringLiteral("a.txt"), QStringLiteral("b.txt"), QStringLiteral("c.md"),
                      QStringLiteral("d e.txt"), QStringLiteral("\u00fcber.txt")})
                    paths << folder + name;
            return paths;
        }();
        return pool;
    }

    template <typename T>
    T Pick(const QList<T>& from) {
        return from.at(int(_rng() % quint64(from.size())));
    }

    void Note(const QString& line) {
        _log << line;
        if (_verbose) {
            std::printf("  %s\n", line.toLocal8Bit().constData());
            std::fflush(stdout);
        }
    }

    // --- Changes, as users and a third party make them -----------------------------------------

    void WriteFile(Side side, const QString& path, const QByteArray& content) {
        const QString full = Root(side) + QLatin1Char('/') + path;
        if (side == Server && _kind == Kind::WebDav) {
            // As another client's upload would have left it a moment ago.
            if (!DavSite::Server().Put(full, content))
                _failures << QStringLiteral("cannot write %1 on the server").arg(path);
            return;
        }
        QDir().mkpath(QFileInfo(full).absolutePath());
        QFile file(full);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(content) != content.size())
            _failures << QStringLiteral("cannot write %1 on %2").arg(path, SideName(side));
    }
    void MakeFolder(Side side, const QString& path) {
        const QString full = Root(side) + QLatin1Char('/') + path;
        QDir().mkpath(full);
        if (side == Server) HandOver(full);
    }
    // Apache serves only what its user may write.
    void HandOver(const QString& path) const {
        if (_kind == Kind::WebDav) DavSite::Server().HandOver(path);
    }
    // Everything below (or at) path is discarded on purpose: its versions may go.
    void ReleaseBelow(Side side, const QString& path) {
        const auto tree = Look(side);
        for (auto it = tree.cbegin(); it != tree.cend(); ++it)
            if (it.key() == path || it.key().startsWith(path + QLatin1Char('/')))
                _ledger.Release(it.value().mid(1).toInt());
    }
    void Remove(Side side, const QString& path) {
        ReleaseBelow(side, path);
        const QString full = Root(side) + QLatin1Char('/') + path;
        if (QFileInfo(full).isDir())
            QDir(full).removeRecursively();
        else
            QFile::remove(full);
    }

    void CreateFile(Side side, const QString& path) {
        WriteFile(side, path, _ledger.Write(SideName(side), path, _rng));
        Note(QStringLiteral("%1: create %2 (v%3)").arg(SideName(side), path).arg(Newest()));
    }
    void EditFile(Side side, const QString& path) {
        const QString full = Root(side) + QLatin1Char('/') + path;
        ReleaseBelow(side, path);
        WriteFile(side, path, _ledger.Write(SideName(side), path, _rng, QFileInfo(full).size()));
        Note(QStringLiteral("%1: edit %2 (v%3)").arg(SideName(side), path).arg(Newest()));
    }
    int Newest() const { return _ledger.Versions().size(); }

    // One random change on one random side; now and then the same entry on two sides at once.
    void Operate() {
        ++_figures.operations;
        const Side side = Side(_rng() % 3);
        const auto tree = Look(side);
        QStringList files, folders, freeFiles, freeFolders;
        for (auto it = tree.cbegin(); it != tree.cend(); ++it)
            (it.value() == QLatin1String("/") ? folders : files) << it.key();
        for (const QString& p : FilePool())
            if (IsFree(tree, p)) freeFiles << p;
        for (const QString& p : FolderPool())
            if (IsFree(tree, p)) freeFolders << p;

        const unsigned roll = unsigned(_rng() % 100);
        if (roll < 12 && TwoSides(roll % 2 == 0)) return;
        if (roll >= 96 && CaseTwin(side)) return;
        if (roll == 95 && FileNamedLikeAFolder(side)) return;
        if ((roll < 35 || files.isEmpty()) && !freeFiles.isEmpty()) {
            CreateFile(side, Pick(freeFiles));
        } else if (roll < 60 && !files.isEmpty()) {
            EditFile(side, Pick(files));
        } else if (roll < 72 && !files.isEmpty()) {
            const QString path = Pick(files);
            Remove(side, path);
            Note(QStringLiteral("%1: delete %2").arg(SideName(side), path));
        } else if (roll < 80 && !freeFolders.isEmpty()) {
            const QString path = Pick(freeFolders);
            MakeFolder(side, path);
            Note(QStringLiteral("%1: create folder %2").arg(SideName(side), path));
        } else if (roll < 87 && !folders.isEmpty()) {
            const QString path = Pick(folders);
            Remove(side, path);
            Note(QStringLiteral("%1: delete folder %2 with its content").arg(SideName(side), path));
        } else if (roll < 95 && !files.isEmpty() && !freeFiles.isEmpty()) {
            const QString from = Pick(files), to = Pick(freeFiles);
            Remove(side, from);
            WriteFile(side, to, _ledger.Write(SideName(side), to, _rng));
            Note(QStringLiteral("%1: move %2 to %3 (v%4)")
                     .arg(SideName(side), from, to)
                     .arg(Newest()));
        } else if (!folders.isEmpty()) {
            MoveFolder(side, tree, Pick(folders), freeFolders);
        } else if (!freeFiles.isEmpty()) {
            CreateFile(side, Pick(freeFiles));
        }
    }

    // A folder moved: everything in it appears under the new name (as new versions, since a
    // move is a deletion and an addition to the engine) and is gone from the old one.
    void MoveFolder(Side side, const QMap<QString, QString>& tree, const QString& from,
                    const QStringList& freeFolders) {
        QStringList targets;
        for (const QString& to : freeFolders)
            if (!to.startsWith(from + QLatin1Char('/'))) targets << to;
        if (targets.isEmpty()) return;
        const QString to = Pick(targets);
        MakeFolder(side, to);
        for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
            if (!it.key().startsWith(from + QLatin1Char('/'))) continue;
            const QString moved = to + it.key().mid(from.size());
            if (it.value() == QLatin1String("/"))
                MakeFolder(side, moved);
            else
                WriteFile(side, moved, _ledger.Write(SideName(side), moved, _rng));
        }
        Remove(side, from);
        Note(QStringLiteral("%1: move folder %2 to %3 (up to v%4)")
                 .arg(SideName(side), from, to)
                 .arg(Newest()));
    }

    // A name that differs only in letter case from an entry on any side: the engine cannot
    // keep both in one folder, on a file system that can.
    bool CaseTwin(Side side) {
        QMap<QString, QString> known;
        for (Side s : {A, B, Server}) known.insert(Look(s));
        if (known.isEmpty()) return false;
        const QString path = Pick(known.keys());
        const int slash = path.lastIndexOf(QLatin1Char('/'));
        const QString name = path.mid(slash + 1);
        const QString flipped = name.at(0).isUpper() ? name.at(0).toLower() : name.at(0).toUpper();
        const QString twin = path.left(slash + 1) + flipped + name.mid(1);
        if (twin == path || !IsFree(Look(side), twin)) return false;
        // Once two names clashed, a rename of one of them to the other's letter case is no
        // clash in any tree, but the engine still cannot carry it: never judged again.
        _clashed << twin.toLower();
        if (IsFolder(known, path)) {
            MakeFolder(side, twin);
            Note(QStringLiteral("%1: create folder %2 (twin of %3)")
                     .arg(SideName(side), twin, path));
        } else {
            WriteFile(side, twin, _ledger.Write(SideName(side), twin, _rng));
            Note(QStringLiteral("%1: create %2 (v%3, twin of %4)")
                     .arg(SideName(side), twin)
                     .arg(Newest())
                     .arg(path));
        }
        return true;
    }

    // A file where another side has a folder of that name.
    bool FileNamedLikeAFolder(Side side) {
        QStringList candidates;
        const auto mine = Look(side);
        for (Side other : {A, B, Server}) {
            const auto tree = Look(other);
            for (const QString& folder : FolderPool())
                if (other != side && IsFolder(tree, folder) && IsFree(mine, folder))
                    candidates << folder;
        }
        if (candidates.isEmpty()) return false;
        const QString path = Pick(candidates);
        _clashed << path.toLower();
        CreateFile(side, path);
        return true;
    }

    // The same file changed on two sides before either syncs: edited on both, or edited on one
    // and deleted on the other. False when no file is on two sides.
    bool TwoSides(bool bothEdit) {
        const Side first = Side(_rng() % 3);
        const Side second = Side((first + 1 + _rng() % 2) % 3);
        const auto one = Look(first), other = Look(second);
        QStringList shared;
        for (auto it = one.cbegin(); it != one.cend(); ++it)
            if (it.value() != QLatin1String("/") && IsFile(other, it.key())) shared << it.key();
        if (shared.isEmpty()) return false;
        const QString path = Pick(shared);
        EditFile(first, path);
        if (bothEdit) {
            EditFile(second, path);
        } else {
            Remove(second, path);
            Note(QStringLiteral("%1: delete %2").arg(SideName(second), path));
        }
        return true;
    }

    // The folder's first content, then both machines register it.
    void Setup() {
        const int kind = int(_rng() % 4);
        static const char* const kinds[] = {"on A", "on the server", "on A and the server",
                                            "on A and B"};
        Note(QStringLiteral("sequence %1: the first content is %2").arg(_seed).arg(kinds[kind]));
        QDir().mkpath(Root(Server));
        HandOver(Root(Server));
        const int count = 1 + int(_rng() % 5);
        for (int i = 0; i < count; ++i) {
            const QString path = Pick(FilePool());
            const Side first = kind == 1 ? Server : A;
            if (!IsFree(Look(first), path)) continue;
            const QByteArray content = _ledger.Write(SideName(first), path, _rng);
            WriteFile(first, path, content);
            if (kind == 2) WriteFile(Server, path, content);
            if (kind == 3) WriteFile(B, path, content);
            Note(QStringLiteral("  %1 (v%2)").arg(path).arg(Newest()));
        }
        if (_rng() % 3 == 0) {
            const QString folder = Pick(FolderPool());
            MakeFolder(kind == 1 ? Server : A, folder);
            Note(QStringLiteral("  %1/").arg(folder));
        }
        RunClient(A);
        RunClient(B);
    }

    ProgramRun RunClient(Side side) {
        Client& client = side == A ? *_a : *_b;
        ++_figures.runs;
        ProgramRun run = client.Sync(_remote);
        // The program's own lines, without the folder's path; its log lines stay in its log.
        QStringList lines;
        for (const QString& line : (run.out + run.err).split(QLatin1Char('\n'))) {
            static const QRegularExpression logLine(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d "));
            if (!line.trimmed().isEmpty() && !logLine.match(line).hasMatch())
                lines << QString(line).remove(client.Local()).trimmed();
        }
        Note(QStringLiteral("%1 syncs: exit %2: %3")
                 .arg(client.Name())
                 .arg(run.status)
                 .arg(lines.join(QStringLiteral(" | "))));
        if (run.status != 0 && run.status != 1)
            _failures << QStringLiteral("%1's run %2 ended with status %3: %4")
                             .arg(client.Name())
                             .arg(_figures.runs)
                             .arg(run.status)
                             .arg(run.err.trimmed());
        // No run may leave a torn file in the local folder, whatever else went wrong.
        const auto tree = Look(side);
        for (auto it = tree.cbegin(); it != tree.cend(); ++it)
            if (it.value().startsWith(QLatin1String("torn"))) {
                ++_figures.torn;
                _failures << QStringLiteral("%1 holds a torn file %2 after run %3")
                                 .arg(client.Name(), it.key())
                                 .arg(_figures.runs);
            }
        return run;
    }

    // Both machines sync in turn until neither has anything left to do. Names that clash
    // (letter case, or a file on one side where another has a folder) cannot be synchronised
    // as they are: a run whose only failures are such entries, and that changed nothing, has
    // nothing left to do either.
    void Settle() {
        Side next = _rng() % 2 ? B : A;
        int quiet = 0;
        // The trees as they stand, while known: a run with nothing to do changes nothing.
        QList<QMap<QString, QString>> trees;
        for (int i = 0; i < 12 && quiet < 2; ++i) {
            const ProgramRun run = RunClient(next);
            bool done = run.NothingToDo();
            if (!done) {
                const auto after = Trees();
                if (run.status == 1 && after == trees) {
                    const QStringList clashing = Clashes(after);
                    const QStringList failed = FailedPaths(run, next);
                    done = !failed.isEmpty() &&
                           std::all_of(failed.cbegin(), failed.cend(),
                                       [&](const QString& path) { return Below(path, clashing); });
                }
                trees = after;
            }
            quiet = done ? quiet + 1 : 0;
            next = next == A ? B : A;
        }
        _figures.converged = quiet >= 2;
        if (!_figures.converged)
            _failures << QStringLiteral("the machines still had work after 12 runs");
    }

    QList<QMap<QString, QString>> Trees() const { return {Look(A), Look(Server), Look(B)}; }

    // The entries a run reported as failed, below the synced folder.
    QStringList FailedPaths(const ProgramRun& run, Side side) const {
        QStringList paths;
        const QString local = Root(side) + QLatin1Char('/');
        for (const QString& line : run.err.split(QLatin1Char('\n'))) {
            if (!line.startsWith(QLatin1String("failed: "))) continue;
            QString path = line.mid(8).trimmed();
            if (path.startsWith(local))
                path = path.mid(local.size());
            else if (path.startsWith(QLatin1String("/Docs/")))
                path = path.mid(6);
            paths << path;
        }
        return paths;
    }

    static bool Below(const QString& path, const QStringList& keys) {
        const QString key = path.toLower();
        return std::any_of(keys.cbegin(), keys.cend(), [&](const QString& k) {
            return key == k || key.startsWith(k + QLatin1Char('/'));
        });
    }

    // Keys of names that clash, and so are not compared: names that differ only in letter
    // case (within one folder, or between the sides), and a file where another side has a
    // folder.
    static QStringList ClashingKeys(const QList<QMap<QString, QString>>& trees) {
        QStringList keys;
        QMap<QString, QString> spelling, kind;
        for (const auto& tree : trees) {
            for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
                const QString key = it.key().toLower();
                const QString what = it.value() == QLatin1String("/") ? it.value() : QString();
                if ((spelling.contains(key) && spelling.value(key) != it.key()) ||
                    (kind.contains(key) && kind.value(key) != what))
                    keys << key;
                spelling.insert(key, it.key());
                kind.insert(key, what);
            }
        }
        keys.removeDuplicates();
        return keys;
    }
    // The tree without the clashing entries, and without the folders that hold them, which
    // stay wherever the clash is.
    static QMap<QString, QString> Without(QMap<QString, QString> tree, const QStringList& keys) {
        for (auto it = tree.begin(); it != tree.end();) {
            const QString key = it.key().toLower() + QLatin1Char('/');
            const bool holds = it.value() == QLatin1String("/") &&
                               std::any_of(keys.cbegin(), keys.cend(),
                                           [&](const QString& k) { return k.startsWith(key); });
            it = holds || Below(it.key(), keys) ? tree.erase(it) : std::next(it);
        }
        return tree;
    }
    QStringList Clashes(const QList<QMap<QString, QString>>& trees) const {
        QStringList keys = ClashingKeys(trees) + _clashed;
        keys.removeDuplicates();
        return keys;
    }

    void Judge() {
        const auto a = Look(A), server = Look(Server), b = Look(B);
        const QStringList clashing = Clashes({a, server, b});
        if (!clashing.isEmpty())
            Note(QStringLiteral("names that clash, not compared: %1").arg(clashing.join(", ")));
        const auto comparedA = Without(a, clashing), comparedServer = Without(server, clashing),
                   comparedB = Without(b, clashing);
        if (comparedA != comparedServer || comparedB != comparedServer)
            _failures << QStringLiteral("the folders differ:\n    ") +
                             FolderSnapshot::Differences({"A", "server", "B"},
                                                         {comparedA, comparedServer, comparedB})
                                 .join(QStringLiteral("\n    "));
        // Kept: anywhere in the three folders (hidden files too, which are not synced) or in
        // a trash.
        QSet<int> kept;
        const QList<std::pair<QString, QString>> places{
            {QStringLiteral("A's folder"), Root(A)},
            {QStringLiteral("the server's folder"), Root(Server)},
            {QStringLiteral("B's folder"), Root(B)},
            {QStringLiteral("A's trash"), _a->Trash()},
            {QStringLiteral("B's trash"), _b->Trash()}};
        for (const auto& place : places) {
            int torn = 0;
            for (int id : FolderSnapshot::VersionsBelow(place.second, _ledger, &torn))
                kept.insert(id);
            if (torn > 0) {
                _figures.torn += torn;
                _failures << QStringLiteral("%1 torn file(s) in %2").arg(torn).arg(place.first);
            }
        }
        for (const auto& v : _ledger.Versions())
            if (!v.released && !kept.contains(v.id)) {
                ++_figures.lost;
                _failures << QStringLiteral(
                                 "v%1, written by %2 at %3, is gone from every folder "
                                 "and trash")
                                 .arg(v.id)
                                 .arg(v.author, v.path);
            }
    }

    Kind _kind;
    quint64 _seed;
    bool _verbose;
    std::mt19937_64 _rng;
    QTemporaryDir _dir;
    QString _server;
    QString _remote;
    std::unique_ptr<Client> _a, _b;
    VersionLedger _ledger;
    QStringList _log;
    QStringList _failures;
    QStringList _clashed;  // keys of names that were made to clash
    Figures _figures;
};

}  // namespace test
}  // namespace sync
