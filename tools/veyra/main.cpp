// veyra: the operator's program of the message bus.
#include "tools/support/Program.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/platform/Win32.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <vector>

namespace Vantor::Sentrix::Tool {

int RunChosen(const std::vector<Verb>& verbs) {
    for (const Verb& verb : verbs) {
        if (verb.command->parsed()) {
            return verb.run();
        }
    }
    return kWrongUsage;
}

namespace {

constexpr char kFooter[] = "Ids are decimal, or hexadecimal after 0x. Data goes to standard output, talk to standard "
                           "error.\nExit codes: 0 done, 1 failed, 2 wrong usage.";

// A verb that asks for one thing says itself what came of it; the library's warnings would say it twice.
void QuietLog(const wchar_t* level) {
    const bool chosen = std::getenv("VEYRA_LOG_LEVEL") != nullptr || // NOLINT(concurrency-mt-unsafe): one thread yet
                        std::getenv("VEYRA_LOG_CONFIG") != nullptr;  // NOLINT(concurrency-mt-unsafe)
    if (!chosen) {
        SetEnvironmentVariableW(L"VEYRA_LOG_LEVEL", level);
    }
}

int Run(int argc, char** argv) {
    CLI::App program("Serves and uses the message bus of this machine.", "veyra");
    program.footer(kFooter);
    program.require_subcommand(1);
    const std::vector<Verb> verbs = {AddServe(program),    AddSend(program),       AddPost(program),
                                     AddPublish(program),  AddListen(program),     AddStatus(program),
                                     AddDiagnose(program), AddCrashDumps(program), AddHash(program),
                                     AddSysInfo(program),  AddBench(program),      AddBenchWorker(program)};
    if (const auto exitCode = Support::ParseArguments(program, argc, argv)) {
        return *exitCode;
    }
    if (program.got_subcommand("bench") || program.got_subcommand("bench-worker")) {
        QuietLog(L"FATAL"); // a host tells of its start as an error
    } else if (!program.got_subcommand("serve") && !program.got_subcommand("listen")) {
        QuietLog(L"ERROR");
    }
    return RunChosen(verbs);
}

} // namespace
} // namespace Vantor::Sentrix::Tool

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram("veyra", [&] { return Tool::Run(argc, argv); });
}
