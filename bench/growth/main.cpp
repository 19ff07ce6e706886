// veyra-growth: how the cost of the bus grows with what is in use. `./dev bench --growth` builds and runs it.
#include "bench/compare/Processes.h"
#include "bench/growth/Roles.h"
#include "bench/growth/Series.h"
#include "tools/support/Program.h"
#include "tools/support/StandardIo.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>

namespace Vantor::Sentrix::Growth {

namespace {

struct Options {
    bool quick = false;
    std::string json;
    std::vector<std::string> series;
};

std::optional<int> Parse(Options& options, int argc, char** argv) {
    std::vector<std::string> names;
    for (const Series& series : AllSeries()) {
        names.push_back(series.name);
    }
    CLI::App program("Measures how the cost of the bus grows with what is in use.", "veyra-growth");
    program.add_flag("--quick", options.quick, "One short run instead of three");
    program.add_option("--json", options.json, "Write the medians to that file as well");
    program.add_option("--series", options.series, "Only these")->delimiter(',')->check(CLI::IsMember(names));
    return Support::ParseArguments(program, argc, argv);
}

int Run(const Options& options) {
    const int runs = options.quick ? 1 : 3;
    const double seconds = options.quick ? 0.1 : 0.3;
    bool failed = false;
    Results results;
    std::signal(SIGPIPE, SIG_IGN);
    for (int run = 1; run <= runs; ++run) {
        for (const Series& series : AllSeries()) {
            if (!options.series.empty() &&
                std::find(options.series.begin(), options.series.end(), series.name) == options.series.end()) {
                continue;
            }
            Support::Say("veyra-growth",
                         "run " + std::to_string(run) + " of " + std::to_string(runs) + ", " + series.name);
            try {
                series.measure(results, seconds);
            } catch (const std::exception& error) {
                Support::Say("veyra-growth", series.name + " FAILED: " + error.what());
                failed = true;
            }
        }
    }
    Support::WriteOutput(results.Tables());
    if (!options.json.empty()) {
        Compare::WriteTextFile(options.json, results.Json());
    }
    return failed ? Support::kFailed : Support::kDone;
}

int Main(int argc, char** argv) {
    if (argc > 2 && argv[1] == std::string("role")) {
        return RunRole({argv + 2, argv + argc});
    }
    Options options;
    const auto exitCode = Parse(options, argc, argv);
    return exitCode ? *exitCode : Run(options);
}

} // namespace

} // namespace Vantor::Sentrix::Growth

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram("veyra-growth", [&] { return Growth::Main(argc, argv); });
}
