// The log lines of a test: while one of these lives, the shared logger writes every level into it and nowhere else.
#pragma once

#include "logging/Logger.h"
#include "tests/support/Await.h"

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <condition_variable>
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
        m_logger.setAdditivity(false);
        m_logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    }
    ~LogCapture() {
        m_logger.removeAllAppenders();
        for (const auto& appender : m_appenders) {
            m_logger.addAppender(appender);
        }
        m_logger.setAdditivity(m_additive);
        m_logger.setLogLevel(m_level);
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

    // Waits until the text has been logged at the level, since the last Take.
    bool Await(log4cplus::LogLevel level, const std::string& text) const {
        std::unique_lock lock(m_lines->mutex);
        return m_lines->grown.wait_for(lock, kAwaitLimit, [&] {
            return std::find(m_lines->lines.begin(), m_lines->lines.end(), Line(level, text)) != m_lines->lines.end();
        });
    }

private:
    struct Lines : log4cplus::Appender {
        ~Lines() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            std::string text;
            for (const auto character : event.getMessage()) {
                text.push_back(static_cast<char>(character));
            }
            const std::lock_guard lock(mutex);
            lines.emplace_back(event.getLogLevel(), std::move(text));
            grown.notify_all();
        }
        std::mutex mutex;
        std::condition_variable grown;
        std::vector<Line> lines;
    };

    log4cplus::Logger& m_logger = GetLogger();
    const log4cplus::SharedAppenderPtrList m_appenders = m_logger.getAllAppenders();
    const log4cplus::LogLevel m_level = m_logger.getLogLevel();
    const bool m_additive = m_logger.getAdditivity();
    log4cplus::helpers::SharedObjectPtr<Lines> m_lines{new Lines};
};

} // namespace Vantor::Sentrix
