#include "ActionLogWording.h"

#include <QStringList>

namespace sync {
namespace database {

using namespace actionlog;

namespace {

QString Quoted(const QString& text) {
    return QStringLiteral("\"%1\"").arg(text);
}

// The folder's name when there is one, else its path.
QString FolderLabel(const QString& localPath, const QString& name) {
    return Quoted(name.isEmpty() ? localPath : name);
}

qint64 Count(const sync::core::SyncDetails& details, int index) {
    return index < details.arguments.size() ? details.arguments[index].toLongLong() : 0;
}

QString Counted(qint64 n, const char* one, const char* many, const char* what) {
    return QStringLiteral("%1 %2 %3")
        .arg(n)
        .arg(QLatin1String(n == 1 ? one : many), QLatin1String(what));
}

QString JoinList(const QStringList& parts) {
    if (parts.size() <= 1) return parts.join(QString());
    return QStringList(parts.mid(0, parts.size() - 1)).join(QStringLiteral(", ")) +
           QStringLiteral(" and ") + parts.last();
}

// The four transfer counts that both kinds 12 and 16 start with; zero counts are left out.
QStringList TransferParts(const sync::core::SyncDetails& d) {
    QStringList parts;
    if (Count(d, 0)) parts << Counted(Count(d, 0), "file", "files", "uploaded");
    if (Count(d, 1)) parts << Counted(Count(d, 1), "file", "files", "downloaded");
    if (Count(d, 2)) parts << Counted(Count(d, 2), "file", "files", "deleted on the server");
    if (Count(d, 3)) parts << Counted(Count(d, 3), "file", "files", "deleted on this computer");
    return parts;
}

QStringList ErrorParts(const sync::core::SyncDetails& d) {
    static const char* const kWhat[] = {
        "could not be uploaded",
        "could not be downloaded",
        "could not be deleted on the server",
        "could not be deleted on this computer",
        "could not be created on the server",
        "could not be created on this computer",
        "could not be deleted on the server",
        "could not be deleted on this computer",
    };
    QStringList parts;
    for (int i = 0; i < 8; ++i) {
        const qint64 n = Count(d, 4 + i);
        if (!n) continue;
        parts << (i < 4 ? Counted(n, "file", "files", kWhat[i])
                        : Counted(n, "folder", "folders", kWhat[i]));
    }
    return parts;
}

}  // namespace

QString ActionLogWording::TypeText(int type, const QString& localPath, const QString& name) {
    const QString folder = FolderLabel(localPath, name);
    const QString path = Quoted(localPath);
    switch (type) {
        case RootFolderSynchronized:
            return QStringLiteral("Folder %1 was synchronised.").arg(folder);
        case RootFolderFailed:
            return QStringLiteral("Folder %1 could not be synchronised completely.").arg(folder);
        case ConnectionProblem:
            return localPath.isEmpty()
                       ? QStringLiteral("Synchronisation could not connect.")
                       : QStringLiteral("Folder %1 could not be reached.").arg(folder);
        case LocalFileMovedToTrash:
            return QStringLiteral(
                       "File %1 was deleted on the server and moved to the trash on "
                       "this computer.")
                .arg(path);
        case LocalFileNotRemoved:
            return QStringLiteral(
                       "File %1 was deleted on the server but could not be removed "
                       "from this computer.")
                .arg(path);
        case LocalFolderCreated:
            return QStringLiteral("Folder %1 was created on this computer.").arg(path);
        case LocalFolderNotCreated:
            return QStringLiteral("Folder %1 could not be created on this computer.").arg(path);
        case LocalFolderDeleted:
            return QStringLiteral(
                       "Folder %1 was deleted on the server and removed from this "
                       "computer.")
                .arg(path);
        case LocalFolderNotDeleted:
            return QStringLiteral(
                       "Folder %1 was deleted on the server but could not be removed "
                       "from this computer.")
                .arg(path);
        case RootFolderRemoved:
            return QStringLiteral(
                       "Folder %1 is no longer synchronised because it no longer "
                       "exists on this computer.")
                .arg(folder);
        default:
            return localPath.isEmpty()
                       ? QStringLiteral("Synchronisation event %1.").arg(type)
                       : QStringLiteral("Synchronisation event %1 for %2.").arg(type).arg(path);
    }
}

QString ActionLogWording::DetailsText(const sync::core::SyncDetails& details) {
    const QString first = details.arguments.value(0);
    switch (details.kind) {
        case UnexpectedError:
            return QStringLiteral("An unexpected error occurred.");
        case NoNetwork:
            return QStringLiteral("This computer is not connected to a network.");
        case NetworkDriveUnreachable:
            return QStringLiteral("The drive that holds %1 cannot be reached.").arg(Quoted(first));
        case ErrorCounts: {
            QString text;
            const QStringList done = TransferParts(details);
            if (!done.isEmpty()) text = JoinList(done) + QStringLiteral(". ");
            const QStringList failed = ErrorParts(details);
            text += failed.isEmpty() ? QStringLiteral("Some items could not be synchronised.")
                                     : JoinList(failed) + QStringLiteral(".");
            text[0] = text[0].toUpper();
            return text;
        }
        case ItemInUse:
            return QStringLiteral("It may be open in another program, or permission was denied.");
        case TransferCounts: {
            const QStringList done = TransferParts(details);
            if (done.isEmpty()) return QStringLiteral("No files were transferred.");
            QString text = JoinList(done) + QStringLiteral(".");
            text[0] = text[0].toUpper();
            return text;
        }
        case RootFolderRemovedPath:
            return QStringLiteral("%1 was removed from the synchronised folders.")
                .arg(Quoted(first));
        case PathTooLong:
            return QStringLiteral("Its path is too long.");
        default: {
            QStringList arguments;
            for (const auto& a : details.arguments) arguments << a;
            return arguments.isEmpty() ? QStringLiteral("(details %1)").arg(details.kind)
                                       : QStringLiteral("(details %1: %2)")
                                             .arg(details.kind)
                                             .arg(arguments.join(QStringLiteral(", ")));
        }
    }
}

QString ActionLogWording::HttpText(int httpCode, const QString& url) {
    QString reason;
    switch (httpCode) {
        case sync::http::Unauthorized:
            reason = QStringLiteral("the server did not accept the sign-in");
            break;
        case sync::http::Forbidden:
            reason = QStringLiteral("the server refused access");
            break;
        case sync::http::NotFound:
            reason = QStringLiteral("the server could not find the folder");
            break;
        case sync::http::TooManyRequests:
            reason = QStringLiteral("the server asked to slow down");
            break;
        case sync::http::InsufficientStorage:
            reason = QStringLiteral("the server has no space left");
            break;
        default:
            reason = QStringLiteral("the server reported an error");
            break;
    }
    QString text = QStringLiteral("Cause: %1 (HTTP %2)").arg(reason).arg(httpCode);
    if (!url.isEmpty()) text += QStringLiteral(" at %1").arg(url);
    return text + QStringLiteral(".");
}

QString ActionLogWording::Describe(const ActionLogEntry& entry) {
    QString text = TypeText(entry.type, entry.localPath, entry.name);
    if (entry.hasDetails) text += QLatin1Char(' ') + DetailsText(entry.details);
    if (entry.httpCode != 0) text += QLatin1Char(' ') + HttpText(entry.httpCode, entry.url);
    return text;
}

}  // namespace database
}  // namespace sync
