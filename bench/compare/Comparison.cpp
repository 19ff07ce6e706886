#include "bench/compare/Comparison.h"

#include "bench/compare/Machine.h"
#include "bench/compare/Processes.h"
#include "tools/support/Program.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

// How much of one processor others use, from its construction on.
class ForeignCpu {
public:
    double Share() const { return std::max(0.0, (ForeignCpuSeconds() - m_before) / (Now() - m_begin)); }

private:
    const double m_before = ForeignCpuSeconds();
    const double m_begin = Now();
};

} // namespace

void Say(const std::string& text) {
    Support::Say("veyra-compare", text);
}

Comparison::Comparison(const Effort& effort, const std::vector<const Backend*>& backends,
                       std::vector<std::string> workloads)
    : m_effort(effort), m_workloads(std::move(workloads)), m_patience(effort.patienceSeconds) {
    for (const Backend* backend : backends) {
        if (IsInstalled(backend->program)) {
            m_backends.push_back(backend);
        } else {
            Say("without " + backend->name + ": " + backend->program + " is not installed");
        }
    }
}

bool Comparison::IsWanted(const Workload& workload) const {
    return m_workloads.empty() || std::find(m_workloads.begin(), m_workloads.end(), workload.name) != m_workloads.end();
}

// Repetition, then workload, then bus: what changes on the machine in the course of time changes for all.
void Comparison::Run() {
    for (int repetition = 1; repetition <= m_effort.repetitions; ++repetition) {
        for (const Workload& workload : Workloads()) {
            for (const Backend* backend : m_backends) {
                if (IsWanted(workload) && workload.applies(*backend)) {
                    Measure(workload, *backend, repetition);
                }
            }
        }
    }
}

// Gives up when the patience is used up: the report says how noisy it was.
void Comparison::AwaitQuiet() {
    constexpr std::chrono::milliseconds kLook{100};
    while (m_patience > 0) {
        const double begin = Now();
        const ForeignCpu others;
        std::this_thread::sleep_for(kLook);
        if (others.Share() <= kMostForeignCpu) {
            return;
        }
        m_patience -= Now() - begin;
    }
}

Comparison::Attempt Comparison::Try(const Workload& workload, const Backend& backend) {
    AwaitQuiet();
    const ForeignCpu others;
    Samples samples = workload.measure(backend, m_effort.seconds);
    return {std::move(samples), others.Share()};
}

// The quietest of some attempts, as soon as one is quiet enough.
Comparison::Attempt Comparison::Best(const Workload& workload, const Backend& backend) {
    Attempt best = Try(workload, backend);
    for (int i = 0; i < m_effort.retries && workload.timed && best.foreignCpu > kMostForeignCpu; ++i) {
        Attempt attempt = Try(workload, backend);
        if (attempt.foreignCpu < best.foreignCpu) {
            best = std::move(attempt);
        }
    }
    return best;
}

void Comparison::Measure(const Workload& workload, const Backend& backend, int repetition) {
    try {
        const Attempt best = Best(workload, backend);
        m_report.Add(backend, workload.name, best.samples);
        m_report.AddForeignCpu(best.foreignCpu);
        const Sample& first = best.samples.front();
        char text[160];
        std::snprintf(text, sizeof text, "%d  %-16s %-17s %s %12.1f %s (others: %.2f CPU)", repetition,
                      workload.name.c_str(), backend.name.c_str(), first.metric.c_str(), first.value,
                      first.unit.c_str(), best.foreignCpu);
        Say(text);
    } catch (const std::exception& error) {
        m_report.AddFailure(backend, workload.name, error.what());
        Say("FAILED " + workload.name + ' ' + backend.name + ": " + error.what());
    }
}

} // namespace Vantor::Sentrix::Compare
