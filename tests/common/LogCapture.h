#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>
#include <QString>
#include <QStringList>
#include <memory>
#include <mutex>
#include <vector>

namespace sync {
namespace test {

struct CapturedLine {
    log4cplus::LogLevel level;
    QString message;
    QString function;
};

// Records what the "sync" logger writes while it lives, at every level.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> Lines() const;
    // Messages of one level, in order.
    QStringList Messages(log4cplus::LogLevel level) const;
    // How many lines of that level equal the text exactly.
    int Count(log4cplus::LogLevel level, const QString& text) const;
    bool Contains(log4cplus::LogLevel level, const QString& text) const {
        return Count(level, text) > 0;
    }
    void Clear();

    class Appender;

private:
    log4cplus::SharedAppenderPtr _appender;
    Appender* _raw = nullptr;
    log4cplus::LogLevel _previousLevel;
};

}  // namespace test
}  // namespace sync
