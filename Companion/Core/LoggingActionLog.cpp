#include "LoggingActionLog.h"

#include <QStringList>

#include "SyncLog.h"

namespace sync {
namespace core {

namespace {

QString DetailsText(const SyncDetails& details) {
    QStringList arguments;
    for (const QString& a : details.arguments) arguments.append(a);
    return QStringLiteral("kind %1 [%2]")
        .arg(details.kind)
        .arg(arguments.join(QLatin1String(", ")));
}

}  // namespace

void LoggingActionLog::Initialize(int) {}

void LoggingActionLog::AddEntry(int type, const SyncDetails& details) {
    SYNC_LOG_INFO("Action log entry %0: details %1", type, DetailsText(details));
}

void LoggingActionLog::AddFolderEntry(int type, const QString& localPath, const QString& name) {
    SYNC_LOG_INFO("Action log entry %0 for %1 (%2)", type, localPath, name);
}

void LoggingActionLog::AddFolderEntryWithDetails(int type, const QString& localPath,
                                                 const QString& name, const SyncDetails& details) {
    SYNC_LOG_INFO("Action log entry %0 for %1 (%2): details %3", type, localPath, name,
                  DetailsText(details));
}

void LoggingActionLog::AddHttpErrorEntry(int type, int httpCode, const QString& localPath,
                                         const QString& name, const QString& url) {
    SYNC_LOG_INFO("Action log entry %0 for %1 (%2): HTTP %3 from %4", type, localPath, name,
                  httpCode, url);
}

SyncDetails LoggingActionLog::CreateDetails(int kind) {
    return SyncDetails(kind);
}

SyncDetails LoggingActionLog::CreateDetailsWithArguments(int kind,
                                                         const QVector<QString>& arguments) {
    return SyncDetails(kind, arguments);
}

void LoggingActionLog::Flush() {}

}  // namespace core
}  // namespace sync
