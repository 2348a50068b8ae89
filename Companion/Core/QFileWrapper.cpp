#include "QFileWrapper.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QUrl>
#include <cerrno>
#include <climits>

#include "PathHelpers.h"
#include "QFileInfoWrapper.h"
#include "SyncConsts.h"

namespace sync {
namespace core {

namespace {

// Makes a relative path one file name without losing which path it was: "/" becomes "%2F",
// and the two characters that carry meaning in the result are escaped as well.
QString FlattenRelativePath(const QString& relativePath) {
    QString out;
    out.reserve(relativePath.size() + 8);
    for (const QChar c : relativePath) {
        if (c == QLatin1Char('%'))
            out += QLatin1String("%25");
        else if (c == QLatin1Char('/'))
            out += QLatin1String("%2F");
        else if (c == QLatin1Char('~'))
            out += QLatin1String("%7E");
        else
            out += c;
    }
    return out;
}

// The longest prefix of text whose UTF-8 form fits in maxBytes, never splitting a character.
QString TruncateUtf8(const QString& text, int maxBytes) {
    int bytes = 0;
    int i = 0;
    while (i < text.size()) {
        const QChar c = text.at(i);
        const bool pair = c.isHighSurrogate() && i + 1 < text.size();
        const int width = pair ? 4 : c.unicode() < 0x80 ? 1 : c.unicode() < 0x800 ? 2 : 3;
        if (bytes + width > maxBytes) break;
        bytes += width;
        i += pair ? 2 : 1;
    }
    return text.left(i);
}

const QLatin1String kTrashInfoEnding(".trashinfo");

// Moves path into a freedesktop.org trash folder: "info/<name>.trashinfo" is made first, and
// exclusively, which reserves the name; then the file is renamed to "files/<name>". A name too
// long to take the ending of its info file is shortened, and names already taken get "-NNNN".
// False, with nothing changed, when either step cannot be done (EXDEV: the file is on another
// file system). QFile::moveToTrash does the same but tries new names for ever when the info
// file cannot be made for any reason (a name of more than 245 bytes, a full or read-only
// disk): the cycle would hang on that file.
bool MoveIntoTrash(const QString& trash, const QString& path, int& error) {
    error = 0;
    for (const char* sub : {"/files", "/info"}) {
        const QByteArray folder = QFile::encodeName(trash + QLatin1String(sub));
        if (::mkdir(folder.constData(), 0700) != 0 && errno != EEXIST) {
            error = errno;
            return false;
        }
    }
    const QFileInfo info(path);
    const QByteArray source = QFile::encodeName(info.absoluteFilePath());
    const QString base = TruncateUtf8(info.fileName(), NAME_MAX - int(kTrashInfoEnding.size()) - 5);
    const QByteArray entry =
        QStringLiteral("[Trash Info]\nPath=%1\nDeletionDate=%2\n")
            .arg(QString::fromLatin1(
                     QUrl::toPercentEncoding(info.absoluteFilePath(), QByteArray("/"))),
                 QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-ddThh:mm:ss")))
            .toUtf8();
    for (int n = 0; n < 10000; ++n) {
        const QString name =
            n == 0 ? base : base + QStringLiteral("-%1").arg(n, 4, 10, QLatin1Char('0'));
        const QByteArray infoPath =
            QFile::encodeName(trash + QLatin1String("/info/") + name + kTrashInfoEnding);
        const QByteArray target = QFile::encodeName(trash + QLatin1String("/files/") + name);
        const int fd = ::open(infoPath.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            error = errno;
            return false;
        }
        const bool written = ::write(fd, entry.constData(), size_t(entry.size())) == entry.size() &&
                             ::fsync(fd) == 0;
        ::close(fd);
        struct stat st;
        if (!written) {
            error = EIO;
        } else if (::lstat(target.constData(), &st) == 0) {
            // A file without its info entry holds the name.
            ::unlink(infoPath.constData());
            continue;
        } else if (::rename(source.constData(), target.constData()) == 0) {
            return true;
        } else {
            error = errno;
        }
        ::unlink(infoPath.constData());
        return false;
    }
    error = EEXIST;
    return false;
}

}  // namespace

QFileWrapper::QFileWrapper(const QString& path) : _path(path) {}

void QFileWrapper::SetFileName(const QString& path) {
    _path = path;
}

QString QFileWrapper::FileName() {
    return _path.isEmpty() ? QString() : QFileInfo(_path).absoluteFilePath();
}

bool QFileWrapper::Exists() {
    return Exists(_path);
}

bool QFileWrapper::Exists(const QString& path) {
    return !path.isEmpty() && QFileInfo::exists(path);
}

std::shared_ptr<sync::interf::IQFileInfoWrapper> QFileWrapper::GetFileInfo() {
    return std::make_shared<QFileInfoWrapper>(QFileInfo(_path));
}

bool QFileWrapper::Remove() {
    if (_path.isEmpty()) return false;
    if (QFile::remove(_path)) return true;
    const QFileInfo info(_path);
    return !info.exists() && !info.isSymLink();
}

bool QFileWrapper::SetPermissions(QFileDevice::Permissions permissions) {
    return !_path.isEmpty() && QFile::setPermissions(_path, permissions);
}

QString QFileWrapper::GetTemporaryFile(const QString& rootPath) {
    const QString root = QDir::cleanPath(QFileInfo(rootPath).absoluteFilePath());
    const QString file = QDir::cleanPath(QFileInfo(_path).absoluteFilePath());
    const QString relative = IsParentPath(root, file)
                                 ? file.mid(root.size() + (root.endsWith(QLatin1Char('/')) ? 0 : 1))
                                 : file;

    const QString suffix = QLatin1Char('.') + consts::TEMP_FILE_EXTN;
    const int maxNameBytes = NAME_MAX - suffix.toUtf8().size();
    QString name = FlattenRelativePath(relative);
    if (name.toUtf8().size() > maxNameBytes) {
        // Escaped names never hold a bare "~", so a hashed name cannot equal an escaped one.
        const QString hash = QString::fromLatin1(
            QCryptographicHash::hash(relative.toUtf8(), QCryptographicHash::Sha256).toHex());
        const QString tail = QLatin1Char('~') + hash;
        name = TruncateUtf8(name, maxNameBytes - tail.size()) + tail;
    }
    return root + QLatin1Char('/') + consts::TEMP_FOLDER_NAME + QLatin1Char('/') + name + suffix;
}

bool QFileWrapper::MoveToTrash(const QString& path) {
    if (path.isEmpty() || !QFileInfo(path).exists()) return false;
    // QFile::moveToTrash falls back to the home trash, $XDG_DATA_HOME/Trash, but creates only
    // its last level; when it cannot have it, it "trashes" into ./files of the current
    // directory and reports success. Make sure the home trash is there first, as the
    // freedesktop.org trash layout expects, and refuse otherwise: the file then stays where it is.
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (dataHome.isEmpty() || !QDir::isAbsolutePath(dataHome)) return false;
    const QString homeTrash = dataHome + QLatin1String("/Trash");
    if (!QFileInfo(homeTrash).isDir()) {
        QDir().mkpath(dataHome);
        QDir().mkdir(homeTrash);
        QFile::setPermissions(
            homeTrash, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        if (!QFileInfo(homeTrash).isDir()) return false;
    }
    int error = 0;
    if (MoveIntoTrash(homeTrash, path, error)) return true;
    // A file on another file system goes to that file system's own trash, which Qt finds; its
    // name must leave room for the info file's ending, or Qt would never stop trying.
    if (error != EXDEV) return false;
    if (QFileInfo(path).fileName().toUtf8().size() + kTrashInfoEnding.size() + 5 > NAME_MAX)
        return false;
    return QFile::moveToTrash(path);
}

}  // namespace core
}  // namespace sync
