#include "PathHelpers.h"

#include <QDir>
#include <QFileInfo>

#include "PosixIo.h"

namespace sync {
namespace core {

bool IsParentPath(const QString& parent, const QString& child) {
    QString cleanParent = QDir::cleanPath(parent);
    const QString cleanChild = QDir::cleanPath(child);
    // "/" would otherwise demand a second slash after it.
    if (QFileInfo(cleanParent).isRoot()) cleanParent.chop(1);
    return cleanParent.length() < cleanChild.length() && cleanChild.startsWith(cleanParent) &&
           cleanChild.at(cleanParent.length()) == QLatin1Char('/');
}

bool IsParentOrSamePath(const QString& a, const QString& b) {
    return IsParentPath(a, b) ||
           QDir::cleanPath(a).compare(QDir::cleanPath(b), Qt::CaseInsensitive) == 0;
}

bool IsFileLockedForWrite(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists() || !info.isWritable()) return false;
    return posixio::IsLockedForWrite(path.toUtf8().constData());
}

}  // namespace core
}  // namespace sync
