// veyra bench: how fast the bus is here, and how fast anything could be.
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"
#include "tools/veyra/bench/Measure.h"
#include "tools/veyra/bench/Report.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <set>

namespace Vantor::Sentrix::Tool {

namespace {

struct BenchOptions {
    bool quick = false;
    bool json = false;
    std::vector<std::string> only;
};

struct Extent {
    int rounds;
    double seconds; // of one measurement
};

constexpr Extent kFull{3, 0.7};
constexpr Extent kQuick{1, 0.4};

std::vector<const Workload*> Chosen(const BenchOptions& options) {
    std::vector<const Workload*> chosen;
    for (const Workload& workload : kWorkloads) {
        const auto& only = options.only;
        if (only.empty() || std::find(only.begin(), only.end(), workload.name) != only.end()) {
            chosen.push_back(&workload);
        }
    }
    return chosen;
}

std::string Brief(const Samples& samples) {
    std::string text;
    for (const Sample& sample : samples) {
        char number[64];
        std::snprintf(number, sizeof number, "  %s %.4g %s", sample.metric.c_str(), sample.value, sample.unit.c_str());
        text += number;
    }
    return text;
}

class Run {
public:
    explicit Run(const BenchOptions& options)
        : m_extent(options.quick ? kQuick : kFull), m_chosen(Chosen(options)), m_floorProgram(FloorProgram()) {}

    Report Measure() {
        if (m_floorProgram.empty()) {
            Say("the floor is not measured here: there is no program veyra-floor beside this one");
        }
        for (int round = 1; round <= m_extent.rounds; ++round) {
            m_round = "round " + std::to_string(round) + " of " + std::to_string(m_extent.rounds) + ", ";
            MeasureTraffic();
        }
        m_round.clear();
        for (const Workload* workload : m_chosen) {
            if (workload->kind == WorkloadKind::Memory) {
                Take(*workload, Subject::Bus, MeasureMemory());
            }
        }
        return m_report;
    }

private:
    // Floor and bus take turns, so that what else the machine does meanwhile meets both.
    void MeasureTraffic() {
        const PrivateBus bus;
        for (const Workload* workload : m_chosen) {
            if (workload->kind == WorkloadKind::Memory) {
                continue;
            }
            if (workload->hasFloor && !m_floorProgram.empty()) {
                Take(*workload, Subject::Floor, MeasureOnFloor(*workload, m_extent.seconds, m_floorProgram));
            }
            Take(*workload, Subject::Bus, MeasureOnBus(*workload, m_extent.seconds));
        }
    }

    void Take(const Workload& workload, Subject subject, const Samples& samples) {
        Say(m_round + workload.name + (subject == Subject::Floor ? ", floor:" : ":") + Brief(samples));
        m_report.Add(workload, subject, samples);
    }

    const Extent m_extent;
    const std::vector<const Workload*> m_chosen;
    const std::string m_floorProgram;
    std::string m_round;
    Report m_report;
};

int Bench(const BenchOptions& options) {
    Support::CatchStopSignals(); // so that the processes of a measurement are ended with it
    try {
        const Report report = Run(options).Measure();
        return Support::WriteOutput(options.json ? report.Json() : report.Table()) ? kDone : kFailed;
    } catch (const BenchFailure& failure) {
        Say(std::string("the benchmark has failed: ") + failure.what());
        return kFailed;
    }
}

std::string DescribeWorkloads() {
    std::string text = "Measurements:\n";
    for (const Workload& workload : kWorkloads) {
        std::string name = workload.name;
        name.resize(std::max<std::size_t>(name.size(), 14), ' ');
        text += "  " + name + workload.meaning + '\n';
    }
    return text + "All parties are processes of their own, on a bus of their own. The floor is two processes that talk "
                  "through a\nminimal forwarder over plain Unix sockets.";
}

} // namespace

Verb AddBench(CLI::App& program) {
    auto options = std::make_shared<BenchOptions>();
    std::set<std::string> names;
    for (const Workload& workload : kWorkloads) {
        names.insert(workload.name);
    }
    CLI::App* command = program.add_subcommand("bench", "Measure how fast the bus is on this machine");
    command->add_flag("--quick", options->quick, "One short round instead of three");
    command->add_flag("--json", options->json, "Print a JSON array");
    command->add_option("--only", options->only, "Only these measurements")
        ->check(CLI::IsMember(names))
        ->type_name("NAME");
    command->footer(DescribeWorkloads());
    return {command, [options] { return Bench(*options); }};
}

} // namespace Vantor::Sentrix::Tool
