// veyra-crashdumpd: the crash-dump service.
#include "services/crashdump/CrashDumpService.h"
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <sstream>
#include <string>
#include <vector>

namespace Vantor::Sentrix::CrashDump {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

void Say(const std::string& text) {
    Support::WriteTalk("veyra-crashdumpd: " + text + '\n');
}

std::vector<DumpPlace> PlacesOf(const std::vector<std::string>& folders) {
    std::vector<DumpPlace> places;
    for (const std::string& folder : folders) {
        places.push_back({Support::PathFromUtf8(folder)});
    }
    return places.empty() ? SystemDumpPlaces() : places;
}

int Serve(const std::vector<std::string>& folders) {
    Support::CatchStopSignals();
    if (!IsIPCServerPresent(0)) {
        Say("nobody serves the bus yet; waiting");
    }
    CrashDumpService service(PlacesOf(folders));
    if (service.AwaitBus()) {
        Support::WriteOutput("veyra-crashdumpd: serving module 0x830000\n");
        Support::AwaitStop();
    }
    return 0;
}

int Run(int argc, char** argv) {
    CLI::App program("Lists and analyses the crash dumps of this machine, for the modules of the bus.",
                     "veyra-crashdumpd");
    program.allow_windows_style_options(false); // a path may begin with a slash, on every system
    std::vector<std::string> folders;
    program
        .add_option("--folder", folders, "Look for dumps here instead of where the system leaves them; may be repeated")
        ->allow_extra_args(false)
        ->type_name("DIR");
    program.footer("Runs until Ctrl-C or SIGTERM. Exit codes: 0 done, 1 failed, 2 wrong usage.");
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream help;
        std::ostringstream fault;
        const int code = program.exit(error, help, fault);
        Support::WriteOutput(help.str());
        Support::WriteTalk(fault.str());
        return code == 0 ? 0 : kWrongUsage;
    }
    return Serve(folders);
}

} // namespace
} // namespace Vantor::Sentrix::CrashDump

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    const Support::Utf8Console console;
    try {
        return CrashDump::Run(argc, argv);
    } catch (const std::exception& error) {
        CrashDump::Say(error.what());
        return CrashDump::kFailed;
    }
}
