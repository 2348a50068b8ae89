// A user's machine for the hostile-input cases: the real program, a local folder and a server
// folder (a folder on this machine, or a private Apache with WebDAV whose document root holds
// it), with every path handled as bytes, so that names which are not UTF-8 reach the disk, and
// are read back, exactly as they are.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QList>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "ApacheServer.h"
#include "ProgramStatus.h"

namespace hostile {

// --- Figures the lead reports -------------------------------------------------------------

struct Figures {
    int cases = 0;       // rows run
    int conditions = 0;  // hostile conditions set up (names, links, permissions, full disks ...)
    int runs = 0;        // runs of the program
    int lost = 0;        // files missing from a side that should hold them
    int corrupted = 0;   // files whose content is not what a side should hold
    int skipped = 0;     // rows that could not run here
};

inline Figures& Counted() {
    static Figures figures;
    return figures;
}

// Printed once when the program ends, whatever ran.
class FiguresPrinter : public ::testing::Environment {
public:
    void TearDown() override {
        const Figures& f = Counted();
        std::printf(
            "hostile input figures: %d rows, %d hostile conditions, %d program runs, %d files "
            "lost, %d files corrupted, %d rows skipped\n",
            f.cases, f.conditions, f.runs, f.lost, f.corrupted, f.skipped);
        std::fflush(stdout);
    }
};

inline bool LongRun() {
    return qEnvironmentVariableIntValue("SYNC_RELIABILITY_LONG") == 1;
}

// The seed of the random cases: SYNC_RELIABILITY_SEED when given (to replay a failure), else
// the clock.
inline quint32 Seed() {
    bool ok = false;
    const quint32 given = qEnvironmentVariable("SYNC_RELIABILITY_SEED").toUInt(&ok);
    if (ok) return given;
    return quint32(std::time(nullptr)) ^ quint32(::getpid());
}

inline bool IsRoot() {
    return ::geteuid() == 0;
}

// --- Bytes on the disk --------------------------------------------------------------------

inline QByteArray Join(const QByteArray& folder, const QByteArray& below) {
    if (below.isEmpty()) return folder;
    return folder + '/' + below;
}

// The parts of a path as the tests show them: every byte that is not printable ASCII as \xNN.
inline std::string Shown(const QByteArray& bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '\t') {
            out += " = ";
        } else if (u >= 0x20 && u < 0x7f) {
            out += c;
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", u);
            out += hex;
        }
    }
    return out;
}

inline bool WriteFile(const QByteArray& path, const QByteArray& content, int flags = O_TRUNC) {
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    if (fd < 0) return false;
    qint64 done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.constData() + done, size_t(content.size() - done));
        if (n <= 0) break;
        done += n;
    }
    ::close(fd);
    return done == content.size();
}

inline QByteArray ReadFile(const QByteArray& path, bool* ok = nullptr) {
    QByteArray out;
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (ok) *ok = fd >= 0;
    if (fd < 0) return out;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        out.append(buffer, int(n));
    }
    ::close(fd);
    return out;
}

