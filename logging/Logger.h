// The suite's shared logger: one log4cplus logger for the whole process, "veyrasvc".
//
// Configured once, by the first GetLogger(), from the environment:
//   VEYRA_LOG_CONFIG  a log4cplus properties file; it decides everything (appenders, layouts, levels)
//   VEYRA_LOG_LEVEL   a level name (TRACE, DEBUG, INFO, WARN, ERROR, FATAL, OFF) for this logger
// With neither, WARN and above go to standard error, each line in one piece; one that cannot be written is lost. What a
// healthy bus says at these levels is left out unless a level is named. A file that cannot be read or a level that does
// not exist is reported there too, and the default holds.
#pragma once

#include "logging/Export.h"

#include <log4cplus/logger.h>

namespace Vantor::Sentrix {

// The process's logger; the reference stays valid until the process ends.
// Threads: any; the first calls may race.
// Lifetime: also usable while the process exits. Once log4cplus begins to shut down, statements are dropped.
LOGGING_API log4cplus::Logger& GetLogger();

// False once the process exits and statements are dropped: a look without a pass, for checking a level.
LOGGING_API bool IsLoggingOpen() noexcept;

// A pass through the exit gate: a statement holds one while it writes. `Open()` is false once the process exits, and
// the exit waits for the passes that are held, so that log4cplus never ends under a statement.
class LOGGING_API LogPass {
public:
    LogPass();
    ~LogPass();
    LogPass(const LogPass&) = delete;
    LogPass& operator=(const LogPass&) = delete;

    bool Open() const { return m_open; }

private:
    bool m_open;
};

// While it lives, what its thread logs is routine: the default output leaves it out, every other appender gets it.
class LOGGING_API RoutineMark {
public:
    explicit RoutineMark(bool isRoutine);
    ~RoutineMark();
    RoutineMark(const RoutineMark&) = delete;
    RoutineMark& operator=(const RoutineMark&) = delete;
};

} // namespace Vantor::Sentrix
