#include "LocalFolderServer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <QDateTime>
#include <QUrl>
#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

#include "HttpException.h"
#include "ServerPaths.h"
#include "SyncConsts.h"
#include "SyncLog.h"

namespace sync {
namespace remote {

using sync::config::PrivilegeDelete;
using sync::config::PrivilegeDownload;
using sync::config::PrivilegeUpload;
using sync::http::HttpException;
using Folder = LocalFolderServer::Folder;
using File = LocalFolderServer::File;
using Results = LocalFolderServer::Results;

namespace {

constexpr int kBadRequest = 400;
constexpr int kUnauthorized = 401;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kConflict = 409;

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

QString IdOf(const struct stat& st) {
    return QStringLiteral("%1:%2").arg(quint64(st.st_dev)).arg(quint64(st.st_ino));
}

// Any write to a file moves its change time, also one that keeps size and modification time
// (a touch -r after the write); the inode tells a file replaced by rename.
QString VersionIdOf(const struct stat& st) {
    return QStringLiteral("%1-%2.%3-%4.%5-%6")
        .arg(qint64(st.st_size))
        .arg(qint64(st.st_mtim.tv_sec))
        .arg(qint64(st.st_mtim.tv_nsec))
        .arg(qint64(st.st_ctim.tv_sec))
        .arg(qint64(st.st_ctim.tv_nsec))
        .arg(quint64(st.st_ino));
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
int PrivilegesOf(int dirFd, const char* name, bool isFolder, bool folderWritable) {
    const int search = isFolder ? X_OK : 0;
    int privileges = 0;
    if (Allowed(dirFd, name, R_OK | search)) privileges |= PrivilegeDownload;
    if (isFolder ? Allowed(dirFd, name, W_OK | X_OK) : folderWritable && Allowed(dirFd, name, W_OK))
        privileges |= PrivilegeUpload;
    if (folderWritable) privileges |= PrivilegeDelete;
    return privileges;
}

QString PrivilegeInfo(int privileges) {
    return QStringLiteral("privileges %1").arg(privileges);
}

template <typename Record>
QString ShownPath(const Record& r) {
    return r.localPath.isEmpty() ? r.serverPath : r.localPath;
}

QString Normalized(QString path) {
    while (path.endsWith(QLatin1Char('/'))) path.chop(1);
    return path;
}

// Removes the entry and everything below it without following links; 0 or the errno.
int RemoveEntry(int parentFd, const char* name) {
    struct stat st;
    if (::fstatat(parentFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : errno;
    if (S_ISDIR(st.st_mode)) {
        DIR* dir =
            OpenDir(::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
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
        for (const QByteArray& child : names)
            if (const int error = RemoveEntry(::dirfd(dir), child.constData())) return error;
    }
    if (::unlinkat(parentFd, name, S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0) != 0 && errno != ENOENT)
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
            return kNotFound;
        case EACCES:
        case EPERM:
            return kForbidden;
        case ENOSPC:
        case EDQUOT:
            return 507;
        case EEXIST:
        case ENOTDIR:
        case ENOTEMPTY:
        case EISDIR:
            return kConflict;
        default:
            return 500;
    }
}

void LocalFolderServer::_CheckAccount(int authenticationId) const {
    if (_authenticationId >= 0 && authenticationId != _authenticationId)
        throw HttpException(kUnauthorized,
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
            throw HttpException(kBadRequest,
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

// --- Listings -------------------------------------------------------------------------------

int LocalFolderServer::GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                                     std::shared_ptr<QVector<File>> files) {
    return _List(root, false, folders.get(), files.get());
}

int LocalFolderServer::GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) {
    return _List(root, true, nullptr, files.get());
}

int LocalFolderServer::_List(Folder& root, bool directOnly, QVector<Folder>* folders,
                             QVector<File>* files) {
    const QDateTime requestTime = QDateTime::currentDateTimeUtc();
    QByteArray rootNative;
    try {
        rootNative = _NativePath(root.serverPath);
    } catch (const HttpException& e) {
        return e.code;
    }
    const bool listHidden = root.hasSyncOption(sync::config::SyncHiddenEntries);
    const QByteArray tempName = sync::core::consts::TEMP_FOLDER_NAME.toUtf8();
    const QByteArray backupName = sync::core::consts::BASE_FOLDER_NAME.toUtf8();

    struct Pending {
        QByteArray native;
        QString below;  // path below the root, "" for the root
    };
    std::deque<Pending> toVisit{Pending{rootNative, QString()}};
    QVector<Folder> foundFolders;
    QVector<File> foundFiles;
    while (!toVisit.empty()) {
        const Pending current = std::move(toVisit.front());
        toVisit.pop_front();
        const bool isRoot = current.below.isEmpty();
        const QString shown = QString::fromUtf8(current.native);
        // The root may be reached through a link; below it a link is never followed.
        DIR* dir = OpenDir(::open(current.native.constData(),
                                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isRoot ? 0 : O_NOFOLLOW)));
        if (!dir) {
            const int error = errno;
            if (isRoot && (error == ENOENT || error == ENOTDIR)) return kNotFound;
            // A folder that vanished after it was listed: its content is unknown, and a tree
            // without it would read as deletions.
            const bool vanished = error == ENOENT || error == ENOTDIR || error == ELOOP;
            SYNC_LOG_WARN("Cannot list server folder %1: %2", shown,
                          QString::fromLocal8Bit(std::strerror(error)));
            return vanished ? kConflict : StatusOf(error);
        }
        DirCloser closer(dir);
        const int dirFd = ::dirfd(dir);
        if (!Allowed(dirFd, ".", X_OK)) {
            SYNC_LOG_WARN("Cannot examine the entries of server folder %1", shown);
            return kForbidden;
        }
        const bool writable = Allowed(dirFd, ".", W_OK | X_OK);
        for (;;) {
            errno = 0;
            const struct dirent* entry = ::readdir(dir);
            if (!entry) {
                if (errno == 0) break;
                const int error = errno;
                SYNC_LOG_WARN("Listing server folder %1 broke off: %2", shown,
                              QString::fromLocal8Bit(std::strerror(error)));
                return error == ENOENT ? kConflict : StatusOf(error);
            }
            const char* name = entry->d_name;
            if (IsDotOrDotDot(name) || tempName == name || backupName == name) continue;
            if (name[0] == '.' && !listHidden) continue;
            struct stat st;
            if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                const int error = errno;
                // Removed between the listing and the look: as if listed a moment later.
                if (error == ENOENT) continue;
                SYNC_LOG_WARN("Cannot examine server entry %1/%2: %3", shown,
                              QString::fromUtf8(name),
                              QString::fromLocal8Bit(std::strerror(error)));
                return StatusOf(error);
            }
            const bool isFolder = S_ISDIR(st.st_mode);
            if (!isFolder && !S_ISREG(st.st_mode)) {
                SYNC_LOG_DEBUG("Server entry %1/%2 is no file or folder; not listed", shown,
                               QString::fromUtf8(name));
                continue;
            }
            const QString decoded = DecodeName(name);
            if (decoded.isNull()) {
                // The local side leaves such names out too; the user has to rename it.
                SYNC_LOG_WARN("Server entry in %1 has a name that is not UTF-8; not listed", shown);
                continue;
            }
            const QString below = isRoot ? decoded : current.below + QLatin1Char('/') + decoded;
            const int privileges = PrivilegesOf(dirFd, name, isFolder, writable);
            if (isFolder) {
                if (directOnly) continue;
                QByteArray native = current.native;
                if (!native.endsWith('/')) native += '/';
                native += name;
                toVisit.push_back(Pending{native, below});
                Folder f;
                f.name = decoded;
                f.serverPath = f.path = sync::core::JoinServerPath(root.serverPath, below);
                f.localPath = sync::core::JoinServerPath(root.localPath, below);
                f.setServerFolderId(IdOf(st));
                f.privileges = privileges;
                f.privilegeInfo = PrivilegeInfo(privileges);
                f.lastModified = ModifiedOf(st);
                foundFolders.append(f);
            } else {
                File f;
                f.name = decoded;
                f.serverPath = sync::core::JoinServerPath(root.serverPath, below);
                f.localPath = sync::core::JoinServerPath(root.localPath, below);
                f.size = qint64(st.st_size);
                f.serverFileId = IdOf(st);
                f.properties.insert(QStringLiteral("versionId"), VersionIdOf(st));
                f.privileges = privileges;
                f.privilegeInfo = PrivilegeInfo(privileges);
                f.lastModified = f.serverModified = ModifiedOf(st);
                foundFiles.append(std::move(f));
            }
        }
    }
    if (folders) *folders += foundFolders;
    if (files) *files += foundFiles;
    root.setLastServerSyncRequestTime(requestTime);
    return 0;
}

// --- Folder operations ----------------------------------------------------------------------

Results LocalFolderServer::CreateFolder(Folder& folder, const QString&, bool createParents) {
    Results r;
    const auto fail = [&](int status) {
        ++r.FolderServerCreationErrors;
        r.FolderServerCreationErrorPaths.append(ShownPath(folder));
        r.errorCodes[status] += 1;
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
            if (!S_ISDIR(st.st_mode)) return fail(kConflict);
            continue;
        }
        // A missing parent is a conflict with the tree, as MKCOL answers it.
        return fail(errno == ENOENT ? kConflict : StatusOf(errno));
    }
    Folder info;
    if (!GetFolderInfo(folder, info)) return fail(kConflict);
    folder.setServerFolderId(info.getServerFolderId());
    folder.privileges = info.privileges;
    folder.privilegeInfo = info.privilegeInfo;
    ++r.FolderServerCreations;
    r.FolderServerCreationPaths.append(ShownPath(folder));
    return r;
}

Results LocalFolderServer::DeleteFolder(Folder& folder) {
    const QByteArray native = _NativePath(folder.serverPath);
    const QByteArray top = _directory.toUtf8();
    if (native == top)
        throw HttpException(kForbidden, QStringLiteral("The server's top folder is not deleted"));
    const int slash = native.lastIndexOf('/');
    const QByteArray parent = slash == 0 ? QByteArray("/") : native.left(slash);
    const QByteArray name = native.mid(slash + 1);
    int error = 0;
    const int parentFd = ::open(parent.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0) {
        error = errno == ENOENT || errno == ENOTDIR ? 0 : errno;
    } else {
        struct stat st;
        if (::fstatat(parentFd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            error = errno == ENOENT ? 0 : errno;
        else if (S_ISDIR(st.st_mode))
            error = RemoveEntry(parentFd, name.constData());
        ::close(parentFd);
    }
    if (error != 0)
        throw HttpException(
            StatusOf(error),
            QStringLiteral("Failed to delete server folder %1: %2")
                .arg(folder.serverPath, QString::fromLocal8Bit(std::strerror(error))));
    Results r;
    ++r.FolderServerDeletions;
    r.FolderServerDeletionPaths.append(ShownPath(folder));
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
