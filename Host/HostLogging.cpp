#include "HostLogging.h"

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include "SyncLog.h"

namespace sync {
namespace host {

namespace {

QString StateDirectory() {
    const QString xdg =
        QProcessEnvironment::systemEnvironment().value(QStringLiteral("XDG_STATE_HOME"));
    const QString base = xdg.isEmpty() ? QDir::homePath() + QStringLiteral("/.local/state") : xdg;
    return base + QStringLiteral("/foldersync");
}

}  // namespace

QString ConfigureHostLogging(int verbosity, bool errorsOnly) {
    const QString userConfig =
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
        QStringLiteral("/foldersync/log4cplus.properties");
    if (QFileInfo::exists(userConfig)) {
        log4cplus::PropertyConfigurator::doConfigure(userConfig.toStdString());
        return QString();
    }

    log4cplus::Logger& logger = sync::core::SyncLogger();
    logger.removeAllAppenders();
    const log4cplus::LogLevel terminal = verbosity >= 2   ? log4cplus::DEBUG_LOG_LEVEL
                                         : verbosity == 1 ? log4cplus::INFO_LOG_LEVEL
                                         : errorsOnly     ? log4cplus::ERROR_LOG_LEVEL
                                                          : log4cplus::WARN_LOG_LEVEL;
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true));
    console->setLayout(
        std::make_unique<log4cplus::PatternLayout>(LOG4CPLUS_TEXT("%D{%H:%M:%S} %-5p %m%n")));
    console->setThreshold(terminal);
    logger.addAppender(console);

    QString logFile;
    const QString directory = StateDirectory();
    if (QDir().mkpath(directory)) {
        logFile = directory + QStringLiteral("/foldersync.log");
        // Five files of 10 MiB: enough for weeks of cycles, never a full disk.
        log4cplus::SharedAppenderPtr file(new log4cplus::RollingFileAppender(
            logFile.toStdString(), 10 * 1024 * 1024, 5, true, true));
        file->setLayout(std::make_unique<log4cplus::PatternLayout>(
            LOG4CPLUS_TEXT("%D{%Y-%m-%d %H:%M:%S.%q} %-5p [%l %M] %m%n")));
        file->setThreshold(std::min(terminal, log4cplus::INFO_LOG_LEVEL));
        logger.addAppender(file);
    }
    logger.setLogLevel(std::min(terminal, log4cplus::INFO_LOG_LEVEL));
    return logFile;
}

}  // namespace host
}  // namespace sync
