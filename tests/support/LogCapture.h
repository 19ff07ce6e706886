// The log lines of a test: while it lives the shared logger writes every level into it and nowhere else; then nothing.
#pragma once

#include "logging/Logger.h"

#include <log4cplus/appender.h>
#include <log4cplus/helpers/stringhelper.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Vantor::Sentrix {

// Threads: lines may come from any; make and destroy it while no other thread logs.
class LogCapture {
public:
    using Line = std::pair<log4cplus::LogLevel, std::string>;

    LogCapture() {
        m_logger.removeAllAppenders();
        m_logger.addAppender(log4cplus::SharedAppenderPtr(m_lines.get()));
        m_logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    }
    ~LogCapture() {
        m_logger.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        m_logger.removeAllAppenders();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines since the last call.
    std::vector<Line> Take() {
        const std::lock_guard lock(m_lines->mutex);
        return std::exchange(m_lines->lines, {});
    }

    // How often exactly this was logged since the last Take.
    int Count(log4cplus::LogLevel level, const std::string& text) const {
        const std::lock_guard lock(m_lines->mutex);
        return static_cast<int>(std::count(m_lines->lines.begin(), m_lines->lines.end(), Line(level, text)));
    }
    int Errors(const std::string& text) const { return Count(log4cplus::ERROR_LOG_LEVEL, text); }

private:
    struct Lines : log4cplus::Appender {
        ~Lines() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            const std::lock_guard lock(mutex);
            lines.emplace_back(event.getLogLevel(), LOG4CPLUS_TSTRING_TO_STRING(event.getMessage()));
        }
        std::mutex mutex;
        std::vector<Line> lines;
    };

    log4cplus::Logger& m_logger = GetLogger();
    log4cplus::helpers::SharedObjectPtr<Lines> m_lines{new Lines};
};

} // namespace Vantor::Sentrix
