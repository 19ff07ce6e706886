// veyra-diagnosisd: the diagnosis service.
#include "services/diagnosis/DiagnosisService.h"
#include "services/diagnosis/TempFiles.h"
#include "tools/support/Program.h"
#include "tools/support/Utf8.h"

#include <CLI/CLI.hpp>

#include <string>

namespace Vantor::Sentrix::Diagnosis {
namespace {

constexpr char kProgram[] = "veyra-diagnosisd";

int Run(int argc, char** argv) {
    CLI::App program("Examines this machine, for the modules of the bus.", kProgram);
    std::string tempFolder;
    program
        .add_option("--temp-folder", tempFolder,
                    "Where the repair temp.files moves files older than a week aside; default: veyra in the folder for "
                    "temporary files")
        ->type_name("DIR");
    program.footer("Runs until Ctrl-C or SIGTERM. Exit codes: 0 done, 1 failed, 2 wrong usage.");
    if (const auto exitCode = Support::ParseArguments(program, argc, argv)) {
        return *exitCode;
    }
    return Services::ServeUntilStopped(kProgram, kModule, [&] {
        return DiagnosisService(tempFolder.empty() ? DefaultTempFolder() : Support::PathFromUtf8(tempFolder));
    });
}

} // namespace
} // namespace Vantor::Sentrix::Diagnosis

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram(Diagnosis::kProgram, [&] { return Diagnosis::Run(argc, argv); });
}
