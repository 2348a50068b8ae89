#pragma once

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <string>
#include <type_traits>

namespace sync {
namespace core {

// The one logger every class of the system writes to.
log4cplus::Logger& SyncLogger();

// Sets up console output (and a file when given) for programs that embed no configuration
// of their own. level is a log4cplus level name such as "INFO" or "DEBUG".
void ConfigureLogging(const QString& level, const QString& logFile = QString());

// Replaces %0, %1, ... the way QString::arg does, lowest placeholder first, but in one
// pass, so that an argument that itself contains "%1" is never substituted again.
QString FormatLogMessage(const QString& format, const QStringList& arguments);

inline QString ToLogText(const QString& v) {
    return v;
}
inline QString ToLogText(const char* v) {
    return QString::fromUtf8(v);
}
inline QString ToLogText(const std::string& v) {
    return QString::fromStdString(v);
}
inline QString ToLogText(const QByteArray& v) {
    return QString::fromUtf8(v);
}
inline QString ToLogText(const QUrl& v) {
    return v.toString();
}
inline QString ToLogText(const QDateTime& v) {
    return v.toString(Qt::ISODateWithMs);
}
inline QString ToLogText(const QStringList& v) {
    return v.join(QLatin1Char('\n'));
}
inline QString ToLogText(bool v) {
    return v ? QStringLiteral("true") : QStringLiteral("false");
}
template <typename T>
inline std::enable_if_t<std::is_arithmetic<T>::value, QString> ToLogText(T v) {
    return QString::number(v);
}
template <typename T>
inline std::enable_if_t<std::is_enum<T>::value, QString> ToLogText(T v) {
    return QString::number(static_cast<long long>(v));
}

template <typename Format, typename... Args>
std::string LogText(const Format& format, const Args&... args) {
    return FormatLogMessage(ToLogText(format), QStringList{ToLogText(args)...}).toStdString();
}

}  // namespace core
}  // namespace sync

// Every call site carries file, line and function; the message is only built when the level
// is enabled.
#define SYNC_LOG_TRACE(...) \
    LOG4CPLUS_TRACE_STR(::sync::core::SyncLogger(), ::sync::core::LogText(__VA_ARGS__))
#define SYNC_LOG_DEBUG(...) \
    LOG4CPLUS_DEBUG_STR(::sync::core::SyncLogger(), ::sync::core::LogText(__VA_ARGS__))
#define SYNC_LOG_INFO(...) \
    LOG4CPLUS_INFO_STR(::sync::core::SyncLogger(), ::sync::core::LogText(__VA_ARGS__))
#define SYNC_LOG_WARN(...) \
    LOG4CPLUS_WARN_STR(::sync::core::SyncLogger(), ::sync::core::LogText(__VA_ARGS__))
#define SYNC_LOG_ERROR(...) \
    LOG4CPLUS_ERROR_STR(::sync::core::SyncLogger(), ::sync::core::LogText(__VA_ARGS__))
