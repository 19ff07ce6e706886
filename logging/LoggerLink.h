// What the logger and the log statements of the library agree on. The library is not linked with the logger: a process
// that only uses the bus has no log4cplus in it. It finds the logger where a program brought it along, loads it where a
// configuration asks for it, and calls it through these functions.
#pragma once

namespace Vantor::Sentrix {

// log4cplus's levels, without its headers in every file that logs.
enum class LogLevel : int {
    All = 0,
    Debug = 10000,
    Info = 20000,
    Warn = 30000,
    Error = 40000,
    Fatal = 50000,
    Off = 60000
};

// Where a statement stands, or the operation on whose behalf it is made.
struct CallSite {
    const char* file;
    int line;
    const char* function; // its full signature
};

// Offered by name. They throw nothing, and drop what cannot be written.
inline constexpr char kIsLogEnabledName[] = "VeyraIsLogEnabled";
inline constexpr char kWriteLogName[] = "VeyraWriteLog";
inline constexpr char kOpenLogName[] = "VeyraOpenLog";
extern "C" {
using IsLogEnabledFunction = bool (*)(LogLevel level) noexcept;
// `isRoutine`: what a healthy bus says, which the default output leaves out.
using WriteLogFunction = void (*)(LogLevel level, const char* text, const CallSite* where, bool isRoutine) noexcept;
// For a process that had no log4cplus before: sets the logger up without threads that nobody needs.
using OpenLogFunction = void (*)() noexcept;
}

// What is said on standard error about settings that cannot be used; their value follows.
inline constexpr char kNoSuchLevel[] = "veyrasvc: VEYRA_LOG_LEVEL names no level: ";
inline constexpr char kNoSuchConfiguration[] = "veyrasvc: VEYRA_LOG_CONFIG cannot be read: ";

} // namespace Vantor::Sentrix
