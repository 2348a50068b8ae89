#include "QDirIteratorWrapper.h"

#include "OpenNameByName.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <log4cplus/config.hxx>

#include "SyncException.h"
#include "SyncLog.h"

namespace sync {
namespace core {

namespace {

QString UnreadableMessage(const QString& path) {
    return QStringLiteral("Cannot read local folder %1").arg(QDir::toNativeSeparators(path));
}

// The entry, or a folder on its path, was removed, renamed or replaced by a file.
bool Vanished(int error) {
    return error == ENOENT || error == ENOTDIR;
}

// One allocation of the exact size: every entry's path is joined, and the tree keeps it.
QString Join(const QString& folder, const QString& name) {
    const bool slash = !folder.endsWith(QLatin1Char('/'));
    QString path;
    path.reserve(folder.size() + (slash ? 1 : 0) + name.size());
    path.append(folder);
    if (slash) path.append(QLatin1Char('/'));
    path.append(name);
    return path;
}

// Length of the well-formed UTF-8 sequence at s, 0 when there is none: no overlong forms, no
// surrogates, nothing above U+10FFFF, exactly what QString decodes and encodes back unchanged.
int Utf8SequenceLength(const unsigned char* s, size_t left) {
    const unsigned char c = s[0];
    if (c < 0x80) return 1;
    const auto tail = [&](size_t i, unsigned char low, unsigned char high) {
        return i < left && s[i] >= low && s[i] <= high;
    };
    if (c >= 0xC2 && c <= 0xDF) return tail(1, 0x80, 0xBF) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        const unsigned char low = c == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = c == 0xED ? 0x9F : 0xBF;
        return tail(1, low, high) && tail(2, 0x80, 0xBF) ? 3 : 0;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        const unsigned char low = c == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = c == 0xF4 ? 0x8F : 0xBF;
        return tail(1, low, high) && tail(2, 0x80, 0xBF) && tail(3, 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

bool IsAscii(const char* s, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (static_cast<unsigned char>(s[i]) >= 0x80) return false;
    return true;
}

bool IsValidUtf8(const char* s, size_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(s);
    for (size_t i = 0; i < length;) {
        const int n = Utf8SequenceLength(bytes + i, length - i);
        if (n == 0) return false;
        i += size_t(n);
    }
    return true;
}

// QString::fromUtf8 drops a leading byte order mark; in a name it is a character like others.
QString DecodeUtf8(const char* s, size_t length) {
    if (length >= 3 && std::memcmp(s, "\xEF\xBB\xBF", 3) == 0)
        return QChar(0xFEFF) + DecodeUtf8(s + 3, length - 3);
    return QString::fromUtf8(s, int(length));
}

// Well-formed parts as they are, every other byte as \xNN.
QString EscapeUndecodable(const char* s, size_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(s);
    QString out;
    size_t validFrom = 0;
    for (size_t i = 0; i < length;) {
        const int n = Utf8SequenceLength(bytes + i, length - i);
        if (n > 0) {
            i += size_t(n);
            continue;
        }
        out += DecodeUtf8(s + validFrom, i - validFrom);
        out += QStringLiteral("\\x%1").arg(uint(bytes[i]), 2, 16, QLatin1Char('0'));
        validFrom = ++i;
    }
    return out + DecodeUtf8(s + validFrom, length - validFrom);
}

class WalkedEntryInfo : public sync::interf::IQFileInfoWrapper {
public:
    explicit WalkedEntryInfo(const QDirIteratorWrapper::Entry& entry) : _entry(entry) {}

    QString AbsoluteFilePath() override { return _entry.absolutePath; }
    QString FileName() override { return _entry.name; }
    qint64 Size() override { return _entry.size; }
    // The instant in UTC: converting to local time costs a time zone lookup per entry.
    QDateTime LastModified() override {
        return QDateTime::fromMSecsSinceEpoch(_entry.modifiedMs, Qt::UTC);
    }
    bool IsFile() override { return _entry.isFile; }
    bool IsDir() override { return _entry.isDir; }
    bool IsSymLink() override { return _entry.isSymLink; }
    bool IsHidden() override { return _entry.isHidden; }
    bool Exists() override { return _entry.exists; }
    QString UndecodableName() override { return _entry.undecodableName; }

private:
    QDirIteratorWrapper::Entry _entry;
};

// Entries handed over per lock, and batches held ready: enough to keep both threads busy,
// little enough to keep the memory of a walk small.
constexpr std::size_t kBatchEntries = 256;
constexpr std::size_t kBatchesAhead = 4;

}  // namespace

class QDirIteratorWrapper::Walk {
public:
    Walk(QDir::Filters filters, bool recursive) : _filters(filters), _recursive(recursive) {}
    ~Walk() { _Close(); }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    // Throws SyncException when path is not a readable directory.
    void Start(const QString& path);
    // The next entry to report into entry; false at the end of the walk.
    bool Next(Entry& entry);

private:
    struct Folder {
        QByteArray native;
        QString path;  // as the start was given
        QString absolutePath;
        bool pathIsAbsolute;  // the two are the same, and built once
    };

    bool _Open(Folder folder, bool start);
    void _Close();
    bool _Take(const struct dirent& listed, Entry& e);

    const QDir::Filters _filters;
    const bool _recursive;
    DIR* _dir = nullptr;
    QByteArray _startNative;
    Folder _folder;                // the one being listed
    std::vector<Folder> _toVisit;  // found, not yet listed
};

void QDirIteratorWrapper::Walk::Start(const QString& path) {
    if (path.isEmpty()) throw SyncException(UnreadableMessage(path));
    Folder start{QFile::encodeName(path), path, QFileInfo(path).absoluteFilePath(), false};
    start.pathIsAbsolute = start.absolutePath == path;
    _startNative = start.native;
    _Open(std::move(start), true);
}

// Opens a folder for listing; false when it is gone. The start may be a link to a folder;
// below it a link is never followed, also when it took a folder's place after the listing.
bool QDirIteratorWrapper::Walk::_Open(Folder folder, bool start) {
    int fd = ::open(folder.native.constData(),
                    O_RDONLY | O_DIRECTORY | O_CLOEXEC | (start ? 0 : O_NOFOLLOW));
    if (fd < 0 && !start && errno == ENAMETOOLONG) fd = OpenNameByName(_startNative, folder.native);
    if (fd < 0) {
        if (!start && (Vanished(errno) || errno == ELOOP)) {
            SYNC_LOG_DEBUG("Local folder %1 is gone before it was walked", folder.absolutePath);
            return false;
        }
        throw SyncException(UnreadableMessage(folder.absolutePath));
    }
    // Listing needs read permission, examining the entries needs search permission: names
    // whose type and size cannot be read are no better than no names.
    DIR* dir = ::faccessat(fd, ".", X_OK, AT_EACCESS) == 0 ? ::fdopendir(fd) : nullptr;
    if (!dir) {
        ::close(fd);
        throw SyncException(UnreadableMessage(folder.absolutePath));
    }
    _Close();
    _dir = dir;
    _folder = std::move(folder);
    return true;
}

void QDirIteratorWrapper::Walk::_Close() {
    if (_dir) ::closedir(_dir);
    _dir = nullptr;
}

bool QDirIteratorWrapper::Walk::Next(Entry& entry) {
    for (;;) {
        if (!_dir) {
            if (_toVisit.empty()) return false;
            Folder next = std::move(_toVisit.back());
            _toVisit.pop_back();
            if (!_Open(std::move(next), false)) continue;
        }
        errno = 0;
        const struct dirent* listed = ::readdir(_dir);
        if (listed) {
            if (_Take(*listed, entry)) return true;
            continue;
        }
        const int error = errno;
        _Close();
        // A folder removed while it is listed ends its listing with ENOENT.
        if (error != 0 && !Vanished(error))
            throw SyncException(UnreadableMessage(_folder.absolutePath));
    }
}

// Queues the entry's folder for the walk when it is to be entered; true when it is reported.
bool QDirIteratorWrapper::Walk::_Take(const struct dirent& listed, Entry& e) {
    const char* name = listed.d_name;
    const size_t length = std::strlen(name);
    const bool dotOrDotDot = name[0] == '.' && (length == 1 || (length == 2 && name[1] == '.'));
    const bool hidden = name[0] == '.' && !dotOrDotDot;
    const bool reportDirs = _filters & (QDir::Dirs | QDir::AllDirs);
    const bool reportHidden = _filters.testFlag(QDir::Hidden);
    const bool enterHidden = reportHidden || _filters.testFlag(QDir::AllDirs);
    const bool noLinks = _filters.testFlag(QDir::NoSymLinks);

    // What the listing alone rules out costs no stat.
    if (dotOrDotDot) {
        if (!reportDirs || _filters.testFlag(length == 1 ? QDir::NoDot : QDir::NoDotDot))
            return false;
    } else if (hidden && !reportHidden && !(_recursive && enterHidden)) {
        return false;
    }
    switch (listed.d_type) {
        case DT_LNK:
            if (noLinks) return false;
            break;
        case DT_REG:
            if (!_filters.testFlag(QDir::Files) || (hidden && !reportHidden)) return false;
            break;
        case DT_DIR:
            if (!reportDirs && !_recursive) return false;
            break;
        case DT_FIFO:
        case DT_SOCK:
        case DT_CHR:
        case DT_BLK:
            if (!_filters.testFlag(QDir::System)) return false;
            break;
        default:
            break;
    }

    const int dirFd = ::dirfd(_dir);
    struct stat st;
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (Vanished(errno)) {
            SYNC_LOG_DEBUG("Local entry %1 is gone before it was examined",
                           Join(_folder.absolutePath, DecodeUtf8(name, length)));
            return false;
        }
        throw SyncException(UnreadableMessage(_folder.absolutePath));
    }
    const bool link = S_ISLNK(st.st_mode);
    bool exists = true;
    if (link) {
        if (noLinks) return false;
        // Typed, sized and timed by the target, as QFileInfo does; a dangling link is none of
        // file and folder.
        struct stat target;
        exists = ::fstatat(dirFd, name, &target, 0) == 0;
        if (exists) st = target;
    }
    const bool isDir = exists && S_ISDIR(st.st_mode);
    const bool isFile = exists && S_ISREG(st.st_mode);

    const bool decodable = IsAscii(name, length) || IsValidUtf8(name, length);
    const QString decoded = DecodeUtf8(name, length);
    const QString path = Join(_folder.path, decoded);
    const QString absolutePath =
        _folder.pathIsAbsolute ? path : Join(_folder.absolutePath, decoded);
    if (_recursive && isDir && !link && !dotOrDotDot && decodable && (!hidden || enterHidden)) {
        QByteArray native = _folder.native;
        if (!native.endsWith('/')) native += '/';
        native.append(name, int(length));
        _toVisit.push_back(Folder{native, path, absolutePath, _folder.pathIsAbsolute});
    }

    if (hidden && !reportHidden) return false;
    if (isDir    ? !reportDirs
        : isFile ? !_filters.testFlag(QDir::Files)
                 : !_filters.testFlag(QDir::System))
        return false;
    const auto lacks = [&](QDir::Filter filter, int mode) {
        return _filters.testFlag(filter) && ::faccessat(dirFd, name, mode, 0) != 0;
    };
    if (lacks(QDir::Readable, R_OK) || lacks(QDir::Writable, W_OK) || lacks(QDir::Executable, X_OK))
        return false;

    e.name = decoded;
    e.path = path;
    e.absolutePath = absolutePath;
    e.undecodableName = decodable ? QString() : EscapeUndecodable(name, length);
    // A folder's inode size means nothing to the engine: folders have size 0.
    e.size = isDir ? 0 : qint64(st.st_size);
    e.modifiedMs = qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    e.exists = exists;
    e.isFile = isFile;
    e.isDir = isDir;
    e.isSymLink = link;
    e.isHidden = hidden || dotOrDotDot;
    return true;
}

QDirIteratorWrapper::QDirIteratorWrapper(const QString& path, QDir::Filters filters,
                                         QDirIterator::IteratorFlags flags)
    // QDirIterator reads NoFilter as AllEntries; narrowing must start from the same set.
    : _walk(std::make_unique<Walk>(
          filters == QDir::NoFilter ? QDir::Filters(QDir::AllEntries) : filters,
          flags.testFlag(QDirIterator::Subdirectories))) {
    _walk->Start(path);
}

QDirIteratorWrapper::~QDirIteratorWrapper() {
    if (!_reader.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _stop = true;
    }
    _drained.notify_one();
    _reader.join();
}

std::shared_ptr<sync::interf::IQFileInfoWrapper> QDirIteratorWrapper::FileInfo() {
    return std::make_shared<WalkedEntryInfo>(_current);
}

bool QDirIteratorWrapper::HasNext() {
    for (;;) {
        if (_next < _batch.entries.size()) return true;
        if (_batch.error) std::rethrow_exception(std::exchange(_batch.error, nullptr));
        if (_batch.last) return false;
        if (!_readingAhead) {
            // A short walk is read here, as the caller asks: a thread would not pay for itself.
            if (_readDirectly < kBatchEntries) {
                _batch.entries.resize(1);
                _next = 1;  // nothing to take unless the walk gives an entry
                if (!_walk->Next(_batch.entries[0])) {
                    _batch.last = true;
                    return false;
                }
                _next = 0;
                ++_readDirectly;
                return true;
            }
            _StartReadingAhead();
            if (!_readingAhead) {
                _readDirectly = 0;  // no thread to be had: go on reading here
                continue;
            }
        }
        _TakeBatch();
    }
}

QString QDirIteratorWrapper::Next() {
    if (!HasNext()) {
        _current = Entry();
        return QString();
    }
    _current = std::move(_batch.entries[_next++]);
    return _current.path;
}

void QDirIteratorWrapper::_StartReadingAhead() {
    _batch.entries.clear();
    _next = 0;
    try {
        _reader = std::thread([this] { _ReadAhead(); });
        _readingAhead = true;
    } catch (const std::system_error& e) {
        SYNC_LOG_DEBUG("The local walk reads on without a second thread: %1", e.what());
    }
}

void QDirIteratorWrapper::_TakeBatch() {
    std::unique_lock<std::mutex> lock(_mutex);
    _filled.wait(lock, [this] { return !_queue.empty(); });
    _batch = std::move(_queue.front());
    _queue.pop_front();
    _next = 0;
    lock.unlock();
    _drained.notify_one();
}

// Runs the walk until it ends or the walker goes away. An error is handed over in its place in
// the walk, and the walk goes on after it, as it does when the caller reads it directly.
void QDirIteratorWrapper::_ReadAhead() {
    bool last = false;
    while (!last) {
        Batch batch;
        try {
            batch.entries.reserve(kBatchEntries);
            Entry entry;
            while (batch.entries.size() < kBatchEntries && !_stop.load(std::memory_order_relaxed)) {
                if (!_walk->Next(entry)) {
                    batch.last = true;
                    break;
                }
                batch.entries.push_back(std::move(entry));
            }
        } catch (...) {
            batch.error = std::current_exception();
        }
        last = batch.last;
        std::unique_lock<std::mutex> lock(_mutex);
        _drained.wait(lock, [this] { return _stop || _queue.size() < kBatchesAhead; });
        if (_stop) break;
        _queue.push_back(std::move(batch));
        lock.unlock();
        _filled.notify_one();
    }
    // What log4cplus keeps for this thread, should it have logged.
    log4cplus::threadCleanup();
}

}  // namespace core
}  // namespace sync
