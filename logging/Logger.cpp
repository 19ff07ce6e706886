#include "logging/Logger.h"

#include <log4cplus/appender.h>
#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>
#include <log4cplus/streams.h>
#include <log4cplus/thread/syncprims.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

namespace Vantor::Sentrix {

namespace {

std::atomic<bool> gateClosed{false};
std::atomic<int> passesHeld{0};
thread_local bool isRoutineWritten = false;

// Statements are short; one that hangs (a full disk, a stopped terminal) must not keep the process from exiting.
constexpr std::chrono::milliseconds kExitPatience{500};

void CloseGate() {
    gateClosed.store(true);
    const auto end = std::chrono::steady_clock::now() + kExitPatience;
    while (passesHeld.load() != 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
}

log4cplus::tstring Wide(const std::string& text) {
    return log4cplus::tstring(text.begin(), text.end());
}

std::string Environment(const char* name) {
    const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): read once, before anyone could change it
    return value == nullptr ? std::string() : std::string(value);
}

// A line in one piece. The stream passes on what it is given at once, and a layout gives it a dozen parts of a line,
// each a call of the system, between which the lines of another process may come.
class LineAppender : public log4cplus::Appender {
public:
    LineAppender() = default;
    ~LineAppender() override { destructorImpl(); }
    LineAppender(const LineAppender&) = delete;
    LineAppender& operator=(const LineAppender&) = delete;

    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        const log4cplus::thread::MutexGuard guard(log4cplus::ConsoleAppender::getOutputMutex());
        log4cplus::tcerr.clear(); // the disk may have been full
        log4cplus::tcerr << formatEvent(event) << std::flush;
    }
};

void LogToStandardError(log4cplus::Logger& logger, bool withRoutine) {
    log4cplus::SharedAppenderPtr appender(new LineAppender);
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(Wide("%D{%H:%M:%S.%q} %-5p %m [%b:%L]%n")));
    if (!withRoutine) {
        appender->addFilter([](const log4cplus::spi::InternalLoggingEvent&) {
            return isRoutineWritten ? log4cplus::spi::DENY : log4cplus::spi::NEUTRAL;
        });
    }
    logger.addAppender(appender);
    logger.setAdditivity(false);
    logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
}

// Not set when the environment names none, or one that does not exist.
log4cplus::LogLevel ChosenLevel() {
    const std::string name = Environment("VEYRA_LOG_LEVEL");
    const auto level =
        name.empty() ? log4cplus::NOT_SET_LOG_LEVEL : log4cplus::getLogLevelManager().fromString(Wide(name));
    if (!name.empty() && level == log4cplus::NOT_SET_LOG_LEVEL) {
        std::cerr << "veyrasvc: VEYRA_LOG_LEVEL names no level: " << name << '\n';
    }
    return level;
}

log4cplus::Logger* MakeLogger() {
    log4cplus::initialize();
    log4cplus::setThreadPoolSize(1); // serves asynchronous appenders alone; its default is four idle threads
    auto* logger = new log4cplus::Logger(log4cplus::Logger::getInstance(Wide("veyrasvc")));

    const log4cplus::LogLevel level = ChosenLevel();
    const std::string config = Environment("VEYRA_LOG_CONFIG");
    if (!config.empty() && std::ifstream(config).good()) {
        log4cplus::PropertyConfigurator::doConfigure(Wide(config));
    } else {
        if (!config.empty()) {
            std::cerr << "veyrasvc: VEYRA_LOG_CONFIG cannot be read: " << config << '\n';
        }
        LogToStandardError(*logger, level != log4cplus::NOT_SET_LOG_LEVEL);
    }
    if (level != log4cplus::NOT_SET_LOG_LEVEL) {
        logger->setLogLevel(level);
    }
    std::atexit(CloseGate); // runs before log4cplus's own end, which was set up before this
    return logger;
}

} // namespace

log4cplus::Logger& GetLogger() {
    static log4cplus::Logger* const logger = MakeLogger(); // never destroyed: threads may log while the process exits
    return *logger;
}

bool IsLoggingOpen() noexcept {
    return !gateClosed.load(std::memory_order_relaxed);
}

LogPass::LogPass() {
    passesHeld.fetch_add(1);
    m_open = !gateClosed.load();
}

LogPass::~LogPass() {
    passesHeld.fetch_sub(1);
}

RoutineMark::RoutineMark(bool isRoutine) {
    isRoutineWritten = isRoutine;
}

RoutineMark::~RoutineMark() {
    isRoutineWritten = false;
}

} // namespace Vantor::Sentrix
