#pragma once

#include <QDir>
#include <QDirIterator>
#include <QString>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
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
// - A folder or file that another program removes or renames before the walk reads it is
//   simply absent, like any deleted entry; each listing is read once, so the walk itself never
//   reports an entry twice. The first few hundred entries are read as the caller asks for them;
//   past those a second thread reads a few batches ahead of the caller, so a change made
//   during a long walk may or may not be seen. An error still reaches the caller after every
//   entry before it in the walk and not sooner; destroying the walker stops the reading.
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
    class Walk;  // opendir/readdir/fstatat and the filters, one entry at a time

    // Entries in walk order; an error ends the batch where the walk threw it.
    struct Batch {
        std::vector<Entry> entries;
        std::exception_ptr error;
        bool last = false;  // the walk ends after these
    };

    void _StartReadingAhead();
    void _ReadAhead();  // the second thread
    void _TakeBatch();

    std::unique_ptr<Walk> _walk;
    // The caller's side.
    Batch _batch;
    std::size_t _next = 0;
    std::size_t _readDirectly = 0;
    bool _readingAhead = false;
    Entry _current;
    // Shared with the thread reading ahead.
    std::mutex _mutex;
    std::condition_variable _filled;
    std::condition_variable _drained;
    std::deque<Batch> _queue;
    std::atomic<bool> _stop{false};
    std::thread _reader;
};

}  // namespace core
}  // namespace sync
