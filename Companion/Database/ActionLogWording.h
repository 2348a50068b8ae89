#pragma once

#include <QString>

#include "ActionLogEntry.h"

namespace sync {
namespace database {

// The English sentences the host shows for action-log entries. Unknown types and kinds get a
// neutral sentence that still carries their numbers and arguments.
class ActionLogWording {
public:
    // The whole entry: what happened, then its details and its HTTP failure, if any.
    static QString Describe(const ActionLogEntry& entry);
    static QString TypeText(int type, const QString& localPath, const QString& name);
    static QString DetailsText(const sync::core::SyncDetails& details);
    static QString HttpText(int httpCode, const QString& url);
};

}  // namespace database
}  // namespace sync
