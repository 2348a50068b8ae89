#include "LocalFolderServer.h"

#include "OpenNameByName.h"

#include <dirent.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <fcntl.h>
#include <sys/stat.h>

#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QUrl>
#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "CryptographicHash.h"
#include "EntryInfoTree.h"
#include "HttpException.h"
#include "QFileWrapper.h"
#include "ServerPaths.h"
#include "Sha256.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SyncLog.h"
#include "TransactionalScope.h"
#include "TransferSupport.h"

namespace sync {
namespace remote {

using sync::config::FileSynchronizationStatus;
using sync::config::PrivilegeDelete;
using sync::config::PrivilegeDownload;
using sync::config::PrivilegeUpload;
using sync::http::HttpException;
using Folder = LocalFolderServer::Folder;
using File = LocalFolderServer::File;
using Results = LocalFolderServer::Results;

namespace {

constexpr std::size_t kCopyBlockSize = std::size_t(1) << 20;
// Room left in a name for the dot, the random part and the extension of a temporary file.
constexpr int kTemporaryNameBytes = 200;

class DirCloser {
public:
    explicit DirCloser(DIR* dir) : _dir(dir) {}
    DirCloser(const DirCloser&) = delete;
    DirCloser& operator=(const DirCloser&) = delete;
    ~DirCloser() {
        if (_dir) ::closedir(_dir);
    }

private:
    DIR* _dir;
};

// An open folder as a DIR, or null with errno set; the descriptor is closed either way.
DIR* OpenDir(int fd) {
    if (fd < 0) return nullptr;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        const int error = errno;
        ::close(fd);
        errno = error;
    }
    return dir;
}

// Whether the folder holds another entry whose name differs from name only in case. Names are
// paired regardless of case: a record whose file is gone from its path may be that entry, and
// writing the file anew beside it would leave two. True when the folder cannot be read.
bool OtherSpellingExists(int dirFd, const QByteArray& name) {
    DIR* dir = OpenDir(::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir) return true;
    DirCloser closer(dir);
    const QString wanted = QString::fromUtf8(name).toCaseFolded();
    while (const struct dirent* entry = ::readdir(dir))
        if (name != entry->d_name && QString::fromUtf8(entry->d_name).toCaseFolded() == wanted)
            return true;
    return false;
}

using sync::core::OpenNameByName;

// open(2) of a path below top, also of one too long to be named whole.
int OpenBelow(const QByteArray& top, const QByteArray& native, int flags) {
    const int fd = ::open(native.constData(), flags);
    if (fd >= 0 || errno != ENAMETOOLONG) return fd;
    if (flags & O_DIRECTORY) return OpenNameByName(top, native);
    const int slash = native.lastIndexOf('/');
    const int parent = OpenNameByName(top, native.left(slash));
    if (parent < 0) return -1;
    const int opened = ::openat(parent, native.constData() + slash + 1, flags);
    const int error = errno;
    ::close(parent);
    errno = error;
    return opened;
}

bool IsDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The name, or a null string when its bytes are not UTF-8 that decodes and encodes back
// unchanged. QString::fromUtf8 drops a leading byte order mark; in a name it is a character.
QString DecodeName(const char* name) {
    const QByteArray bytes(name);
    static const QByteArray bom("\xEF\xBB\xBF");
    const QString decoded = bytes.startsWith(bom)
                                ? QChar(0xFEFF) + QString::fromUtf8(bytes.mid(bom.size()))
                                : QString::fromUtf8(bytes);
    return decoded.toUtf8() == bytes ? decoded : QString();
}

// A name as bytes a person can read: every byte outside printable ASCII as \xNN.
QString Escaped(const char* name) {
    QString out;
    for (const char* c = name; *c; ++c) {
        const auto byte = static_cast<unsigned char>(*c);
        if (byte >= 0x20 && byte < 0x7f)
            out += QLatin1Char(*c);
        else
            out += QStringLiteral("\\x%1").arg(uint(byte), 2, 16, QLatin1Char('0'));
    }
    return out;
}

// Decimal numbers with a separator before each but the first, as printf's %lld and %llu write
// them. A listing makes an id and a version of every file: to_chars, not snprintf or
// QString::arg, whose parsing of a format costs more than the stat call itself.
class NumberText {
public:
    template <typename Number>
    NumberText& Add(Number value, char separator = 0) {
        char* const end = _text + sizeof _text;
        char* at = _text + _size;
        if (separator && at < end) *at++ = separator;
        const std::to_chars_result written = std::to_chars(at, end, value);
        if (written.ec == std::errc()) _size = std::size_t(written.ptr - _text);
        return *this;
    }
    QString Text() const { return QString::fromLatin1(_text, int(_size)); }

private:
    char _text[128];  // six 64-bit numbers and their separators fit easily
    std::size_t _size = 0;
};

QString IdOf(const struct stat& st) {
    return NumberText()
        .Add(static_cast<unsigned long long>(st.st_dev))
        .Add(static_cast<unsigned long long>(st.st_ino), ':')
        .Text();
}

// Any write to a file moves its change time, also one that keeps size and modification time
// (a touch -r after the write); the inode tells a file replaced by rename.
QString VersionIdOf(const struct stat& st) {
    return NumberText()
        .Add(static_cast<long long>(st.st_size))
        .Add(static_cast<long long>(st.st_mtim.tv_sec), '-')
        .Add(static_cast<long long>(st.st_mtim.tv_nsec), '.')
        .Add(static_cast<long long>(st.st_ctim.tv_sec), '-')
        .Add(static_cast<long long>(st.st_ctim.tv_nsec), '.')
        .Add(static_cast<unsigned long long>(st.st_ino), '-')
        .Text();
}

QDateTime ModifiedOf(const struct stat& st) {
    return QDateTime::fromMSecsSinceEpoch(
        qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000, Qt::UTC);
}

bool Allowed(int dirFd, const char* name, int mode) {
    return ::faccessat(dirFd, name, mode, AT_EACCESS) == 0;
}

// Deleting or replacing an entry is a write to its folder; reading a folder's entries needs
// search permission besides read.
//
// With the entry's status at hand, an entry of this process's own user is judged by its owner
// bits, which are exact for the owner also under access control lists, and the super-user may
// do anything: two system calls fewer per listed entry. Anyone else asks the kernel.
int PrivilegesOf(int dirFd, const char* name, bool isFolder, bool folderWritable,
                 const struct stat* st = nullptr) {
    static const uid_t self = ::geteuid();
    const auto allowed = [&](int mode) {
        if (st && self == 0) return true;
        if (st && st->st_uid == self)
            return ((mode & R_OK) == 0 || (st->st_mode & S_IRUSR)) &&
                   ((mode & W_OK) == 0 || (st->st_mode & S_IWUSR)) &&
                   ((mode & X_OK) == 0 || (st->st_mode & S_IXUSR));
        return Allowed(dirFd, name, mode);
    };
    // Download is granted whatever the entry's permissions say: the engine takes an entry whose
    // download right is gone for one deleted on the server and moves the local copy to the
    // trash, local edits and all. An entry that cannot be read now fails its download instead,
    // counted, and is tried again once it can be.
    int privileges = PrivilegeDownload;
    if (isFolder ? allowed(W_OK | X_OK) : folderWritable && allowed(W_OK))
        privileges |= PrivilegeUpload;
    if (folderWritable) privileges |= PrivilegeDelete;
    return privileges;
}

QString PrivilegeInfo(int privileges) {
    // Asked for every listed entry with one of a few values: one shared text per value.
    static const auto texts = [] {
        std::array<QString, 32> all;
        for (int i = 0; i < 32; ++i) all[std::size_t(i)] = QStringLiteral("privileges %1").arg(i);
        return all;
    }();
    if (privileges >= 0 && privileges < 32) return texts[std::size_t(privileges)];
    return QStringLiteral("privileges %1").arg(privileges);
}

template <typename Record>
QString ShownPath(const Record& r) {
    return r.localPath.isEmpty() ? r.serverPath : r.localPath;
}

// Whether a listing ever shows the entry, whatever the root's options: links, special files and
// names that are not UTF-8 never reach a client, which therefore never asked to delete them.
// Hidden entries are kept as well: a root that syncs them has deleted them on its own by the
// time their folder goes, so one still there is new, or one this client never saw.
bool NeverListed(const char* name, const struct stat& st) {
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) return true;
    if (name[0] == '.')
        return !S_ISREG(st.st_mode) ||
               !RemoteBackend::IsUploadTemporaryName(QString::fromUtf8(name));
    return DecodeName(name).isNull();
}

// Removes the entry and everything below it without following links, but for what must stay:
// what no listing shows, and the files that keep(path below the entry, status) claims. Those
// stay, with the folders on their way to them, and kept counts them. 0 or the errno.
int RemoveEntryKeeping(int parentFd, const QByteArray& name, const QString& below,
                       const std::function<bool(const QString&, const struct stat&)>& keep,
                       int& kept) {
    struct stat st;
    if (::fstatat(parentFd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : errno;
    const int keptBefore = kept;
    if (S_ISDIR(st.st_mode)) {
        DIR* dir = OpenDir(
            ::openat(parentFd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!dir) return errno == ENOENT ? 0 : errno;
        DirCloser closer(dir);
        // Names first: whether readdir shows entries removed during the listing is unspecified.
        std::vector<QByteArray> names;
        for (;;) {
            errno = 0;
            const struct dirent* entry = ::readdir(dir);
            if (!entry) break;
            if (!IsDotOrDotDot(entry->d_name)) names.emplace_back(entry->d_name);
        }
        if (errno != 0) return errno;
        for (const QByteArray& child : names) {
            struct stat childSt;
            if (::fstatat(::dirfd(dir), child.constData(), &childSt, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT) continue;
                return errno;
            }
            if (NeverListed(child.constData(), childSt)) {
                ++kept;
                continue;
            }
            const QString childBelow =
                (below.isEmpty() ? QString() : below + QLatin1Char('/')) + QFile::decodeName(child);
            if (const int error = RemoveEntryKeeping(::dirfd(dir), child, childBelow, keep, kept))
                return error;
        }
    } else if (keep(below, st)) {
        ++kept;
    }
    if (kept > keptBefore) return 0;
    if (::unlinkat(parentFd, name.constData(), S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0) != 0 &&
        errno != ENOENT)
        return errno;
    return 0;
}

}  // namespace

LocalFolderServer::LocalFolderServer(const QString& directory, int authenticationId)
    : _directory(Normalized(directory)), _authenticationId(authenticationId) {
    if (_directory.isEmpty()) _directory = QStringLiteral("/");
}

QString LocalFolderServer::DirectoryOf(const sync::config::ServerConfiguration& server) {
    const QString base = server.baseUrl.trimmed();
    if (base.startsWith(QLatin1String("file:"), Qt::CaseInsensitive))
        return QUrl(base).toLocalFile();
    return base;
}

int LocalFolderServer::StatusOf(int error) {
    switch (error) {
        case ENOENT:
            return sync::http::NotFound;
        case EACCES:
        case EPERM:
            return sync::http::Forbidden;
        case ENOSPC:
        case EDQUOT:
            return 507;
        case EEXIST:
        case ENOTDIR:
        case ENOTEMPTY:
        case EISDIR:
            return sync::http::Conflict;
        default:
            return 500;
    }
}

void LocalFolderServer::_CheckAccount(int authenticationId) const {
    if (_authenticationId >= 0 && authenticationId != _authenticationId)
        throw HttpException(sync::http::Unauthorized,
                            QStringLiteral("Unknown account %1").arg(authenticationId));
}

std::shared_ptr<sync::interf::IRemoteFolderManager> LocalFolderServer::CreateRemoteFolderManager(
    int authenticationId) {
    _CheckAccount(authenticationId);
    return shared_from_this();
}

std::shared_ptr<sync::interf::IRemoteFileManager> LocalFolderServer::CreateRemoteFileManager(
    int authenticationId) {
    _CheckAccount(authenticationId);
    return shared_from_this();
}

QByteArray LocalFolderServer::_NativePath(const QString& serverPath) const {
    const QStringList parts = serverPath.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QString& part : parts)
        if (part == QLatin1String(".") || part == QLatin1String(".."))
            throw HttpException(sync::http::BadRequest,
                                QStringLiteral("Server path %1 leaves the folder").arg(serverPath));
    QString path = _directory;
    for (const QString& part : parts) {
        if (!path.endsWith(QLatin1Char('/'))) path += QLatin1Char('/');
        path += part;
    }
    return path.toUtf8();
}

QString LocalFolderServer::BuildUrl(const sync::config::ServerConfiguration& server,
                                    const QString& serverPath) {
    QString directory = Normalized(DirectoryOf(server));
    if (directory.isEmpty()) directory = _directory;
    return QUrl::fromLocalFile(sync::core::JoinServerPath(directory, serverPath))
        .toString(QUrl::FullyEncoded);
}

// --- Transfers ------------------------------------------------------------------------------

namespace {

// Copies in to out to the end, hashing what passes; the bytes copied, or -1 with readError or
// writeError set, so that the caller knows which side failed.
// afterBlock (when given) hears the bytes copied so far after every block and answers false to
// stop the copy (readError ECANCELED).
qint64 CopyHashing(int in, int out, sync::core::Sha256& hash, int& readError, int& writeError,
                   const std::function<bool(qint64)>& afterBlock = {}) {
    // One buffer per thread, never zero-filled: clearing a megabyte per file cost a thousand
    // times the copy of a small file.
    thread_local const std::unique_ptr<char[]> block(new char[kCopyBlockSize]);
    char* const buffer = block.get();
    qint64 total = 0;
    for (;;) {
        const ssize_t n = ::read(in, buffer, kCopyBlockSize);
        if (n == 0) return total;
        if (n < 0) {
            if (errno == EINTR) continue;
            readError = errno;
            return -1;
        }
        hash.Add(buffer, std::size_t(n));
        if (!WriteAll(out, buffer, std::size_t(n))) {
            writeError = errno;
            return -1;
        }
        total += n;
        if (afterBlock && !afterBlock(total)) {
            readError = ECANCELED;
            return -1;
        }
    }
}

// The SHA-256 of what is left to read of fd; empty when reading fails.
QString HashOfRest(int fd) {
    sync::core::Sha256 hash;
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) return hash.HexResult();
        if (n < 0) {
            if (errno == EINTR) continue;
            return QString();
        }
        hash.Add(buffer, std::size_t(n));
    }
}

// The folder part and the name of a native path.
void SplitNative(const QByteArray& native, QByteArray& parent, QByteArray& name) {
    const int slash = native.lastIndexOf('/');
    parent = slash <= 0 ? QByteArray("/") : native.left(slash);
    name = native.mid(slash + 1);
}

// The name pattern CreateTemporary makes.
bool IsUploadTemporary(const char* name) {
    return name[0] == '.' && RemoteBackend::IsUploadTemporaryName(QString::fromUtf8(name));
}

// A name no one else uses in the folder, created for writing; -1 with errno set.
int CreateTemporary(int dirFd, const QByteArray& name, QByteArray& temporary) {
    for (int attempt = 0; attempt < 16; ++attempt) {
        temporary = '.' + name.left(kTemporaryNameBytes) +
                    QByteArray(RemoteBackend::UploadTemporaryMark().data()) +
                    QByteArray::number(QRandomGenerator::global()->generate(), 16) + '.' +
                    sync::core::consts::TEMP_FILE_EXTN.toUtf8();
        const int fd = ::openat(dirFd, temporary.constData(),
                                O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

bool SetModified(int fd, const struct timespec& modified) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, modified};
    return ::futimens(fd, times) == 0;
}

// The server's side of a file record: what a listing of it would show now.
void SetServerFields(File& f, const struct stat& st, int privileges) {
    f.serverFileId = IdOf(st);
    // Listings carry no checksum; a record holding one would read as a change.
    f.serverChecksum.clear();
    f.properties.remove(QStringLiteral("version"));
    f.properties.insert(QStringLiteral("versionId"), VersionIdOf(st));
    f.privileges = privileges;
    f.privilegeInfo = PrivilegeInfo(privileges);
    f.serverModified = ModifiedOf(st);
}

// Renames within a folder unless the target exists (EEXIST). File systems without an atomic
// way (some network and FAT file systems) get a check first.
bool RenameNoReplace(int dirFd, const QByteArray& from, const QByteArray& to) {
    if (::renameat2(dirFd, from.constData(), dirFd, to.constData(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    struct stat st;
    if (::fstatat(dirFd, to.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(dirFd, from.constData(), dirFd, to.constData()) == 0;
}

// Keeps the server file's current version (the one st describes) under a conflict name
// beside it, written like any upload: temporary file, fsync, and a rename that never replaces.
bool KeepConflictCopy(int dirFd, const QByteArray& name, const struct stat& version, int& status) {
    const FdCloser source(::openat(dirFd, name.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (source.fd < 0 || ::fstat(source.fd, &st) != 0) {
        status = LocalFolderServer::StatusOf(errno);
        return false;
    }
    if (!SameStamp(st, version, true)) {
        status = sync::http::PreconditionFailed;
        return false;
    }
    QByteArray temporary;
    const FdCloser out(CreateTemporary(dirFd, name, temporary));
    if (out.fd < 0) {
        status = LocalFolderServer::StatusOf(errno);
        return false;
    }
    sync::core::Sha256 hash;
    int readError = 0, writeError = 0;
    if (CopyHashing(source.fd, out.fd, hash, readError, writeError) != qint64(st.st_size) ||
        ::fchmod(out.fd, st.st_mode & 07777) != 0 || !SetModified(out.fd, st.st_mtim) ||
        ::fsync(out.fd) != 0) {
        status = LocalFolderServer::StatusOf(writeError != 0  ? writeError
                                             : readError != 0 ? readError
                                                              : EIO);
        ::unlinkat(dirFd, temporary.constData(), 0);
        return false;
    }
    // Named after the version's time, not the moment: a run that dies after keeping the copy
    // and before the upload finds it again under the same name and keeps it only once.
    const QDateTime when = QDateTime::fromSecsSinceEpoch(qint64(st.st_mtim.tv_sec));
    const QString shown = QString::fromUtf8(name);
    const QString kept = hash.HexResult();
    for (int attempt = 1; attempt < 100; ++attempt) {
        const QByteArray target = RemoteBackend::ConflictCopyName(shown, when, attempt).toUtf8();
        if (RenameNoReplace(dirFd, temporary, target)) {
            ::fsync(dirFd);
            SYNC_LOG_WARN("Kept the server's version of %1 as %2: both sides changed it", shown,
                          QString::fromUtf8(target));
            return true;
        }
        if (errno != EEXIST) break;
        struct stat other;
        const FdCloser copy(::openat(dirFd, target.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (copy.fd >= 0 && ::fstat(copy.fd, &other) == 0 && S_ISREG(other.st_mode) &&
            other.st_size == st.st_size && HashOfRest(copy.fd) == kept) {
            ::unlinkat(dirFd, temporary.constData(), 0);
            SYNC_LOG_INFO("The server's version of %1 is kept as %2 already", shown,
                          QString::fromUtf8(target));
            return true;
        }
        errno = EEXIST;
    }
    status = LocalFolderServer::StatusOf(errno);
    ::unlinkat(dirFd, temporary.constData(), 0);
    return false;
}

// Threads for one depth of a wide tree or for a batch of copies, the calling thread included.
unsigned ListingThreads() {
    return std::max(1u, std::min(std::thread::hardware_concurrency(), 4u));
}

// The elements of a list, to be handed to several threads: the list detaches here, once.
template <typename T>
std::vector<T*> Elements(QList<T>& list) {
    std::vector<T*> elements;
    elements.reserve(std::size_t(list.size()));
    for (T& element : list) elements.push_back(&element);
    return elements;
}

// Runs body on up to `threads` threads, this one among them, and waits for all of them. The
// first exception a body throws is rethrown here once all have ended; stop is called as it is
// caught, for the others to end early.
template <typename Body, typename Stop>
void RunOnThreads(unsigned threads, Body body, Stop stop) {
    std::mutex thrownLock;
    std::exception_ptr thrown;
    const auto run = [&] {
        try {
            body();
        } catch (...) {
            stop();
            const std::lock_guard<std::mutex> lock(thrownLock);
            if (!thrown) thrown = std::current_exception();
        }
    };
    std::vector<std::thread> helpers;
    for (unsigned i = 1; i < threads; ++i) {
        try {
            helpers.emplace_back(run);
        } catch (const std::system_error&) {
            break;  // no thread to be had: the ones running do the work
        }
    }
    run();
    for (std::thread& helper : helpers) helper.join();
    if (thrown) std::rethrow_exception(thrown);
}

// Runs work(i) for every i below count, on up to ListingThreads() threads, each taking the
// next index when it is free. work must not throw; should it all the same, no further index
// is started and the first exception is rethrown here.
template <typename Work>
void OnThreads(std::size_t count, Work work) {
    std::atomic<std::size_t> next{0};
    RunOnThreads(
        unsigned(std::min<std::size_t>(ListingThreads(), count)),
        [&] {
            for (std::size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;)
                work(i);
        },
        [&] { next.store(count, std::memory_order_relaxed); });
}

}  // namespace

std::function<bool(qint64)> LocalFolderServer::_Transfer(const QString& path, qint64 size) const {
    return [this, path, size](qint64 done) {
        if (_progress) {
            const std::lock_guard<std::mutex> lock(_progressLock);
            _progress(path, done, size);
        }
        return !(_exitChecker && _exitChecker->ShouldExit());
    };
}

void LocalFolderServer::_StoreRecord(File& record) {
    if (!_database) return;
    if (record.id > 0)
        _database->UpdateFile(record);
    else
        _database->AddFile(record);
}

Results LocalFolderServer::UploadFiles(const sync::config::ServerConfiguration&, const Folder&,
                                       QList<File>& files) {
    // The copies are independent of each other and mostly system calls: they run on several
    // threads. The database is read and written on this thread only, in the batch's order: a
    // file that needs its record on the way is copied here afterwards.
    struct Copy {
        bool done = false;
        bool deferred = false;
        int status = 0;
        struct stat read {};
    };
    std::vector<Copy> copies(std::size_t(files.size()));
    // Taken here, once: the threads must not make the list copy itself under each other.
    const std::vector<File*> records = Elements(files);
    const auto copy = [&](std::size_t i, bool mayRead) {
        Copy& c = copies[i];
        c.deferred = false;
        c.done = _Upload(*records[i], c.status, &c.read, mayRead, &c.deferred);
    };
    OnThreads(copies.size(), [&](std::size_t i) { copy(i, /*mayRead=*/false); });
    for (std::size_t i = 0; i < copies.size(); ++i)
        if (copies[i].deferred) copy(i, /*mayRead=*/true);

    Results r;
    std::vector<UploadedFile> uploaded;
    for (std::size_t i = 0; i < copies.size(); ++i) {
        File& f = *records[i];
        const int status = copies[i].status;
        if (copies[i].done) {
            uploaded.emplace_back(&f, copies[i].read);
            r.CountDone(Results::FileServerCreation, ShownPath(f));
            continue;
        }
        SYNC_LOG_WARN("Upload of %1 to %2 failed: status %3", f.localPath, f.serverPath,
                      QString::number(status));
        f.syncStatus = FileSynchronizationStatus::OutOfSync;
        if (_database && f.id > 0) ForgetUnsynchronised(f, LastSynchronised(*_database, f));
        _StoreRecord(f);
        r.CountFailure(Results::FileServerCreation, ShownPath(f), status);
    }
    SettleTimesOfRecentFiles(uploaded);
    // One commit for the batch: a commit per record is most of the cost of uploading many
    // small files.
    sync::database::TransactionalScope scope;
    for (const UploadedFile& file : uploaded) _StoreRecord(*file.first);
    scope.commit();
    return r;
}

bool LocalFolderServer::_Upload(File& f, int& status, struct stat* read, bool mayRead,
                                bool* deferred) {
    status = 0;
    QByteArray native;
    try {
        native = _NativePath(f.serverPath);
    } catch (const HttpException& e) {
        status = e.code;
        return false;
    }
    if (native == _directory.toUtf8()) {
        status = sync::http::Conflict;
        return false;
    }
    QByteArray parent, name;
    SplitNative(native, parent, name);
    const FdCloser dir(OpenBelow(_directory.toUtf8(), parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.fd < 0) {
        // A missing parent is a conflict with the tree, as PUT answers it.
        status = errno == ENOENT || errno == ENOTDIR ? sync::http::Conflict : StatusOf(errno);
        return false;
    }
    // Whether the server file is there now (filling st); status set when that is unknown.
    const auto serverNow = [&](struct stat& st) {
        if (::fstatat(dir.fd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0) return true;
        if (errno != ENOENT) status = StatusOf(errno);
        return false;
    };
    // Only what the engine has seen is replaced: nothing for a new file, else the version the
    // record names. Where nothing is, a file is written as new: a local edit outlives a
    // deletion on the server (but not a rename that changed only the name's case).
    const auto seen = [&](const struct stat* now) {
        if (!now) return f.serverFileId.isEmpty() || !OtherSpellingExists(dir.fd, name);
        if (f.serverFileId.isEmpty()) return false;
        const QString versionId = f.properties.value(QStringLiteral("versionId"));
        return IdOf(*now) == f.serverFileId &&
               (versionId.isEmpty() || versionId == VersionIdOf(*now));
    };
    struct stat server;
    const bool exists = serverNow(server);
    if (status != 0) return false;
    if (exists && !S_ISREG(server.st_mode)) {
        status = sync::http::Conflict;
        return false;
    }

    const FdCloser local(
        ::open(QFile::encodeName(f.localPath).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat before;
    if (local.fd < 0 || ::fstat(local.fd, &before) != 0 || !S_ISREG(before.st_mode)) {
        SYNC_LOG_WARN("Cannot read %1 for upload", f.localPath);
        return false;
    }
    const bool writable = Allowed(dir.fd, ".", W_OK | X_OK);
    const auto settle = [&](const struct stat& stored, const QString& hash) {
        SetServerFields(f, stored,
                        PrivilegesOf(dir.fd, name.constData(), false, writable, &stored));
        f.size = qint64(before.st_size);
        f.lastModified = WholeSecondsOf(before);
        if (read) *read = before;
        f.checksum = hash;
        f.syncStatus = FileSynchronizationStatus::Synchronized;
        f.referencesOnly = 0;
        f.transferPending = false;
        return true;
    };

    // The server may hold these bytes already (both sides made the same change): then the
    // record is only settled, and nothing is copied or kept as a conflict.
    if (exists && server.st_size == before.st_size) {
        // Through the descriptors at hand: the very files compared, and no second path walk.
        const QString localHash = sync::core::CryptographicHash::HashOpenFile(local.fd);
        const FdCloser serverFile(
            ::openat(dir.fd, name.constData(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        const QString serverHash = sync::core::CryptographicHash::HashOpenFile(serverFile.fd);
        struct stat after;
        if (!localHash.isEmpty() && localHash == serverHash && ::fstat(local.fd, &after) == 0 &&
            SameStamp(before, after, false)) {
            struct stat now;
            if (serverNow(now) && SameStamp(server, now, true)) return settle(now, localHash);
            // Not settled this way; the copy below asks again.
            status = 0;
        }
    }
    if (!seen(exists ? &server : nullptr)) {
        status = sync::http::PreconditionFailed;
        return false;
    }

    // A server version that this client never synchronised (both sides changed the file since
    // the last cycle, or both added it) is replaced only once it is kept beside it; the next
    // cycle brings the copy down like any new server file. The planner marks every file changed
    // on both sides with the server's "version".
    if (exists) {
        if (!mayRead && _database && f.id > 0) {
            // Nothing is written yet: the file is copied again where its record can be read.
            if (deferred) *deferred = true;
            return false;
        }
        const File last = _database ? LastSynchronised(*_database, f) : File();
        const QString synchronised = last.properties.value(QStringLiteral("versionId"));
        const bool neverSynchronised = _database && last.id <= 0;
        if ((f.properties.contains(QStringLiteral("version")) || neverSynchronised ||
             (!synchronised.isEmpty() && synchronised != VersionIdOf(server))) &&
            !KeepConflictCopy(dir.fd, name, server, status))
            return false;
    }

    QByteArray temporary;
    const FdCloser out(CreateTemporary(dir.fd, name, temporary));
    if (out.fd < 0) {
        status = StatusOf(errno);
        return false;
    }
    bool renamed = false;
    struct Remover {
        const FdCloser& dir;
        const QByteArray& temporary;
        const bool& renamed;
        ~Remover() {
            if (!renamed) ::unlinkat(dir.fd, temporary.constData(), 0);
        }
    } remover{dir, temporary, renamed};
    if (exists) ::fchmod(out.fd, server.st_mode & 07777);

    sync::core::Sha256 hash;
    int readError = 0, writeError = 0;
    const qint64 total = CopyHashing(local.fd, out.fd, hash, readError, writeError,
                                     _Transfer(f.localPath, qint64(before.st_size)));
    if (total < 0) {
        if (writeError != 0) status = StatusOf(writeError);
        SYNC_LOG_WARN("Copying %1 to the server broke off: %2", f.localPath,
                      ErrorText(readError != 0 ? readError : writeError));
        return false;
    }
    struct stat after;
    if (::fstat(local.fd, &after) != 0 || total != qint64(before.st_size) ||
        !SameStamp(before, after, false)) {
        // The bytes read belong to no version of the file; the next cycle sees the new one.
        status = sync::http::Conflict;
        return false;
    }
    // The server file carries the local time, as a copy keeps it.
    if (!SetModified(out.fd, before.st_mtim) || ::fsync(out.fd) != 0) {
        status = StatusOf(errno);
        return false;
    }
    // Asked again at the last moment: someone may have written the file during the copy.
    struct stat now;
    const bool stillThere = serverNow(now);
    if (status != 0) return false;
    if (!seen(stillThere ? &now : nullptr)) {
        status = sync::http::PreconditionFailed;
        return false;
    }
    // Where no file was, none written meanwhile is replaced.
    if (stillThere ? ::renameat(dir.fd, temporary.constData(), dir.fd, name.constData()) != 0
                   : !RenameNoReplace(dir.fd, temporary, name)) {
        status = errno == EEXIST ? sync::http::PreconditionFailed : StatusOf(errno);
        return false;
    }
    renamed = true;
    // The new name lasts only once the folder is on the disk too.
    ::fsync(dir.fd);
    struct stat stored;
    if (::fstat(out.fd, &stored) != 0) {
        status = StatusOf(errno);
        return false;
    }
    return settle(stored, hash.HexResult());
}

Results LocalFolderServer::DownloadFiles(
    const sync::config::ServerConfiguration&, const Folder& root,
    QList<sync::thread::SynchronizedFileConfiguration>& files) {
    const auto targetOf = [](const sync::thread::SynchronizedFileConfiguration& pair) {
        return pair.serverRecord.localPath.isEmpty() ? pair.databaseRecord.localPath
                                                     : pair.serverRecord.localPath;
    };
    // As for uploads: the copies on several threads (a download reads no record from the
    // database), the records and the counts on this one, in the batch's order.
    struct Copy {
        bool done = false;
        int status = 0;
    };
    std::vector<Copy> copies(std::size_t(files.size()));
    // Taken here, once: the threads must not make the list copy itself under each other.
    const std::vector<sync::thread::SynchronizedFileConfiguration*> pairs = Elements(files);
    OnThreads(copies.size(), [&](std::size_t i) {
        copies[i].done = _Download(*pairs[i], targetOf(*pairs[i]), root, copies[i].status);
    });

    Results r;
    for (std::size_t i = 0; i < copies.size(); ++i) {
        sync::thread::SynchronizedFileConfiguration& pair = *pairs[i];
        File& record = pair.databaseRecord;
        const QString target = targetOf(pair);
        const int status = copies[i].status;
        if (copies[i].done) {
            _StoreRecord(record);
            r.CountDone(Results::FileLocalCreation, target);
            continue;
        }
        SYNC_LOG_WARN("Download of %1 to %2 failed: status %3", pair.serverRecord.serverPath,
                      target, QString::number(status));
        pair.serverRecord.syncStatus = record.syncStatus = FileSynchronizationStatus::OutOfSync;
        _StoreRecord(record);
        r.CountFailure(Results::FileLocalCreation, target, status);
    }
    return r;
}

bool LocalFolderServer::_Download(sync::thread::SynchronizedFileConfiguration& pair,
                                  const QString& target, const Folder& root, int& status) {
    status = 0;
    File& f = pair.serverRecord;
    File& record = pair.databaseRecord;
    QByteArray native;
    try {
        native = _NativePath(f.serverPath.isEmpty() ? record.serverPath : f.serverPath);
    } catch (const HttpException& e) {
        status = e.code;
        return false;
    }
    const FdCloser source(
        OpenBelow(_directory.toUtf8(), native, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    struct stat announced;
    if (source.fd < 0) {
        // Links and entries below a file are not listed: for a client they are not there.
        status = errno == ELOOP || errno == ENOTDIR ? sync::http::NotFound : StatusOf(errno);
        return false;
    }
    if (::fstat(source.fd, &announced) != 0) {
        status = StatusOf(errno);
        return false;
    }
    if (!S_ISREG(announced.st_mode)) {
        status = sync::http::NotFound;
        return false;
    }

    const QString temporary = sync::core::QFileWrapper(target).GetTemporaryFile(root.localPath);
    const QByteArray nativeTemporary = QFile::encodeName(temporary);
    const QByteArray nativeTarget = QFile::encodeName(target);
    if (!QDir().mkpath(QFileInfo(temporary).absolutePath())) {
        SYNC_LOG_WARN("Cannot create the temporary folder for %1", target);
        return false;
    }
    const FdCloser out(
        ::open(nativeTemporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (out.fd < 0) {
        SYNC_LOG_WARN("Cannot write %1: %2", temporary, ErrorText(errno));
        return false;
    }
    bool renamed = false;
    struct Remover {
        const QByteArray& path;
        const bool& renamed;
        ~Remover() {
            if (!renamed) ::unlink(path.constData());
        }
    } remover{nativeTemporary, renamed};

    sync::core::Sha256 hash;
    int readError = 0, writeError = 0;
    const qint64 total = CopyHashing(source.fd, out.fd, hash, readError, writeError,
                                     _Transfer(target, qint64(announced.st_size)));
    if (total < 0) {
        if (readError != 0) status = StatusOf(readError);
        SYNC_LOG_WARN("Copying %1 from the server broke off: %2", target,
                      ErrorText(readError != 0 ? readError : writeError));
        return false;
    }
    struct stat after;
    if (::fstat(source.fd, &after) != 0 || total != qint64(announced.st_size) ||
        !SameStamp(announced, after, true)) {
        // Written on the server meanwhile: the bytes are no version of it.
        status = sync::http::Conflict;
        return false;
    }
    if (!SetModified(out.fd, announced.st_mtim) || ::fsync(out.fd) != 0) {
        SYNC_LOG_WARN("Cannot write %1: %2", temporary, ErrorText(errno));
        return false;
    }
    const QString downloadedHash = hash.HexResult();

    // The local file must still be the one planned.
    switch (JudgeLocalTarget(target, record, total, downloadedHash)) {
        case LocalTarget::Replaceable:
            break;
        case LocalTarget::Edited:
            status = sync::http::Conflict;
            return false;
        case LocalTarget::Unreadable:
            return false;
    }
    if (::rename(nativeTemporary.constData(), nativeTarget.constData()) != 0) {
        SYNC_LOG_WARN("Cannot move the download into %1: %2", target, ErrorText(errno));
        return false;
    }
    renamed = true;
    {
        const FdCloser folder(
            ::open(QFile::encodeName(QFileInfo(target).absolutePath()).constData(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.fd >= 0) ::fsync(folder.fd);
    }
    struct stat written;
    if (::fstat(out.fd, &written) != 0) return false;

    QByteArray parent, name;
    SplitNative(native, parent, name);
    int privileges = 0;
    {
        const FdCloser dir(::open(parent.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (dir.fd >= 0)
            privileges =
                PrivilegesOf(dir.fd, name.constData(), false, Allowed(dir.fd, ".", W_OK | X_OK));
    }
    SetServerFields(f, announced, privileges);
    f.size = total;
    f.lastModified = ModifiedOf(announced);
    f.syncStatus = FileSynchronizationStatus::Synchronized;
    // The record now describes the file on the disk and the server version it came from.
    SetServerFields(record, announced, privileges);
    record.size = total;
    record.lastModified = WholeSecondsOf(written);
    record.checksum = downloadedHash;
    record.syncStatus = FileSynchronizationStatus::Synchronized;
    record.referencesOnly = 0;
    record.transferPending = false;
    // No transfer is under way any more. A record still naming a download would read, once
    // marked synchronising for a later task and left so by a run that died, as a download cut
    // short: the next run drops such a record when the local file is gone, and brings back a
    // file the user deleted.
    record.transferDirection = sync::config::TransferNone;
    return true;
}

bool LocalFolderServer::_IsPlannedVersion(const File& f, const struct stat& st) {
    const QString versionId = f.properties.value(QStringLiteral("versionId"));
    return (f.serverFileId.isEmpty() || IdOf(st) == f.serverFileId) &&
           (versionId.isEmpty() || versionId == VersionIdOf(st));
}

Results LocalFolderServer::DeleteFiles(const Folder&, QList<File>& files) {
    Results r;
    for (File& f : files) {
        int status = 0;
        try {
            const QByteArray native = _NativePath(f.serverPath);
            QByteArray parent, name;
            SplitNative(native, parent, name);
            const FdCloser dir(
                OpenBelow(_directory.toUtf8(), parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            struct stat st;
            if (native == _directory.toUtf8()) {
                status = sync::http::Conflict;
            } else if (dir.fd < 0) {
                // No folder, no file in it.
                if (errno != ENOENT && errno != ENOTDIR) status = StatusOf(errno);
            } else if (::fstatat(dir.fd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno != ENOENT) status = StatusOf(errno);
            } else if (S_ISDIR(st.st_mode)) {
                status = sync::http::Conflict;
            } else if (!_IsPlannedVersion(f, st)) {
                // Changed on the server since it was planned: deleting it would lose that
                // change; the next cycle brings it down instead.
                status = sync::http::PreconditionFailed;
            } else if (::unlinkat(dir.fd, name.constData(), 0) != 0 && errno != ENOENT) {
                status = StatusOf(errno);
            }
        } catch (const HttpException& e) {
            status = e.code;
        }
        if (status != 0) {
            SYNC_LOG_WARN("Cannot delete server file %1: status %2", f.serverPath,
                          QString::number(status));
            r.CountFailure(Results::FileServerDeletion, ShownPath(f), status);
            continue;
        }
        if (_database && f.id > 0) _database->RemoveFile(f.id);
        r.CountDone(Results::FileServerDeletion, ShownPath(f));
    }
    return r;
}

// --- Listings -------------------------------------------------------------------------------

namespace {

// A folder the walk has still to list, with the paths its entries' records start with.
struct PendingFolder {
    QByteArray native;
    QString serverPath;  // without a trailing "/"; "" for a root at the server's top
    QString localPath;
};

// What listing one folder yields. Each folder's listing is kept apart, so that the folders of
// one depth can be listed in any order and still be joined in the order of the walk.
struct FolderListing {
    QVector<Folder> folders;
    QVector<File> files;
    std::vector<PendingFolder> subfolders;
    int status = 0;
    // The warning for status; only the failure the walk answers with is logged.
    std::function<void()> warn;
};

// strerror's buffer may be shared between threads; this one is the caller's.
QString ErrorTextOf(int error) {
    char buffer[256];
    return QString::fromLocal8Bit(::strerror_r(error, buffer, sizeof buffer));
}

// The server path of an entry, built at its exact size: trees keep one per entry.
QString JoinedAtSize(const QString& prefix, const QString& name) {
    QString joined;
    joined.reserve(prefix.size() + name.size());
    joined.append(prefix.constData(), prefix.size());
    joined.append(name.constData(), name.size());
    return joined;
}

// A name given as all-ASCII bytes decodes as itself; only others take the full round trip.
QString DecodeListedName(const char* name) {
    const char* c = name;
    while (*c && static_cast<unsigned char>(*c) < 0x80) ++c;
    if (!*c) return QString::fromLatin1(name, int(c - name));
    return DecodeName(name);
}

// Lists single folders of one root's tree. The threads of a listing share one: listing a
// folder changes nothing in it.
class FolderLister {
public:
    FolderLister(const Folder& root, const QByteArray& rootNative, bool directOnly)
        : _rootNative(rootNative),
          _directOnly(directOnly),
          _listHidden(root.hasSyncOption(sync::config::SyncHiddenEntries)),
          _staleBefore(QDateTime::currentSecsSinceEpoch() - 24 * 3600),
          _tempName(sync::core::consts::TEMP_FOLDER_NAME.toUtf8()),
          _backupName(sync::core::consts::BASE_FOLDER_NAME.toUtf8()) {}

    // 0, or the status that fails the whole listing. like (when given) is a folder listed before,
    // whose size this one likely has: room made at once saves growing step by step.
    int List(const PendingFolder& at, bool isRoot, FolderListing& out,
             const FolderListing* like = nullptr) const;

private:
    QByteArray _rootNative;
    bool _directOnly;
    bool _listHidden;
    qint64 _staleBefore;
    QByteArray _tempName;
    QByteArray _backupName;
};

int FolderLister::List(const PendingFolder& at, bool isRoot, FolderListing& out,
                       const FolderListing* like) const {
    const QByteArray& native = at.native;
    const auto fail = [&out](int status, std::function<void()> warn) {
        out.warn = std::move(warn);
        return status;
    };
    // The root may be reached through a link; below it a link is never followed. A folder too
    // deep to be named whole is listed all the same.
    int fd =
        ::open(native.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isRoot ? 0 : O_NOFOLLOW));
    if (fd < 0 && !isRoot && errno == ENAMETOOLONG) fd = OpenNameByName(_rootNative, native);
    DIR* dir = OpenDir(fd);
    if (!dir) {
        const int error = errno;
        if (isRoot && (error == ENOENT || error == ENOTDIR)) return sync::http::NotFound;
        // A folder that vanished after it was listed: its content is unknown, and a tree
        // without it would read as deletions.
        const bool vanished = error == ENOENT || error == ENOTDIR || error == ELOOP;
        return fail(vanished ? sync::http::Conflict : LocalFolderServer::StatusOf(error),
                    [native, error] {
                        SYNC_LOG_WARN("Cannot list server folder %1: %2", QString::fromUtf8(native),
                                      ErrorTextOf(error));
                    });
    }
    DirCloser closer(dir);
    const int dirFd = ::dirfd(dir);
    if (!Allowed(dirFd, ".", X_OK))
        return fail(sync::http::Forbidden, [native] {
            SYNC_LOG_WARN("Cannot examine the entries of server folder %1",
                          QString::fromUtf8(native));
        });
    const bool writable = Allowed(dirFd, ".", W_OK | X_OK);
    // Every entry's paths start alike: joined once per folder, not once per entry.
    if (like) {
        out.folders.reserve(like->folders.size());
        out.files.reserve(like->files.size());
        out.subfolders.reserve(like->subfolders.size());
    }
    const QString serverPrefix = at.serverPath + QLatin1Char('/');
    const QString localPrefix = at.localPath + QLatin1Char('/');
    for (;;) {
        errno = 0;
        const struct dirent* entry = ::readdir(dir);
        if (!entry) {
            if (errno == 0) break;
            const int error = errno;
            return fail(error == ENOENT ? sync::http::Conflict : LocalFolderServer::StatusOf(error),
                        [native, error] {
                            SYNC_LOG_WARN("Listing server folder %1 broke off: %2",
                                          QString::fromUtf8(native), ErrorTextOf(error));
                        });
        }
        const char* name = entry->d_name;
        if (IsDotOrDotDot(name) || _tempName == name || _backupName == name) continue;
        if (IsUploadTemporary(name)) {
            // Never content, also where hidden entries are listed; one that no upload has
            // touched for a day was left by a client that died.
            struct stat st;
            if (writable && ::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISREG(st.st_mode) && st.st_ctim.tv_sec < _staleBefore &&
                ::unlinkat(dirFd, name, 0) == 0)
                SYNC_LOG_INFO("Removed %1/%2, left by an upload that never finished",
                              QString::fromUtf8(native), QString::fromUtf8(name));
            continue;
        }
        if (name[0] == '.' && !_listHidden) continue;
        struct stat st;
        if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            const int error = errno;
            // Removed between the listing and the look: as if listed a moment later.
            if (error == ENOENT) continue;
            const QByteArray entryName(name);
            return fail(LocalFolderServer::StatusOf(error), [native, entryName, error] {
                SYNC_LOG_WARN("Cannot examine server entry %1/%2: %3", QString::fromUtf8(native),
                              QString::fromUtf8(entryName), ErrorTextOf(error));
            });
        }
        const bool isFolder = S_ISDIR(st.st_mode);
        if (!isFolder && !S_ISREG(st.st_mode)) {
            SYNC_LOG_DEBUG("Server entry %1/%2 is no file or folder; not listed",
                           QString::fromUtf8(native), QString::fromUtf8(name));
            continue;
        }
        const QString decoded = DecodeListedName(name);
        if (decoded.isNull()) {
            // The local side leaves such names out too; the user has to rename it.
            SYNC_LOG_WARN("Leaving out %1 in server folder %2: its name is not valid UTF-8.",
                          Escaped(name), QString::fromUtf8(native));
            continue;
        }
        const int privileges = PrivilegesOf(dirFd, name, isFolder, writable, &st);
        if (isFolder) {
            if (_directOnly) continue;
            Folder f;
            f.name = decoded;
            f.serverPath = f.path = JoinedAtSize(serverPrefix, decoded);
            f.localPath = JoinedAtSize(localPrefix, decoded);
            f.setServerFolderId(IdOf(st));
            f.privileges = privileges;
            f.privilegeInfo = PrivilegeInfo(privileges);
            f.lastModified = ModifiedOf(st);
            QByteArray below = native;
            if (!below.endsWith('/')) below += '/';
            below += name;
            out.subfolders.push_back(PendingFolder{below, f.serverPath, f.localPath});
            sync::syncService::EntryInfoTree::ShareListedTexts(f);
            out.folders.append(std::move(f));
        } else {
            File f;
            f.name = decoded;
            f.serverPath = JoinedAtSize(serverPrefix, decoded);
            f.localPath = JoinedAtSize(localPrefix, decoded);
            f.size = qint64(st.st_size);
            f.serverFileId = IdOf(st);
            f.properties.insert(QStringLiteral("versionId"), VersionIdOf(st));
            f.privileges = privileges;
            f.privilegeInfo = PrivilegeInfo(privileges);
            f.lastModified = f.serverModified = ModifiedOf(st);
            sync::syncService::EntryInfoTree::ShareListedTexts(f);
            out.files.append(std::move(f));
        }
    }
    return 0;
}

// Below this many folders at one depth the walk stays on the calling thread: starting threads
// costs more than they save.
constexpr std::size_t kFoldersWorthThreads = 32;

// Lists the folders of one depth into listed (one entry per folder, same order), on several
// threads when there are many. The status is that of the first failing folder in walk order,
// as a walk of one folder after the other would meet it; once a failure is seen no further
// folder is started, and every folder before it has been handed out already.
int ListDepth(const FolderLister& lister, const std::vector<PendingFolder>& depth, bool isRoot,
              std::vector<FolderListing>& listed) {
    listed.clear();
    listed.resize(depth.size());
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    const sync::syncService::EntryInfoTree::TextSource* texts =
        sync::syncService::EntryInfoTree::TextSource::OfThisThread();
    const auto work = [&] {
        const sync::syncService::EntryInfoTree::TextSource::Lent lent(texts);
        const FolderListing* previous = nullptr;
        while (!failed.load(std::memory_order_relaxed)) {
            const std::size_t i = next.fetch_add(1, std::memory_order_relaxed);
            if (i >= depth.size()) return;
            listed[i].status = lister.List(depth[i], isRoot, listed[i], previous);
            previous = &listed[i];
            if (listed[i].status != 0) failed.store(true, std::memory_order_relaxed);
        }
    };
    RunOnThreads(depth.size() >= kFoldersWorthThreads ? ListingThreads() : 1u, work,
                 [&] { failed.store(true, std::memory_order_relaxed); });
    for (const FolderListing& folder : listed) {
        if (folder.status == 0) continue;
        if (folder.warn) folder.warn();
        return folder.status;
    }
    return 0;
}

// Room for extra more records, growing at least by half: a deep tree adds a few records per
// depth, and room made to measure each time would move all records at every depth.
template <typename Record>
void MakeRoom(QVector<Record>& records, std::size_t extra) {
    using Size = decltype(records.size());
    const Size needed = records.size() + Size(extra);
    if (records.capacity() < needed)
        records.reserve(std::max(needed, records.capacity() + records.capacity() / 2));
}

// The folders' listings are made on the listing threads, and their memory stays with those
// threads' heaps when freed; the merged listing grows in fresh memory meanwhile. Handing the
// freed memory back to the system as the merge goes keeps the listing in memory once instead
// of twice (some 30 MB for 100,000 files). Each hand-back walks the whole heap, so a depth
// makes a few of them, however large it is.
constexpr std::size_t kTrimAtLeast = 8u << 20;
constexpr std::size_t kTrimsPerDepth = 4;
void GiveBackFreedMemory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

// Appends from's records to to, moved, and frees from's room; to takes from whole when it holds
// nothing yet and has no room reserved for more.
template <typename Record>
void MoveAppend(QVector<Record>& to, QVector<Record>& from) {
    if (to.isEmpty() && to.capacity() == 0) {
        to = std::move(from);
        return;
    }
    for (Record& record : from) to.append(std::move(record));
    from = QVector<Record>();
}

}  // namespace

int LocalFolderServer::GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                                     std::shared_ptr<QVector<File>> files) {
    return _List(root, false, folders.get(), files.get());
}

int LocalFolderServer::GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) {
    return _List(root, true, nullptr, files.get());
}

// Breadth first, one depth at a time: the folders of a depth may be listed side by side, and
// joined in their order they give exactly the order of a walk through one queue.
int LocalFolderServer::_List(Folder& root, bool directOnly, QVector<Folder>* folders,
                             QVector<File>* files) {
    const QDateTime requestTime = QDateTime::currentDateTimeUtc();
    QByteArray rootNative;
    try {
        rootNative = _NativePath(root.serverPath);
    } catch (const HttpException& e) {
        return e.code;
    }
    const FolderLister lister(root, rootNative, directOnly);
    std::vector<PendingFolder> depth{
        PendingFolder{rootNative, Normalized(root.serverPath), Normalized(root.localPath)}};
    std::vector<FolderListing> listed;
    QVector<Folder> foundFolders;
    QVector<File> foundFiles;
    for (bool isRoot = true; !depth.empty(); isRoot = false) {
        if (const int status = ListDepth(lister, depth, isRoot, listed)) return status;
        std::size_t deeper = 0, folderCount = 0, fileBytes = 0;
        for (const FolderListing& folder : listed) {
            deeper += folder.subfolders.size();
            folderCount += std::size_t(folder.folders.size());
            fileBytes += std::size_t(folder.files.size()) * sizeof(File);
        }
        std::vector<PendingFolder> next;
        next.reserve(deeper);
        MakeRoom(foundFolders, folderCount);
        // The files grow as each folder's are moved over and freed: room made for all of them
        // first would hold a depth's files twice. Records are relocatable, so growing moves
        // no record.
        const std::size_t trimEvery = std::max(kTrimAtLeast, fileBytes / kTrimsPerDepth);
        std::size_t moved = 0;
        for (FolderListing& folder : listed) {
            std::move(folder.subfolders.begin(), folder.subfolders.end(), std::back_inserter(next));
            MoveAppend(foundFolders, folder.folders);
            moved += std::size_t(folder.files.size()) * sizeof(File);
            MoveAppend(foundFiles, folder.files);
            if (moved >= trimEvery) {
                GiveBackFreedMemory();
                moved = 0;
            }
        }
        listed.clear();
        depth = std::move(next);
    }
    if (folders) MoveAppend(*folders, foundFolders);
    if (files) MoveAppend(*files, foundFiles);
    root.setLastServerSyncRequestTime(requestTime);
    return 0;
}

// --- Folder operations ----------------------------------------------------------------------

Results LocalFolderServer::CreateFolder(Folder& folder, const QString&, bool createParents) {
    Results r;
    const auto fail = [&](int status) {
        r.CountFailure(Results::FolderServerCreation, ShownPath(folder), status);
        SYNC_LOG_WARN("Cannot create server folder %1: status %2", folder.serverPath,
                      QString::number(status));
        return r;
    };
    QByteArray native;
    try {
        native = _NativePath(folder.serverPath);
    } catch (const HttpException& e) {
        return fail(e.code);
    }
    // Each missing folder on the way when parents are wanted, else only the last.
    QList<int> seams;
    if (createParents)
        for (int i = _directory.toUtf8().size() + 1; i < native.size(); ++i)
            if (native.at(i) == '/') seams.append(i);
    seams.append(native.size());
    for (const int seam : seams) {
        const QByteArray path = native.left(seam);
        if (::mkdir(path.constData(), 0777) == 0 || errno == EEXIST) {
            struct stat st;
            if (::stat(path.constData(), &st) != 0) return fail(StatusOf(errno));
            if (!S_ISDIR(st.st_mode)) return fail(sync::http::Conflict);
            continue;
        }
        // A missing parent is a conflict with the tree, as MKCOL answers it.
        return fail(errno == ENOENT ? sync::http::Conflict : StatusOf(errno));
    }
    Folder info;
    if (!GetFolderInfo(folder, info)) return fail(sync::http::Conflict);
    folder.setServerFolderId(info.getServerFolderId());
    folder.privileges = info.privileges;
    folder.privilegeInfo = info.privilegeInfo;
    r.CountDone(Results::FolderServerCreation, ShownPath(folder));
    return r;
}

Results LocalFolderServer::DeleteFolder(Folder& folder) {
    const QByteArray native = _NativePath(folder.serverPath);
    const QByteArray top = _directory.toUtf8();
    if (native == top)
        throw HttpException(sync::http::Forbidden,
                            QStringLiteral("The server's top folder is not deleted"));
    const int slash = native.lastIndexOf('/');
    const QByteArray parent = slash == 0 ? QByteArray("/") : native.left(slash);
    const QByteArray name = native.mid(slash + 1);
    // Files that this machine never synchronised, or not as they are now (hidden ones, ones
    // left out, ones new or changed since the plan), are someone's work: they stay, and so does
    // the folder. The engine's own temporary files are not content.
    const QString serverTop = Normalized(folder.serverPath);
    const auto keep = [&](const QString& below, const struct stat& st) {
        if (!_database) return false;
        const QStringList parts = below.split(QLatin1Char('/'));
        for (const QString& part : parts)
            if (part == sync::core::consts::TEMP_FOLDER_NAME ||
                part == sync::core::consts::BASE_FOLDER_NAME)
                return false;
        if (IsUploadTemporaryName(parts.last())) return false;
        const File record = _database->GetFileByPath(folder.localPath + QLatin1Char('/') + below,
                                                     folder.authenticationId);
        const QString versionId = record.properties.value(QStringLiteral("versionId"));
        const bool known = record.id > 0 &&
                           Normalized(record.serverPath) == serverTop + QLatin1Char('/') + below &&
                           (versionId.isEmpty() || versionId == VersionIdOf(st));
        return !known;
    };
    int kept = 0;
    int error = 0;
    const int parentFd = ::open(parent.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0) {
        error = errno == ENOENT || errno == ENOTDIR ? 0 : errno;
    } else {
        struct stat st;
        if (::fstatat(parentFd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            error = errno == ENOENT ? 0 : errno;
        else if (S_ISDIR(st.st_mode))
            error = RemoveEntryKeeping(parentFd, name, QString(), keep, kept);
        ::close(parentFd);
    }
    if (error != 0)
        throw HttpException(
            StatusOf(error),
            QStringLiteral("Failed to delete server folder %1: %2")
                .arg(folder.serverPath, QString::fromLocal8Bit(std::strerror(error))));
    // The folder stays for what it holds; the next listing shows it again.
    if (kept > 0)
        SYNC_LOG_WARN(
            "Kept server folder %1: it holds %2 entries that this machine never synced, that "
            "changed since, or that are never synced (links, hidden entries, names that are not "
            "UTF-8)",
            folder.serverPath, QString::number(kept));
    Results r;
    r.CountDone(Results::FolderServerDeletion, ShownPath(folder));
    return r;
}

bool LocalFolderServer::GetFolderInfo(const Folder& folder, Folder& info) {
    const QByteArray native = _NativePath(folder.serverPath);
    struct stat st;
    if (::stat(native.constData(), &st) != 0) {
        const int error = errno;
        if (error == ENOENT || error == ENOTDIR) return false;
        throw HttpException(
            StatusOf(error),
            QStringLiteral("Failed to read server folder %1: %2")
                .arg(folder.serverPath, QString::fromLocal8Bit(std::strerror(error))));
    }
    if (!S_ISDIR(st.st_mode)) return false;
    const int slash = native.lastIndexOf('/');
    const QByteArray parent = slash <= 0 ? QByteArray("/") : native.left(slash);
    const int parentFd = ::open(parent.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool writable = parentFd >= 0 && Allowed(parentFd, ".", W_OK | X_OK);
    const int privileges =
        parentFd >= 0 ? PrivilegesOf(parentFd, native.mid(slash + 1).constData(), true, writable)
                      : 0;
    if (parentFd >= 0) ::close(parentFd);
    info.setServerFolderId(IdOf(st));
    info.privileges = privileges;
    info.privilegeInfo = PrivilegeInfo(privileges);
    return true;
}

}  // namespace remote
}  // namespace sync
