#pragma once

#include <QString>
#include <QVector>

#include "SyncDetails.h"

namespace sync {
namespace interf {

// The user-facing history of what synchronisation did. Entries are kept by the action log
// service; none of these operations throws (a failure to record is logged and dropped).
class IActionLog {
public:
    virtual ~IActionLog() = default;
    // Prepares the log for a service run; the service passes 0.
    virtual void Initialize(int mode) = 0;
    // An entry that belongs to no root folder.
    virtual void AddEntry(int type, const sync::core::SyncDetails& details) = 0;
    // An entry for a root folder, without details.
    virtual void AddFolderEntry(int type, const QString& localPath, const QString& name) = 0;
    // An entry for a root folder, with details.
    virtual void AddFolderEntryWithDetails(int type, const QString& localPath, const QString& name,
                                           const sync::core::SyncDetails& details) = 0;
    // An entry for an HTTP failure of a root folder.
    virtual void AddHttpErrorEntry(int type, int httpCode, const QString& localPath,
                                   const QString& name, const QString& url) = 0;
    // A details record without arguments.
    virtual sync::core::SyncDetails CreateDetails(int kind) = 0;
    // A details record with its text arguments in order.
    virtual sync::core::SyncDetails CreateDetailsWithArguments(
        int kind, const QVector<QString>& arguments) = 0;
    // Makes every entry added so far durable.
    virtual void Flush() = 0;
};

}  // namespace interf
}  // namespace sync
