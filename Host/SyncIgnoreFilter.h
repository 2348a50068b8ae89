#pragma once

#include <QString>
#include <QStringList>

#include "IFolderFilter.h"
#include "ISyncFilter.h"
#include "IgnoreRules.h"

namespace sync {
namespace host {

// Leaves out the litter of editors and desktops (backup, swap and lock files, folder
// thumbnails), and whatever the ".syncignore" file at the top of a root's local folder names.
//
// The engine asks about an entry twice: the local side with the path below the root, the
// server side with the full server path. Both must get the same answer, or an entry left out
// on one side only would look deleted and be deleted on the other; so server paths are
// turned into paths below the root before any rule looks at them.
//
// The engine announces each root through IsRootFolderIncluded right before it synchronises
// it, on the thread that then asks about its entries; the ignore file is read there, on every
// cycle, so an edit applies from the next one. Being hidden, ".syncignore" itself is only
// synchronised by a root that synchronises hidden entries.
class SyncIgnoreFilter : public sync::interf::ISyncFilter, public sync::interf::IFolderFilter {
public:
    static const QString FileName;

    SyncIgnoreFilter();

    int FilterFile(const QString& path, qint64 size, bool serverSide) override;
    int FilterFolder(const QString& path, bool serverSide) override;
    // Never leaves a root out; it only learns which root the next questions are about.
    bool IsRootFolderIncluded(const sync::config::FolderConfiguration& root) override;

    // The built-in litter, in ignore-file syntax; it applies to file names only.
    static QStringList LitterPatterns();

private:
    bool _Excluded(const QString& path, bool isFolder, bool serverSide) const;
    void _ReadRules(const QString& rootLocalPath);

    IgnoreRules _litter;
    IgnoreRules _rules;
    bool _rootKnown = false;
    QString _rootServerPath;  // without trailing "/"
};

}  // namespace host
}  // namespace sync
