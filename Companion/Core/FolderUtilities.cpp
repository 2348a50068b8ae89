#include "FolderUtilities.h"

#include <QDir>
#include <climits>

#include "SyncConsts.h"

namespace sync {
namespace core {

namespace consts {
// Linux: a whole path may be PATH_MAX long; a folder must leave room for one longest name.
const int LOCAL_FILE_MAX_PATH = PATH_MAX;
const int LOCAL_FOLDER_MAX_PATH = PATH_MAX - NAME_MAX;
}  // namespace consts

QStringList FolderUtilities::GetTruncatedList(const QStringList& list, int maxCount) {
    return TruncatedList(list, list.size(), maxCount);
}

QStringList FolderUtilities::TruncatedList(const QStringList& first, int totalCount, int maxCount) {
    if (maxCount < 0 || totalCount <= maxCount) return first;
    QStringList out = first.mid(0, maxCount);
    out.append(QStringLiteral("... and %1 more").arg(totalCount - maxCount));
    return out;
}

QString FolderUtilities::GetParentFolderPath(const QString& path) {
    QString p = path;
    while (p.size() > 1 && p.endsWith(QLatin1Char('/'))) p.chop(1);
    const int slash = p.lastIndexOf(QLatin1Char('/'));
    if (slash < 0) return QString();
    if (slash == 0) return QStringLiteral("/");
    return p.left(slash);
}

bool FolderUtilities::IsParent(const QString& candidate, const QString& folder,
                               Qt::CaseSensitivity cs) {
    QString parent = QDir::cleanPath(folder);
    const QString child = QDir::cleanPath(candidate);
    if (parent.endsWith(QLatin1Char('/'))) parent.chop(1);
    if (parent.isEmpty() && !child.startsWith(QLatin1Char('/'))) return false;
    return child.size() > parent.size() + 1 && child.startsWith(parent, cs) &&
           child.at(parent.size()) == QLatin1Char('/');
}

}  // namespace core
}  // namespace sync
