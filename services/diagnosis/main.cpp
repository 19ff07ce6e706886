// veyra-diagnosisd: the diagnosis service.
#include "services/diagnosis/DiagnosisService.h"
#include "services/diagnosis/TempFiles.h"
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/support/Utf8.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <sstream>
#include <string>

namespace Vantor::Sentrix::Diagnosis {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

void Say(const std::string& text) {
    Support::WriteTalk("veyra-diagnosisd: " + text + '\n');
}

int Serve(const std::string& tempFolder) {
    Support::CatchStopSignals();
    if (!IsIPCServerPresent(0)) {
        Say("nobody serves the bus yet; waiting");
    }
    DiagnosisService service(tempFolder.empty() ? DefaultTempFolder() : Support::PathFromUtf8(tempFolder));
    if (service.AwaitBus()) {
        Support::WriteOutput("veyra-diagnosisd: serving module 0x820000\n");
        Support::AwaitStop();
    }
    return 0;
}

int Run(int argc, char** argv) {
    CLI::App program("Examines this machine, for the modules of the bus.", "veyra-diagnosisd");
    program.allow_windows_style_options(false); // a path may begin with a slash, on every system
    std::string tempFolder;
    program
        .add_option("--temp-folder", tempFolder,
                    "Where the repair temp.files removes files older than a week; default: veyra in the folder for "
                    "temporary files")
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
    return Serve(tempFolder);
}

} // namespace
} // namespace Vantor::Sentrix::Diagnosis

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    const Support::Utf8Console console;
    try {
        return Diagnosis::Run(argc, argv);
    } catch (const std::exception& error) {
        Diagnosis::Say(error.what());
        return Diagnosis::kFailed;
    }
}
