#include "logging/Logger.h"

#include "logging/LoggerLink.h"

#include <log4cplus/appender.h>
#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>
#include <log4cplus/streams.h>
#include <log4cplus/thread/syncprims.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>

namespace Vantor::Sentrix {

namespace {

static_assert(static_cast<int>(LogLevel::Debug) == log4cplus::DEBUG_LOG_LEVEL);
static_assert(static_cast<int>(LogLevel::Info) == log4cplus::INFO_LOG_LEVEL);
static_assert(static_cast<int>(LogLevel::Warn) == log4cplus::WARN_LOG_LEVEL);
static_assert(static_cast<int>(LogLevel::Error) == log4cplus::ERROR_LOG_LEVEL);

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

// A pass through the exit gate: a statement holds one while it writes, and the exit waits for the passes that are held,
// so that log4cplus never ends under a statement.
class LogPass {
public:
    LogPass() {
        passesHeld.fetch_add(1);
        m_open = !gateClosed.load();
    }
    ~LogPass() { passesHeld.fetch_sub(1); }
    LogPass(const LogPass&) = delete;
    LogPass& operator=(const LogPass&) = delete;

    // False once the process exits.
    bool Open() const { return m_open; }

private:
    bool m_open;
};

// While it lives, what its thread logs is routine: the default output leaves it out, every other appender gets it.
class RoutineMark {
public:
    explicit RoutineMark(bool isRoutine) { isRoutineWritten = isRoutine; }
    ~RoutineMark() { isRoutineWritten = false; }
    RoutineMark(const RoutineMark&) = delete;
    RoutineMark& operator=(const RoutineMark&) = delete;
};

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
        std::cerr << kNoSuchLevel << name << '\n';
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
            std::cerr << kNoSuchConfiguration << config << '\n';
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

} // namespace Vantor::Sentrix

// How the library's statements reach the logger.
extern "C" {
LOGGING_API void VeyraOpenLog() noexcept;
LOGGING_API bool VeyraIsLogEnabled(Vantor::Sentrix::LogLevel level) noexcept;
LOGGING_API void VeyraWriteLog(Vantor::Sentrix::LogLevel level, const char* text,
                               const Vantor::Sentrix::CallSite* where, bool isRoutine) noexcept;
}

void VeyraOpenLog() noexcept {
    using namespace Vantor::Sentrix;
    try {
        std::ifstream configuration(Environment("VEYRA_LOG_CONFIG"));
        const std::string text((std::istreambuf_iterator<char>(configuration)), std::istreambuf_iterator<char>());
        if (text.find("AsyncAppend") == std::string::npos) {
            const log4cplus::Initializer endsThreads; // log4cplus does without its pool until a configuration names it
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): then the threads stay
    }
}

bool VeyraIsLogEnabled(Vantor::Sentrix::LogLevel level) noexcept {
    using namespace Vantor::Sentrix;
    try {
        return !gateClosed.load(std::memory_order_relaxed) &&
               GetLogger().isEnabledFor(static_cast<log4cplus::LogLevel>(level));
    } catch (...) {
        return false;
    }
}

void VeyraWriteLog(Vantor::Sentrix::LogLevel level, const char* text, const Vantor::Sentrix::CallSite* where,
                   bool isRoutine) noexcept {
    using namespace Vantor::Sentrix;
    try {
        const LogPass pass;
        if (!pass.Open()) {
            return;
        }
        const RoutineMark mark(isRoutine);
        log4cplus::detail::macro_forced_log(GetLogger(), static_cast<log4cplus::LogLevel>(level), Wide(text),
                                            where->file, where->line, where->function);
    } catch (...) { // NOLINT(bugprone-empty-catch): logging never fails the operation that logs
    }
}
