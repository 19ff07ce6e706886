// The library's log statements: LOG_DEBUG("msgId=" << id), and the same for INFO, WARN and ERROR.
//
// The text is composed in a narrow stream with fixed notation and six decimals, widened character by character into
// the logger's string type and emitted with source file, line and the enclosing function's signature. A statement at a
// disabled level costs the level check and composes nothing. An exception raised by the composition or by an appender
// is dropped: logging never fails the operation that logs.
// Threads: any.
#pragma once

#include "veyrasvc/platform/Export.h"

#include <sstream>

namespace Vantor::Sentrix {

// log4cplus's levels, without its headers in every file that logs.
enum class LogLevel : int { Debug = 10000, Info = 20000, Warn = 30000, Error = 40000 };

// Where a statement stands, or the operation on whose behalf it is made.
struct CallSite {
    const char* file;
    int line;
    const char* function; // its full signature
};

// True when a statement of that level would be written.
bool IsLogEnabled(LogLevel level) noexcept;

// A stream in the notation of the log.
std::ostringstream ComposeLogText();

// Hands a composed text to the shared logger.
void EmitLog(LogLevel level, const std::ostringstream& text, const char* file, int line, const char* function);

} // namespace Vantor::Sentrix

#define SENTRIX_LOG_FROM(level, file, line, function, expression)                                                      \
    do {                                                                                                               \
        if (::Vantor::Sentrix::IsLogEnabled(level)) {                                                                  \
            try {                                                                                                      \
                std::ostringstream sentrixLogText = ::Vantor::Sentrix::ComposeLogText();                               \
                sentrixLogText << expression; /* NOLINT(bugprone-macro-parentheses): a chain of << */                  \
                ::Vantor::Sentrix::EmitLog(level, sentrixLogText, file, line, function);                               \
            } catch (...) { /* NOLINT(bugprone-empty-catch) */                                                         \
            }                                                                                                          \
        }                                                                                                              \
    } while (false)

#define SENTRIX_LOG(level, expression)                                                                                 \
    SENTRIX_LOG_FROM(level, __FILE__, __LINE__, VEYRASVC_FUNCTION_SIGNATURE, expression)

#define LOG_DEBUG(expression) SENTRIX_LOG(::Vantor::Sentrix::LogLevel::Debug, expression)
#define LOG_INFO(expression) SENTRIX_LOG(::Vantor::Sentrix::LogLevel::Info, expression)
#define LOG_WARN(expression) SENTRIX_LOG(::Vantor::Sentrix::LogLevel::Warn, expression)
#define LOG_ERROR(expression) SENTRIX_LOG(::Vantor::Sentrix::LogLevel::Error, expression)

// In a helper, with the SENTRIX_HERE of the operation that it serves.
#define SENTRIX_HERE (::Vantor::Sentrix::CallSite{__FILE__, __LINE__, VEYRASVC_FUNCTION_SIGNATURE})
#define SENTRIX_LOG_AT(level, where, expression)                                                                       \
    SENTRIX_LOG_FROM(level, (where).file, (where).line, (where).function, expression)
#define LOG_DEBUG_AT(where, expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Debug, where, expression)
#define LOG_WARN_AT(where, expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Warn, where, expression)
#define LOG_ERROR_AT(where, expression) SENTRIX_LOG_AT(::Vantor::Sentrix::LogLevel::Error, where, expression)
