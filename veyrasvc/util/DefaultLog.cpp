#include "veyrasvc/util/DefaultLog.h"

#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/Environment.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <string>
#include <utility>

namespace Vantor::Sentrix {

namespace {

using NamedLevel = std::pair<std::string_view, LogLevel>;
constexpr std::array kLevels = {NamedLevel("ALL", LogLevel::All),     NamedLevel("TRACE", LogLevel::All),
                                NamedLevel("DEBUG", LogLevel::Debug), NamedLevel("INFO", LogLevel::Info),
                                NamedLevel("WARN", LogLevel::Warn),   NamedLevel("ERROR", LogLevel::Error),
                                NamedLevel("FATAL", LogLevel::Fatal), NamedLevel("OFF", LogLevel::Off)};

void WriteInOnePiece(const std::string& lines) {
    std::fwrite(lines.data(), 1, lines.size(), stderr);
    std::fflush(stderr);
}

} // namespace

DefaultLog::DefaultLog() {
    const std::string given = EnvironmentText("VEYRA_LOG_LEVEL");
    if (given.empty()) {
        return;
    }
    std::string name = given;
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char letter) { return std::toupper(letter); });
    const auto* const found =
        std::find_if(kLevels.begin(), kLevels.end(), [&](const NamedLevel& known) { return known.first == name; });
    if (found == kLevels.end()) {
        WriteInOnePiece(kNoSuchLevel + given + '\n');
        return;
    }
    m_level = found->second;
    m_isLevelChosen = true;
}

void DefaultLog::Write(LogLevel level, std::string_view text, const CallSite& where, bool isRoutine) const {
    if (isRoutine && !m_isLevelChosen) {
        return;
    }
    SYSTEMTIME now{};
    GetLocalTime(&now);
    const auto* const named =
        std::find_if(kLevels.begin(), kLevels.end(), [&](const NamedLevel& known) { return known.second == level; });
    std::array<char, 32> head{};
    std::snprintf(head.data(), head.size(), "%02u:%02u:%02u.%03u %-5s ", unsigned{now.wHour}, unsigned{now.wMinute},
                  unsigned{now.wSecond}, unsigned{now.wMilliseconds}, named->first.data());
    const std::string_view path = where.file;
    std::string line = head.data();
    line.append(text).append(" [").append(path.substr(path.find_last_of("/\\") + 1));
    line.append(":").append(std::to_string(where.line)).append("]\n");
    WriteInOnePiece(line);
}

} // namespace Vantor::Sentrix
