#include "tools/support/Program.h"

#include "tools/support/StandardIo.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <sstream>
#include <string>

namespace Vantor::Sentrix::Support {

void Say(std::string_view name, std::string_view text) {
    WriteTalk(std::string(name) + ": " + std::string(text) + '\n');
}

std::optional<int> ParseArguments(CLI::App& program, int argc, char** argv) {
    program.allow_windows_style_options(false); // a body or a path may begin with a slash, on every system
    try {
        program.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        std::ostringstream help;
        std::ostringstream fault;
        const int code = program.exit(error, help, fault);
        WriteOutput(help.str());
        WriteTalk(fault.str());
        return code == 0 ? kDone : kWrongUsage;
    }
}

int RunProgram(std::string_view name, const std::function<int()>& run) {
    const Utf8Console console;
    try {
        return run();
    } catch (const std::exception& error) {
        Say(name, error.what());
        return kFailed;
    }
}

} // namespace Vantor::Sentrix::Support
