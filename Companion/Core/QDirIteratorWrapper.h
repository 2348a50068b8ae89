#pragma once

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <memory>

#include "IQDirIteratorWrapper.h"

namespace sync {
namespace core {

// A QDirIterator that refuses to skip what it cannot read. QDirIterator silently passes over
// a subdirectory it cannot open, which would make everything inside look deleted; this walker
// checks every directory it is about to enter and throws SyncException naming it instead.
//
// Symbolic links are reported as entries (subject to QDir::NoSymLinks) and never followed:
// QDirIterator::FollowSymlinks is ignored.
class QDirIteratorWrapper : public sync::interf::IQDirIteratorWrapper {
public:
    // Throws SyncException when path is not a readable directory.
    QDirIteratorWrapper(const QString& path, QDir::Filters filters,
                        QDirIterator::IteratorFlags flags);
    ~QDirIteratorWrapper() override = default;

    std::shared_ptr<sync::interf::IQFileInfoWrapper> FileInfo() override;
    bool HasNext() override;
    QString Next() override;

    // True when the directory can be listed and its entries examined.
    static bool IsReadableDirectory(const QString& path);

private:
    bool _FetchPending();
    bool _Reportable(const QFileInfo& info) const;

    // What the caller asked for.
    QDir::Filters _filters;
    bool _recursive;
    // The iterator runs with wider filters, so that every directory it descends into passes
    // through this wrapper; _Reportable narrows its entries back to the caller's filters.
    std::unique_ptr<QDirIterator> _iterator;
    QFileInfo _current;
    QFileInfo _pending;
    bool _hasPending = false;
};

}  // namespace core
}  // namespace sync
