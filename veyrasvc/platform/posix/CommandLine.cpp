#include "veyrasvc/platform/posix/CommandLine.h"

#include <algorithm>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr std::wstring_view kBlanks = L" \t";

void SkipBlanks(std::wstring_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
}

std::wstring TakeProgramName(std::wstring_view& line) {
    const bool isQuoted = !line.empty() && line[0] == L'"';
    if (isQuoted) {
        line.remove_prefix(1);
    }
    const auto end = std::min(isQuoted ? line.find(L'"') : line.find_first_of(kBlanks), line.size());
    std::wstring name(line.substr(0, end));
    line.remove_prefix(std::min(end + (isQuoted ? 1 : 0), line.size()));
    return name;
}

// Takes backslashes and the quotation mark behind them, if there is one. True when that mark groups.
bool TakeBackslashes(std::wstring_view& line, std::wstring& argument) {
    const auto count = std::min(line.find_first_not_of(L'\\'), line.size());
    line.remove_prefix(count);
    if (line.empty() || line[0] != L'"') {
        argument.append(count, L'\\');
        return false;
    }
    argument.append(count / 2, L'\\');
    line.remove_prefix(1);
    if (count % 2 == 1) {
        argument += L'"';
    }
    return count % 2 == 0;
}

std::wstring TakeArgument(std::wstring_view& line) {
    std::wstring argument;
    bool isQuoted = false;
    while (!line.empty() && (isQuoted || kBlanks.find(line[0]) == std::wstring_view::npos)) {
        if (line[0] != L'\\' && line[0] != L'"') {
            argument += line[0];
            line.remove_prefix(1);
        } else if (TakeBackslashes(line, argument)) {
            // A doubled mark inside quotation marks is one plain mark.
            if (isQuoted && !line.empty() && line[0] == L'"') {
                argument += L'"';
                line.remove_prefix(1);
            } else {
                isQuoted = !isQuoted;
            }
        }
    }
    return argument;
}

} // namespace

std::vector<std::wstring> SplitCommandLine(std::wstring_view line) {
    std::vector<std::wstring> arguments{TakeProgramName(line)};
    for (SkipBlanks(line); !line.empty(); SkipBlanks(line)) {
        arguments.push_back(TakeArgument(line));
    }
    return arguments;
}

} // namespace Vantor::Sentrix::Platform
