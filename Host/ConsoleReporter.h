#pragma once

#include <QHash>
#include <QString>
#include <QTextStream>
#include <functional>

#include "ISyncSignalsAndSlots.h"
#include "SyncResults.h"

namespace sync {
namespace host {

// Prints what the engine reports, on the host's thread: the plan of each root folder as it
// begins, what was done and what failed when it ends, and the errors as they arrive.
class ConsoleReporter : public sync::interf::ISyncSignalsAndSlots {
    Q_OBJECT
public:
    // rootPaths: the local path of every root folder by id, for the messages.
    ConsoleReporter(QHash<long, QString> rootPaths, QTextStream& out, QTextStream& err);

    void HandleConnectionError(int errorCode) override;
    void HandleSyncingFolders() override;
    void HandleFolderSyncError(QString folderAbsolutePath, long folderId,
                               int httpErrorCode) override;
    void HandleFolderAuthenticationError(long folderId) override;
    void HandleFinishedSyncingFolders(bool wasError) override;
    void HandleBeginSyncingRootFolder(long folderId, sync::core::SyncResults results,
                                      bool isFirstSync) override;
    void HandleFinishedSyncingRootFolder(long folderId, sync::core::SyncResults results,
                                         bool isFirstSync) override;
    void HandleSubFolderNameNotAllowed(QString path) override;

    // A trial run reports its plan only: what it "did" was pretended.
    void SetPlanOnly(bool planOnly) { _planOnly = planOnly; }
    // Runs before every message: clears a live progress line.
    void SetBeforeOutput(std::function<void()> beforeOutput) {
        _beforeOutput = std::move(beforeOutput);
    }

    // Everything the root folders reported as done or failed, summed.
    const sync::core::SyncResults& Total() const { return _total; }
    // True when any error was reported, by a root folder or for the whole cycle.
    bool AnyError() const { return _anyError || _total.anyErrors(); }
    bool Finished() const { return _finished; }

    // "3 downloaded, 1 uploaded" for the work in the results; empty when there is none.
    static QString WorkText(const sync::core::SyncResults& results, bool planned);

private:
    QString _RootPath(long folderId) const;

    QHash<long, QString> _rootPaths;
    QTextStream& _out;
    QTextStream& _err;
    sync::core::SyncResults _total;
    bool _anyError = false;
    bool _finished = false;
    bool _planOnly = false;
    std::function<void()> _beforeOutput;
};

}  // namespace host
}  // namespace sync
