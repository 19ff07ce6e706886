// The library's log statements: LOG_DEBUG("msgId=" << id), and the same for INFO, WARN and ERROR.
//
// The text is composed in a narrow stream with fixed notation and six decimals and emitted with source file, line and
// the enclosing function's signature. A statement at a disabled level costs the level check and composes nothing. An
// exception raised by the composition or by an appender is dropped: logging never fails the operation that logs.
//
// The first look at a level decides for good where statements go: to the process's logger, when a program brought the
// logging library along or VEYRA_LOG_CONFIG names a file that can be read (the library is then loaded), or else to the
// default output, which needs no log4cplus and no thread.
// Threads: any.
#pragma once

#include "logging/LoggerLink.h"
#include "veyrasvc/platform/Export.h"

#include <sstream>

namespace Vantor::Sentrix {

// True when a statement of that level would be written.
bool IsLogEnabled(LogLevel level) noexcept;

// A stream in the notation of the log.
std::ostringstream ComposeLogText();

// Hands on a composed text. `isRoutine`: what a healthy bus says, which the default output leaves out.
void EmitLog(LogLevel level, const std::ostringstream& text, const CallSite& where, bool isRoutine);

} // namespace Vantor::Sentrix

#define SENTRIX_LOG_AT(level, where, isRoutine, expression)                                                            \
    do {                                                                                                               \
        if (::Vantor::Sentrix::IsLogEnabled(level)) {                                                                  \
            try {                                                                                                      \
                std::ostringstream sentrixLogText = ::Vantor::Sentrix::ComposeLogText();                               \
                sentrixLogText << expression; /* NOLINT(bugprone-macro-parentheses): a chain of << */                  \
                ::Vantor::Sentrix::EmitLog(level, sentrixLogText, where, isRoutine);                                   \
            } catch (...) { /* NOLINT(bugprone-empty-catch) */                                                         \
            }                                                                                                          \
        }                                                                                                              \
    } while (false)

#define SENTRIX_HERE (::Vantor::Sentrix::CallSite{__FILE__, __LINE__, VEYRASVC_FUNCTION_SIGNATURE})

#define LOG_DEBUG(expression) LOG_DEBUG_AT(SENTRIX_HERE, expression)
#define LOG_INFO(expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Info, SENTRIX_HERE, false, expression)
#define LOG_WARN(expression) LOG_WARN_AT(SENTRIX_HERE, expression)
#define LOG_ERROR(expression) LOG_ERROR_AT(SENTRIX_HERE, expression)

// Lines of a bus on which nothing is wrong, although their level says otherwise. The records are like any other; the
// default output alone leaves them out.
#define LOG_WARN_ROUTINE_IF(isRoutine, expression)                                                                     \
    SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Warn, SENTRIX_HERE, isRoutine, expression)
#define LOG_ERROR_ROUTINE(expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Error, SENTRIX_HERE, true, expression)

// In a helper, with the SENTRIX_HERE of the operation that it serves.
#define LOG_DEBUG_AT(where, expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Debug, where, false, expression)
#define LOG_WARN_AT(where, expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Warn, where, false, expression)
#define LOG_ERROR_AT(where, expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Error, where, false, expression)
