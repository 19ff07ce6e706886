#include "veyrasvc/util/LogStatement.h"

#include "logging/Logger.h"

#include <log4cplus/loggingmacros.h>

#include <ios>
#include <string>

namespace Vantor::Sentrix {

static_assert(static_cast<int>(LogLevel::Debug) == log4cplus::DEBUG_LOG_LEVEL);
static_assert(static_cast<int>(LogLevel::Info) == log4cplus::INFO_LOG_LEVEL);
static_assert(static_cast<int>(LogLevel::Warn) == log4cplus::WARN_LOG_LEVEL);
static_assert(static_cast<int>(LogLevel::Error) == log4cplus::ERROR_LOG_LEVEL);

bool IsLogEnabled(LogLevel level) noexcept {
    try {
        return IsLoggingOpen() && GetLogger().isEnabledFor(static_cast<log4cplus::LogLevel>(level));
    } catch (...) {
        return false;
    }
}

std::ostringstream ComposeLogText() {
    std::ostringstream text;
    text.setf(std::ios::fixed, std::ios::floatfield);
    text.precision(6);
    return text;
}

void EmitLog(LogLevel level, const std::ostringstream& text, const CallSite& where, bool isRoutine) {
    const LogPass pass;
    if (!pass.Open()) {
        return;
    }
    const RoutineMark mark(isRoutine);
    const std::string narrow = text.str();
    log4cplus::tostringstream& message = log4cplus::detail::get_macro_body_oss();
    message << log4cplus::tstring(narrow.begin(), narrow.end());
    log4cplus::detail::macro_forced_log(GetLogger(), static_cast<log4cplus::LogLevel>(level), message.str(), where.file,
                                        where.line, where.function);
}

} // namespace Vantor::Sentrix
