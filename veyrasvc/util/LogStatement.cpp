#include "veyrasvc/util/LogStatement.h"

#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/DefaultLog.h"
#include "veyrasvc/util/Environment.h"

#include <fstream>
#include <ios>
#include <iostream>
#include <optional>
#include <string>

namespace Vantor::Sentrix {

namespace {

#include "LoggerLibraries.inc"

template <class Function> Function Find(HMODULE library, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

// The process's logger, where there is one.
struct Logger {
    IsLogEnabledFunction isEnabled;
    WriteLogFunction write;
};

std::optional<Logger> FunctionsOf(HMODULE library) {
    const Logger logger{Find<IsLogEnabledFunction>(library, kIsLogEnabledName),
                        Find<WriteLogFunction>(library, kWriteLogName)};
    return logger.isEnabled != nullptr && logger.write != nullptr ? std::optional(logger) : std::nullopt;
}

std::optional<Logger> LoadLogger(const std::string& configuration) {
    if (!std::ifstream(configuration).good()) {
        std::cerr << kNoSuchConfiguration + configuration + '\n';
        return std::nullopt;
    }
    const bool isOurs = GetModuleHandleA(kLog4cplusLibrary) == nullptr;
    HMODULE const library = LoadLibraryA(kLoggerLibrary);
    const auto open = library == nullptr ? nullptr : Find<OpenLogFunction>(library, kOpenLogName);
    if (open == nullptr) {
        std::cerr << std::string("veyrasvc: VEYRA_LOG_CONFIG needs ") + kLoggerLibrary + ", which cannot be loaded\n";
        return std::nullopt;
    }
    if (isOurs) {
        open();
    }
    return FunctionsOf(library);
}

std::optional<Logger> FindLogger() {
    if (HMODULE const library = GetModuleHandleA(kLoggerLibrary)) {
        return FunctionsOf(library);
    }
    const std::string configuration = EnvironmentText("VEYRA_LOG_CONFIG");
    return configuration.empty() ? std::nullopt : LoadLogger(configuration);
}

struct Output {
    std::optional<Logger> logger = FindLogger();
    std::optional<DefaultLog> otherwise = logger ? std::nullopt : std::optional<DefaultLog>(std::in_place);
};

const Output& ChosenOutput() {
    static const auto* const output = new Output; // never destroyed: threads may log while the process exits
    return *output;
}

} // namespace

bool IsLogEnabled(LogLevel level) noexcept {
    try {
        const Output& output = ChosenOutput();
        return output.logger ? output.logger->isEnabled(level) : output.otherwise->IsEnabled(level);
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
    const Output& output = ChosenOutput();
    if (output.logger) {
        output.logger->write(level, text.str().c_str(), &where, isRoutine);
    } else {
        output.otherwise->Write(level, text.str(), where, isRoutine);
    }
}

} // namespace Vantor::Sentrix
