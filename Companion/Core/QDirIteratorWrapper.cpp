#include "QDirIteratorWrapper.h"

#include "OpenNameByName.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstring>

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

}  // namespace

QDirIteratorWrapper::QDirIteratorWrapper(const QString& path, QDir::Filters filters,
                                         QDirIterator::IteratorFlags flags)
    // QDirIterator reads NoFilter as AllEntries; narrowing must start from the same set.
    : _filters(filters == QDir::NoFilter ? QDir::Filters(QDir::AllEntries) : filters),
      _recursive(flags.testFlag(QDirIterator::Subdirectories)) {
    if (path.isEmpty()) throw SyncException(UnreadableMessage(path));
    Folder start{QFile::encodeName(path), path, QFileInfo(path).absoluteFilePath(), false};
    start.pathIsAbsolute = start.absolutePath == path;
    _startNative = start.native;
    _Open(std::move(start), true);
}

QDirIteratorWrapper::~QDirIteratorWrapper() {
    _Close();
}

// Opens a folder for listing; false when it is gone. The start may be a link to a folder;
// below it a link is never followed, also when it took a folder's place after the listing.
bool QDirIteratorWrapper::_Open(Folder folder, bool start) {
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

void QDirIteratorWrapper::_Close() {
    if (_dir) ::closedir(_dir);
    _dir = nullptr;
}

std::shared_ptr<sync::interf::IQFileInfoWrapper> QDirIteratorWrapper::FileInfo() {
    return std::make_shared<WalkedEntryInfo>(_current);
}

bool QDirIteratorWrapper::HasNext() {
    return _hasPending || _FetchPending();
}

QString QDirIteratorWrapper::Next() {
    if (!HasNext()) {
        _current = Entry();
        return QString();
    }
    _current = std::move(_pending);
    _pending = Entry();
    _hasPending = false;
    return _current.path;
}

bool QDirIteratorWrapper::_FetchPending() {
    for (;;) {
        if (!_dir) {
            if (_toVisit.empty()) return false;
            Folder next = std::move(_toVisit.back());
            _toVisit.pop_back();
            if (!_Open(std::move(next), false)) continue;
        }
        errno = 0;
        const struct dirent* entry = ::readdir(_dir);
        if (entry) {
            if (_Take(*entry)) return true;
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
bool QDirIteratorWrapper::_Take(const struct dirent& entry) {
    const char* name = entry.d_name;
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
    switch (entry.d_type) {
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

    Entry& e = _pending;
    e.name = decoded;
    e.path = path;
    e.absolutePath = absolutePath;
    if (!decodable) e.undecodableName = EscapeUndecodable(name, length);
    // A folder's inode size means nothing to the engine: folders have size 0.
    e.size = isDir ? 0 : qint64(st.st_size);
    e.modifiedMs = qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    e.exists = exists;
    e.isFile = isFile;
    e.isDir = isDir;
    e.isSymLink = link;
    e.isHidden = hidden || dotOrDotDot;
    _hasPending = true;
    return true;
}

}  // namespace core
}  // namespace sync
