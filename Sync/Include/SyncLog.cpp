#include "SyncLog.h"

#include <log4cplus/consoleappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <QMap>
#include <memory>

namespace sync {
namespace core {

log4cplus::Logger& SyncLogger() {
    static log4cplus::Logger logger = [] {
        log4cplus::initialize();
        return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("sync"));
    }();
    return logger;
}

void ConfigureLogging(const QString& level, const QString& logFile) {
    log4cplus::Logger& logger = SyncLogger();
    logger.removeAllAppenders();
    const auto pattern = LOG4CPLUS_TEXT("%D{%Y-%m-%d %H:%M:%S.%q} %-5p %m%n");
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true));
    console->setLayout(std::make_unique<log4cplus::PatternLayout>(pattern));
    logger.addAppender(console);
    if (!logFile.isEmpty()) {
        log4cplus::SharedAppenderPtr file(
            new log4cplus::FileAppender(logFile.toStdString(), std::ios_base::app));
        file->setLayout(std::make_unique<log4cplus::PatternLayout>(
            LOG4CPLUS_TEXT("%D{%Y-%m-%d %H:%M:%S.%q} %-5p [%l %M] %m%n")));
        logger.addAppender(file);
    }
    logger.setLogLevel(log4cplus::getLogLevelManager().fromString(level.toUpper().toStdString()));
}

QString FormatLogMessage(const QString& format, const QStringList& arguments) {
    if (arguments.isEmpty()) return format;
    // Collect the distinct placeholder numbers, lowest first; the i-th lowest takes argument i.
    QMap<int, int> slotOf;
    for (int i = 0; i < format.size(); ++i) {
        if (format.at(i) != QLatin1Char('%')) continue;
        int j = i + 1;
        int number = 0;
        while (j < format.size() && format.at(j).isDigit() && j - i <= 2) {
            number = number * 10 + format.at(j).digitValue();
            ++j;
        }
        if (j > i + 1) slotOf.insert(number, 0);
    }
    int slot = 0;
    for (auto it = slotOf.begin(); it != slotOf.end(); ++it) it.value() = slot++;

    QString out;
    out.reserve(format.size() + 32);
    for (int i = 0; i < format.size();) {
        if (format.at(i) == QLatin1Char('%')) {
            int j = i + 1;
            int number = 0;
            while (j < format.size() && format.at(j).isDigit() && j - i <= 2) {
                number = number * 10 + format.at(j).digitValue();
                ++j;
            }
            if (j > i + 1) {
                const int index = slotOf.value(number);
                if (index < arguments.size()) {
                    out += arguments.at(index);
                } else {
                    out += format.mid(i, j - i);
                }
                i = j;
                continue;
            }
        }
        out += format.at(i);
        ++i;
    }
    return out;
}

}  // namespace core
}  // namespace sync
