#include "LogCapture.h"

#include <log4cplus/spi/loggingevent.h>

#include "SyncLog.h"

namespace sync {
namespace test {

class LogCapture::Appender : public log4cplus::Appender {
public:
    ~Appender() override { destructorImpl(); }
    void close() override {}

    std::vector<CapturedLine> Lines() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _lines;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(_mutex);
        _lines.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        std::lock_guard<std::mutex> lock(_mutex);
        _lines.push_back({event.getLogLevel(), QString::fromStdString(event.getMessage()),
                          QString::fromStdString(event.getFunction())});
    }

private:
    mutable std::mutex _mutex;
    std::vector<CapturedLine> _lines;
};

LogCapture::LogCapture() {
    _raw = new Appender();
    _appender = log4cplus::SharedAppenderPtr(_raw);
    auto& logger = sync::core::SyncLogger();
    _previousLevel = logger.getLogLevel();
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    logger.addAppender(_appender);
}

LogCapture::~LogCapture() {
    auto& logger = sync::core::SyncLogger();
    logger.removeAppender(_appender);
    logger.setLogLevel(_previousLevel);
}

std::vector<CapturedLine> LogCapture::Lines() const {
    return _raw->Lines();
}

QStringList LogCapture::Messages(log4cplus::LogLevel level) const {
    QStringList out;
    for (const auto& line : _raw->Lines())
        if (line.level == level) out << line.message;
    return out;
}

int LogCapture::Count(log4cplus::LogLevel level, const QString& text) const {
    int n = 0;
    for (const auto& line : _raw->Lines())
        if (line.level == level && line.message == text) ++n;
    return n;
}

void LogCapture::Clear() {
    _raw->Clear();
}

}  // namespace test
}  // namespace sync
