#pragma once

#include <QRegularExpression>
#include <QVector>

#include "IFolderFilter.h"
#include "ISyncFilter.h"

namespace sync {
namespace host {

// Leaves out the litter of editors and desktops (backup files, swap files, lock files, folder
// thumbnails). The rules look at an entry's name only, so an entry gets the same answer
// whether it is asked with the path below the root (local side) or with its server path:
// an entry left out on one side only would look deleted and be deleted on the other.
class LitterFilter : public sync::interf::ISyncFilter, public sync::interf::IFolderFilter {
public:
    LitterFilter();

    int FilterFile(const QString& path, qint64 size, bool serverSide) override;
    int FilterFolder(const QString& path, bool serverSide) override;
    bool IsRootFolderIncluded(const sync::config::FolderConfiguration& root) override;

    // The glob patterns that FilterFile applies to a file's name.
    static QStringList DefaultPatterns();

private:
    QVector<QRegularExpression> _files;
};

}  // namespace host
}  // namespace sync
