#pragma once

#include "IActionLog.h"

namespace sync {
namespace core {

// An action log that keeps nothing: every entry becomes one INFO line of the "sync" logger.
// The default until the host installs a durable one.
class LoggingActionLog : public sync::interf::IActionLog {
public:
    LoggingActionLog() = default;
    ~LoggingActionLog() override = default;

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
    void Flush() override;
};

}  // namespace core
}  // namespace sync
