// veyra-compare: this project's bus beside others of its kind, and beside what the machine allows. `./dev compare`
// installs what it needs, builds and runs it.
#include "bench/compare/Comparison.h"
#include "bench/compare/Processes.h"
#include "bench/compare/Roles.h"
#include "tools/support/Program.h"
#include "tools/support/StandardIo.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <optional>

namespace Vantor::Sentrix::Compare {

namespace {

struct Options {
    bool quick = false;
    std::string json;
    std::vector<std::string> buses;
    std::vector<std::string> workloads;
    std::optional<int> repetitions;
    std::optional<double> seconds;
    std::optional<int> retries;
    std::optional<double> patienceSeconds;

    Effort Chosen() const {
        const Effort& usual = quick ? kQuickEffort : kFullEffort;
        return {repetitions.value_or(usual.repetitions), seconds.value_or(usual.seconds),
                retries.value_or(usual.retries), patienceSeconds.value_or(usual.patienceSeconds)};
    }

    std::vector<const Backend*> ChosenBackends() const {
        std::vector<const Backend*> chosen;
        for (const Backend& backend : Backends()) {
            const bool named = std::find(buses.begin(), buses.end(), backend.name) != buses.end();
            if (named || (buses.empty() && (backend.inQuickRun || !quick))) {
                chosen.push_back(&backend);
            }
        }
        return chosen;
    }
};

template <class Named> std::vector<std::string> NamesOf(const std::vector<Named>& named) {
    std::vector<std::string> names;
    for (const Named& one : named) {
        names.push_back(one.name);
    }
    return names;
}

std::optional<int> Parse(Options& options, int argc, char** argv) {
    CLI::App program("Compares the bus with others of its kind, and with what the machine allows.", "veyra-compare");
    program.add_flag("--quick", options.quick, "One short measurement each, of the buses that tell most");
    program.add_option("--json", options.json, "Write the medians to that file as well");
    program.add_option("--bus", options.buses, "Only these")->delimiter(',')->check(CLI::IsMember(NamesOf(Backends())));
    program.add_option("--workload", options.workloads, "Only these")
        ->delimiter(',')
        ->check(CLI::IsMember(NamesOf(Workloads())));
    program.add_option("--repetitions", options.repetitions, "How often everything is measured")
        ->check(CLI::PositiveNumber);
    program.add_option("--seconds", options.seconds, "How long")->check(CLI::PositiveNumber);
    program.add_option("--retries", options.retries, "How often again when others have disturbed it")
        ->check(CLI::NonNegativeNumber);
    program.add_option("--patience", options.patienceSeconds, "How many seconds in all to wait until others are quiet");
    return Support::ParseArguments(program, argc, argv);
}

int Run(const Options& options) {
    std::signal(SIGPIPE, SIG_IGN);
    SearchSystemFolders();
    if (const std::string absent = VEYRA_COMPARE_ABSENT; !absent.empty()) {
        Say("built without " + absent + ": their libraries were not found");
    }
    Comparison comparison(options.Chosen(), options.ChosenBackends(), options.workloads);
    comparison.Run();
    const Report& report = comparison.GetReport();
    Support::WriteOutput(comparison.Tables());
    if (!options.json.empty()) {
        WriteTextFile(options.json, report.Json());
    }
    return report.HasFailures() ? Support::kFailed : Support::kDone;
}

int Main(int argc, char** argv) {
    if (argc > 4 && argv[1] == std::string("role")) {
        return RunRole({argv + 2, argv + argc});
    }
    Options options;
    const auto exitCode = Parse(options, argc, argv);
    return exitCode ? *exitCode : Run(options);
}

} // namespace

} // namespace Vantor::Sentrix::Compare

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram("veyra-compare", [&] { return Compare::Main(argc, argv); });
}
