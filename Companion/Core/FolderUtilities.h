#pragma once

#include <QString>
#include <QStringList>
#include <Qt>

namespace sync {
namespace core {

class FolderUtilities {
public:
    // The first maxCount entries, followed by a line that says how many were left out.
    static QStringList GetTruncatedList(const QStringList& list, int maxCount);
    // The same for a list of totalCount entries of which only the first ones are at hand
    // (at least maxCount of them, or all), so that a caller need not build the whole list.
    static QStringList TruncatedList(const QStringList& first, int totalCount, int maxCount);
    // The path without its last component ("" for a path with no "/"; "/" for "/a").
    static QString GetParentFolderPath(const QString& path);
    // True when folder is an ancestor (at any depth) of candidate.
    static bool IsParent(const QString& candidate, const QString& folder,
                         Qt::CaseSensitivity cs = Qt::CaseSensitive);
};

}  // namespace core
}  // namespace sync
