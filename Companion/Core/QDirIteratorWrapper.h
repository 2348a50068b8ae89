#pragma once

#include <dirent.h>

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QString>
#include <memory>
#include <vector>

#include "IQDirIteratorWrapper.h"

namespace sync {
namespace core {

// The local walker, over opendir/readdir/fstatat, with the filter semantics of QDirIterator
// where the engine relies on them:
// - Files, Dirs, AllDirs, System, Hidden, NoDot, NoDotDot and the permission filters (each one
//   set asks for that permission) choose what is reported; a recursive walk enters every
//   folder whatever Dirs says, hidden ones only with Hidden or AllDirs.
// - Symbolic links are entries (IsSymLink, typed by their target; none with NoSymLinks) and are
//   never followed: QDirIterator::FollowSymlinks is ignored.
// - A folder that cannot be read, or whose entries cannot be examined, throws SyncException
//   naming it ("Cannot read local folder %1"): skipping it would make its content look
//   deleted. So does a start that is not a readable folder.
// - A folder whose whole path is longer than the system takes is walked all the same, opened
//   name by name from the start.
// - A folder or file that another program removes or renames during the walk is simply absent,
//   like any deleted entry. A folder is opened only when the walk needs its first entry, after
//   the folder itself was reported (when it is reported at all).
// - A name that is not valid UTF-8 cannot be held in a QString and turned back into the same
//   bytes. Such an entry is still reported, with a lossy path and its name escaped in
//   UndecodableName(), and a folder with such a name is never entered.
// Order: the entries of one folder in the order the file system lists them; folders are
// entered after their parent's listing ends. Nothing may rely on more than that.
// One fstatat per entry that the filters can report or enter (a reported link takes one more,
// for its target); none for the others when the file system gives their type in the listing.
class QDirIteratorWrapper : public sync::interf::IQDirIteratorWrapper {
public:
    // Throws SyncException when path is not a readable directory.
    QDirIteratorWrapper(const QString& path, QDir::Filters filters,
                        QDirIterator::IteratorFlags flags);
    ~QDirIteratorWrapper() override;
    QDirIteratorWrapper(const QDirIteratorWrapper&) = delete;
    QDirIteratorWrapper& operator=(const QDirIteratorWrapper&) = delete;

    std::shared_ptr<sync::interf::IQFileInfoWrapper> FileInfo() override;
    bool HasNext() override;
    QString Next() override;

    // What is known of one reported entry; public for the file info class only.
    struct Entry {
        QString path;          // as Next() returns it: below the start path as given
        QString absolutePath;  // below the start's absolute path
        QString name;
        QString undecodableName;
        qint64 size = 0;
        qint64 modifiedMs = 0;
        bool exists = false;
        bool isFile = false;
        bool isDir = false;
        bool isSymLink = false;
        bool isHidden = false;
    };

private:
    struct Folder {
        QByteArray native;
        QString path;  // as the start was given
        QString absolutePath;
        bool pathIsAbsolute;  // the two are the same, and built once
    };

    bool _Open(Folder folder, bool start);
    void _Close();
    bool _FetchPending();
    bool _Take(const struct dirent& entry);

    QDir::Filters _filters;
    bool _recursive;
    DIR* _dir = nullptr;
    QByteArray _startNative;
    Folder _folder;                // the one being listed
    std::vector<Folder> _toVisit;  // found, not yet listed
    Entry _current;
    Entry _pending;
    bool _hasPending = false;
};

}  // namespace core
}  // namespace sync
