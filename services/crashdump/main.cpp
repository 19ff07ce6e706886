// veyra-crashdumpd: the crash-dump service.
#include "services/crashdump/CrashDumpService.h"
#include "tools/support/Program.h"
#include "tools/support/Utf8.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace Vantor::Sentrix::CrashDump {
namespace {

constexpr char kProgram[] = "veyra-crashdumpd";

std::vector<DumpPlace> PlacesOf(const std::vector<std::string>& folders) {
    std::vector<DumpPlace> places;
    for (const std::string& folder : folders) {
        places.push_back({Support::PathFromUtf8(folder)});
    }
    return places.empty() ? SystemDumpPlaces() : places;
}

int Run(int argc, char** argv) {
    CLI::App program("Lists and analyses the crash dumps of this machine, for the modules of the bus.", kProgram);
    std::vector<std::string> folders;
    program
        .add_option("--folder", folders, "Look for dumps here instead of where the system leaves them; may be repeated")
        ->allow_extra_args(false)
        ->type_name("DIR");
    program.footer("Runs until Ctrl-C or SIGTERM. Exit codes: 0 done, 1 failed, 2 wrong usage.");
    if (const auto exitCode = Support::ParseArguments(program, argc, argv)) {
        return *exitCode;
    }
    return Services::ServeUntilStopped(kProgram, kModule, [&] { return CrashDumpService(PlacesOf(folders)); });
}

} // namespace
} // namespace Vantor::Sentrix::CrashDump

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram(CrashDump::kProgram, [&] { return CrashDump::Run(argc, argv); });
}
