#pragma once

#include <QVector>
#include <memory>

#include "ActionLogEntry.h"
#include "ConfigDatabase.h"
#include "IActionLog.h"

namespace sync {
namespace database {

// The action log kept in the configuration database, where the host reads it back.
//
// An entry is written as soon as it is added, in a transaction of its own, unless the engine
// has a transaction open on the connection at that moment: the entry then waits in memory,
// because it must not be rolled back with the engine's batch, and is written by the next Add
// or Flush outside a transaction (or by the destructor). Nothing here throws; a failure to
// write is logged and the entries are kept for the next attempt.
class DatabaseActionLog : public sync::interf::IActionLog {
public:
    // Entries older than this are dropped when a service run starts.
    static constexpr int RetentionDays = 90;
    // At most this many entries wait in memory; older waiting entries are dropped first.
    static constexpr int MaxPending = 10000;

    explicit DatabaseActionLog(std::shared_ptr<ConfigDatabase> database);
    ~DatabaseActionLog() override;

    // Drops entries older than RetentionDays.
    void Initialize(int mode) override;
    void AddEntry(int type, const sync::core::SyncDetails& details) override;
    void AddFolderEntry(int type, const QString& localPath, const QString& name) override;
    void AddFolderEntryWithDetails(int type, const QString& localPath, const QString& name,
                                   const sync::core::SyncDetails& details) override;
    void AddHttpErrorEntry(int type, int httpCode, const QString& localPath, const QString& name,
                           const QString& url) override;
    sync::core::SyncDetails CreateDetails(int kind) override;
    sync::core::SyncDetails CreateDetailsWithArguments(int kind,
                                                       const QVector<QString>& arguments) override;
    // Writes every waiting entry; when a transaction is open they keep waiting (logged).
    void Flush() override;

    // Stored entries with an id above afterId, oldest first, at most limit of them (all when
    // limit < 0). Throws std::runtime_error naming the file when the database cannot be read.
    QVector<ActionLogEntry> Entries(qint64 afterId = 0, int limit = -1);
    // Entries added but not yet written.
    int PendingCount() const { return _pending.size(); }

private:
    void _Add(ActionLogEntry entry);
    bool _WritePending();

    std::shared_ptr<ConfigDatabase> _database;
    QVector<ActionLogEntry> _pending;
};

}  // namespace database
}  // namespace sync
