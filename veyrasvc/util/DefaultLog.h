// The log of a process without the logger: WARN and above on standard error.
//
// VEYRA_LOG_LEVEL names another level; what a healthy bus says is left out unless it is named. The lines are those of
// the logger's own default output.
#pragma once

#include "logging/LoggerLink.h"

#include <string_view>

namespace Vantor::Sentrix {

class DefaultLog {
public:
    // Reads the environment; reports a level that does not exist on standard error.
    DefaultLog();

    bool IsEnabled(LogLevel level) const noexcept { return level >= m_level; }

    // Writes the line in one piece, so that the lines of several processes do not mix in one file. One that cannot be
    // written is lost.
    // Threads: any.
    void Write(LogLevel level, std::string_view text, const CallSite& where, bool isRoutine) const;

private:
    LogLevel m_level = LogLevel::Warn;
    bool m_isLevelChosen = false;
};

} // namespace Vantor::Sentrix