// mkdir -p over bytes.
inline bool MakeFolders(const QByteArray& path) {
    for (int i = 1; i <= path.size(); ++i) {
        if (i < path.size() && path.at(i) != '/') continue;
        const QByteArray part = path.left(i);
        if (::mkdir(part.constData(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// Writes a file, making its folders first.
inline bool Put(const QByteArray& path, const QByteArray& content) {
    const int slash = path.lastIndexOf('/');
    return (slash <= 0 || MakeFolders(path.left(slash))) && WriteFile(path, content);
}

// Sets a file's modification time some seconds back: a WebDAV server marks the tag of a file
// changed within the current second weak, and a seed is older than that.
inline void Backdate(const QByteArray& path, int seconds) {
    struct timespec times[2];
    ::clock_gettime(CLOCK_REALTIME, &times[1]);
    times[1].tv_sec -= seconds;
    times[0] = times[1];
    ::utimensat(AT_FDCWD, path.constData(), times, AT_SYMLINK_NOFOLLOW);
}

using Visitor = std::function<void(int parentFd, const QByteArray& name, const QByteArray& relative,
                                   const struct stat& st)>;

// Visits every entry below an open folder, children before their folder, without following
// links and without ever naming a whole path to the system: below a deep enough folder, whole
// paths are longer than the system takes. openUp gives folders that their owner closed (the
// unreadable cases) their permissions back, to be walked and removed.
inline void VisitBelow(int dirFd, const QByteArray& relative, const Visitor& visit,
                       bool openUp = false) {
    DIR* dir = ::fdopendir(::dup(dirFd));
    if (!dir) return;
    std::vector<QByteArray> names;
    while (const struct dirent* entry = ::readdir(dir)) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    for (const QByteArray& name : names) {
        struct stat st;
        if (::fstatat(dirFd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const QByteArray below = relative.isEmpty() ? name : relative + '/' + name;
        if (S_ISDIR(st.st_mode)) {
            if (openUp && (st.st_mode & 0700) != 0700) ::fchmodat(dirFd, name.constData(), 0755, 0);
            const int child =
                ::openat(dirFd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) {
                VisitBelow(child, below, visit, openUp);
                ::close(child);
            }
        }
        visit(dirFd, name, below, st);
    }
}

// Removes a folder and everything below it, however deep and whatever its permissions.
inline void RemoveTree(const QByteArray& path) {
    ::chmod(path.constData(), 0755);
    const int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        ::unlink(path.constData());
        return;
    }
    VisitBelow(
        fd, QByteArray(),
        [](int parentFd, const QByteArray& name, const QByteArray&, const struct stat& st) {
            ::unlinkat(parentFd, name.constData(), S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0);
        },
        true);
    ::close(fd);
    ::rmdir(path.constData());
}

// The engine's own temporary and backup folders and the upload temporaries in a server folder
// are never content.
inline bool IsEngineLitter(const QByteArray& name) {
    return name == ".{SyncTemp}" || name == ".{SyncBackup}" ||
           (name.startsWith('.') && name.contains(".{SyncUpload}") && name.endsWith(".TMP"));
}

// One line per entry below a folder, sorted: "path/" for a folder, "path<TAB>content" for a
// file (its SHA-256 when longer than 64 bytes), "path<TAB>-> target" for a link, "path<TAB>?"
// for anything else.
using Tree = QList<QByteArray>;

inline QByteArray ContentLine(const QByteArray& content) {
    if (content.size() <= 64) return content;
    return "sha256:" + QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex() +
           " size:" + QByteArray::number(content.size());
}

inline Tree TreeOf(const QByteArray& folder) {
    Tree lines;
    const int fd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return lines;
    VisitBelow(
        fd, QByteArray(),
        [&](int parentFd, const QByteArray& name, const QByteArray& relative,
            const struct stat& st) {
            for (const QByteArray& part : relative.split('/'))
                if (IsEngineLitter(part)) return;
            if (S_ISDIR(st.st_mode)) {
                lines << relative + '/';
            } else if (S_ISLNK(st.st_mode)) {
                char target[4096];
                const ssize_t n = ::readlinkat(parentFd, name.constData(), target, sizeof target);
                lines << relative + "\t-> " + QByteArray(target, int(std::max<ssize_t>(n, 0)));
            } else if (S_ISREG(st.st_mode)) {
                QByteArray content;
                const int file = ::openat(parentFd, name.constData(), O_RDONLY | O_CLOEXEC);
                if (file >= 0) {
                    char buffer[65536];
                    for (;;) {
                        const ssize_t n = ::read(file, buffer, sizeof buffer);
                        if (n <= 0) break;
                        content.append(buffer, int(n));
                    }
                    ::close(file);
                } else {
                    content = "<unreadable>";
                }
                lines << relative + '\t' + ContentLine(content);
            } else {
                lines << relative + "\t?";
            }
        });
    ::close(fd);
    std::sort(lines.begin(), lines.end());
    return lines;
}

inline std::string ShownTree(const Tree& tree) {
    std::string out;
    for (const QByteArray& line : tree) {
        // Deep paths are shown by their ends.
        const std::string shown = Shown(line);
        out += "\n    " + (shown.size() <= 240
                               ? shown
                               : shown.substr(0, 100) + " ... " + shown.substr(shown.size() - 100) +
                                     " (" + std::to_string(line.size()) + " bytes)");
    }
    return out;
}

// The lines of a tree below one of its folders, that folder's own line left out; all of them
// below the top ("").
inline Tree Below(const Tree& tree, const QByteArray& folder) {
    if (folder.isEmpty()) return tree;
    Tree out;
    for (const QByteArray& line : tree)
        if (line.startsWith(folder + '/') && line.size() > folder.size() + 1) out << line;
    return out;
}

inline Tree Without(Tree tree, const Tree& lines) {
    for (const QByteArray& line : lines) tree.removeAll(line);
    return tree;
}

// The path part of a tree line.
inline QByteArray PathOf(const QByteArray& line) {
    if (line.endsWith('/')) return line.left(line.size() - 1);
    const int tab = line.indexOf('\t');
    return tab < 0 ? line : line.left(tab);
}

// A file's line.
inline QByteArray FileLine(const QByteArray& path, const QByteArray& content) {
    return path + '\t' + ContentLine(content);
}

// Compares a side's tree with what it should hold, counting the files lost and corrupted.
inline ::testing::AssertionResult TreeIs(const Tree& actual, const Tree& expected) {
    Tree sortedExpected = expected;
    std::sort(sortedExpected.begin(), sortedExpected.end());
    if (actual == sortedExpected) return ::testing::AssertionSuccess();
    for (const QByteArray& line : sortedExpected) {
        if (actual.contains(line) || line.endsWith('/')) continue;
        bool samePath = false;
        for (const QByteArray& other : actual) samePath = samePath || PathOf(other) == PathOf(line);
        samePath ? ++Counted().corrupted : ++Counted().lost;
    }
    return ::testing::AssertionFailure()
           << "holds:" << ShownTree(actual) << "\n  should hold:" << ShownTree(sortedExpected);
}

// Every line of lines is in the tree (files lost or corrupted counted when not).
inline ::testing::AssertionResult TreeHolds(const Tree& actual, const Tree& lines) {
    Tree missing;
    for (const QByteArray& line : lines)
        if (!actual.contains(line)) missing << line;
    if (missing.isEmpty()) return ::testing::AssertionSuccess();
    for (const QByteArray& line : missing) {
        if (line.endsWith('/')) continue;
        bool samePath = false;
        for (const QByteArray& other : actual) samePath = samePath || PathOf(other) == PathOf(line);
        samePath ? ++Counted().corrupted : ++Counted().lost;
    }
    return ::testing::AssertionFailure()
           << "misses:" << ShownTree(missing) << "\n  holds:" << ShownTree(actual);
}

// --- A small file system of the test's own --------------------------------------------------

// A tmpfs of a given size mounted on a folder, for the full-disk and read-only cases; only root
// may mount one. Unavailable() says why there is none.
class SmallDisk {
public:
    SmallDisk(const QByteArray& mountPoint, int kilobytes) : _mountPoint(mountPoint) {
        if (!IsRoot()) {
            _unavailable = "mounting a small file system needs root";
            return;
        }
        MakeFolders(mountPoint);
        QString error;
        if (!_Mount({QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                     QStringLiteral("size=%1k,mode=0755").arg(kilobytes), QStringLiteral("tmpfs"),
                     QString::fromUtf8(mountPoint)},
                    &error)) {
            _unavailable = "mount -t tmpfs failed: " + error.toStdString();
            return;
        }
        _mounted = true;
    }
    ~SmallDisk() {
        if (!_mounted) return;
        QProcess::execute(QStringLiteral("umount"),
                          {QStringLiteral("-l"), QString::fromUtf8(_mountPoint)});
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    const std::string& Unavailable() const { return _unavailable; }
    bool Resize(int kilobytes) { return _Remount(QStringLiteral("size=%1k").arg(kilobytes)); }
    bool ReadOnly(bool readOnly) {
        return _Remount(readOnly ? QStringLiteral("ro") : QStringLiteral("rw"));
    }
    // Fills the disk but for about room bytes.
    bool Fill(qint64 room) {
        const QByteArray filler = _mountPoint + "/.filler";
        const int fd = ::open(filler.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fd < 0) return false;
        const QByteArray block(4096, 'f');
        while (::write(fd, block.constData(), size_t(block.size())) > 0) {
        }
        // Gives back what was asked for.
        struct stat st;
        ::fstat(fd, &st);
        const int cut = ::ftruncate(fd, std::max<qint64>(0, qint64(st.st_size) - room));
        ::close(fd);
        return cut == 0;
    }
    void Unfill() { ::unlink((_mountPoint + "/.filler").constData()); }

private:
    bool _Mount(const QStringList& arguments, QString* error) {
        QProcess mount;
        mount.start(QStringLiteral("mount"), arguments);
        if (!mount.waitForFinished(20000) || mount.exitStatus() != QProcess::NormalExit ||
            mount.exitCode() != 0) {
            if (error) *error = QString::fromLocal8Bit(mount.readAllStandardError()).trimmed();
            return false;
        }
        return true;
    }
    bool _Remount(const QString& options) {
        return _Mount({QStringLiteral("-o"), QStringLiteral("remount,") + options,
                       QString::fromUtf8(_mountPoint)},
                      nullptr);
    }

    QByteArray _mountPoint;
    bool _mounted = false;
    std::string _unavailable;
};

// --- The machine ----------------------------------------------------------------------------

enum class ServerKind { LocalFolder, WebDav };

inline const char* NameOf(ServerKind kind) {
    return kind == ServerKind::WebDav ? "WebDav" : "LocalFolder";
}

inline void PrintTo(ServerKind kind, std::ostream* os) {
    *os << NameOf(kind);
}

struct Outcome {
    int status = -1;  // the exit status; -1 when the program crashed or hung
    QString out;
    QString err;
    std::string Shown() const { return (out + err).toStdString(); }
};

// Gives a tree to the user Apache serves as (when running as root), byte names included.
inline void GiveToServer(const QByteArray& path) {
    if (!IsRoot()) return;
    const struct passwd* nobody = ::getpwnam("nobody");
    if (!nobody) return;
    ::lchown(path.constData(), nobody->pw_uid, nobody->pw_gid);
    const int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    VisitBelow(fd, QByteArray(),
               [&](int parentFd, const QByteArray& name, const QByteArray&, const struct stat&) {
                   ::fchownat(parentFd, name.constData(), nobody->pw_uid, nobody->pw_gid,
                              AT_SYMLINK_NOFOLLOW);
               });
    ::close(fd);
}

class Machine {
public:
    // top: the folder that holds the local side (the local folder, the database, the home
    // folder); serverTop: the folder that holds a local-folder server's folder. Empty for
    // temporary ones.
    explicit Machine(ServerKind kind = ServerKind::LocalFolder, const QByteArray& top = {},
                     const QByteArray& serverTop = {})
        : _kind(kind) {
        _top = top.isEmpty() ? QFile::encodeName(_dir.path()) : top;
        MakeFolders(Local());
        if (kind == ServerKind::LocalFolder) {
            _serverTop = serverTop.isEmpty() ? _top + "/server" : serverTop;
            _remoteTop = QString::fromUtf8(_serverTop);
        } else {
            // One Apache for the program; each machine gets a folder of its own in it.
            const QByteArray own = QFile::encodeName(QFileInfo(_dir.path()).fileName());
            _serverTop = QFile::encodeName(Apache().DocumentRoot()) + '/' + own;
            _remoteTop = Apache().Url() + QLatin1Char('/') + QString::fromUtf8(own);
        }
        MakeFolders(Server());
        HandOver();
    }
    ~Machine() {
        // Deep and closed folders defeat QTemporaryDir's own removal.
        RemoveTree(Local());
        RemoveTree(_serverTop);
        if (_top != QFile::encodeName(_dir.path())) return;
        RemoveTree(_top);
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Empty when this machine can have a WebDAV server; else why not.
    static QString WebDavUnavailable() { return sync::test::ApacheServer::Unavailable(); }

    ServerKind Kind() const { return _kind; }
    QByteArray Top() const { return _top; }
    QByteArray Local(const QByteArray& below = {}) const {
        return Join(_top + "/local/Docs", below);
    }
    // The server's folder on the disk, whatever the kind of server.
    QByteArray Server(const QByteArray& below = {}) const {
        return Join(_serverTop + "/Docs", below);
    }
    QString Remote() const { return _remoteTop + QStringLiteral("/Docs"); }
    QByteArray Database() const { return _top + "/sync.db"; }
    QByteArray Trash() const { return _top + "/data/Trash/files"; }

    // Lets the WebDAV server write what a test put straight into its folder.
    void HandOver() const {
        if (_kind == ServerKind::WebDav) {
            Apache().HandOver(QString::fromUtf8(_serverTop + "/Docs"));
            GiveToServer(_serverTop);
        }
    }
    // A file put on the server by someone else, a while ago.
    bool PutServer(const QByteArray& below, const QByteArray& content) {
        if (!Put(Server(below), content)) return false;
        if (_kind == ServerKind::WebDav) Backdate(Server(below), 3);
        HandOver();
        return true;
    }

    Outcome Run(const QStringList& args) {
        ++Counted().runs;
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        const QString top = QString::fromUtf8(_top);
        env.insert(QStringLiteral("HOME"), top);
        env.insert(QStringLiteral("XDG_DATA_HOME"), top + QStringLiteral("/data"));
        env.insert(QStringLiteral("XDG_STATE_HOME"), top + QStringLiteral("/state"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), top + QStringLiteral("/config"));
        env.remove(QStringLiteral("FOLDERSYNC_DB"));
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(FOLDERSYNC_PROGRAM),
                      QStringList{QStringLiteral("--db"), QString::fromUtf8(Database())} + args);
        Outcome run;
        if (!process.waitForStarted(30000)) return run;
        if (!process.waitForFinished(180000)) {
            process.kill();
            process.waitForFinished(10000);
        }
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
        run.status = sync::test::ProgramStatus(process, run.err);
        return run;
    }
    Outcome Sync(const QStringList& extra = {}) {
        return Run(QStringList{QStringLiteral("sync"), QString::fromUtf8(Local()), Remote()} +
                   extra);
    }
    // Runs until a run changes nothing more on either side, at most `runs` times; the last
    // outcome.
    Outcome SyncUntilSettled(int runs = 4) {
        Outcome last;
        Tree local = TreeOf(Local()), server = TreeOf(Server());
        for (int i = 0; i < runs; ++i) {
            last = Sync();
            const Tree nowLocal = TreeOf(Local()), nowServer = TreeOf(Server());
            if (i > 0 && nowLocal == local && nowServer == server) break;
            local = nowLocal;
            server = nowServer;
        }
        return last;
    }

private:
    static sync::test::ApacheServer& Apache() {
        // Stopped when the program ends, with the static's destruction.
        static const std::unique_ptr<sync::test::ApacheServer> apache = [] {
            auto server = std::make_unique<sync::test::ApacheServer>();
            QString error;
            if (!server->Start(&error)) ADD_FAILURE() << error.toStdString();
            return server;
        }();
        return *apache;
    }

    ServerKind _kind;
    QTemporaryDir _dir;
    QByteArray _top;
    QByteArray _serverTop;
    QString _remoteTop;
};

// Exit statuses the program documents.
constexpr int kInStep = 0;
constexpr int kErrors = 1;

inline bool Finished(const Outcome& run) {
    return run.status == kInStep || run.status == kErrors;
}

}  // namespace hostile
