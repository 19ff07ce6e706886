// What the programs' `main` functions share.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

namespace CLI {
class App;
}

namespace Vantor::Sentrix::Support {

// Exit codes of every program.
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kWrongUsage = 2;

// "NAME: TEXT" on a line of its own, to standard error.
void Say(std::string_view name, std::string_view text);

// Nothing: go on. Else the exit code: the usage was wrong, or help was asked for, and the user has been told.
std::optional<int> ParseArguments(CLI::App& program, int argc, char** argv);

// Gives what `run` gives. An exception that leaves it is said, and is kFailed. A console shows UTF-8 meanwhile.
int RunProgram(std::string_view name, const std::function<int()>& run);

} // namespace Vantor::Sentrix::Support
