// The run: every workload over every bus, interleaved, while the machine is watched.
// Threads: one at a time. Fails: never by a measurement; the report says which failed.
#pragma once

#include "bench/compare/Report.h"

#include <string>
#include <vector>

namespace Vantor::Sentrix::Compare {

struct Effort {
    int repetitions;        // of everything; medians are told
    double seconds;         // of each measurement
    int retries;            // of one that others disturbed
    double patienceSeconds; // in all, to wait until others are quiet
};

inline constexpr Effort kFullEffort{3, 1.0, 3, 300};
inline constexpr Effort kQuickEffort{1, 0.3, 0, 10};

// Others disturb when they use more than that much of one processor.
inline constexpr double kMostForeignCpu = 0.2;

class Comparison {
public:
    // No workloads: all. A bus whose program is not installed is said and left out.
    Comparison(const Effort& effort, const std::vector<const Backend*>& backends, std::vector<std::string> workloads);

    void Run();

    const Report& GetReport() const { return m_report; }
    std::string Tables() const { return m_report.Tables(m_backends); }

private:
    struct Attempt {
        Samples samples;
        double foreignCpu;
    };

    bool IsWanted(const Workload& workload) const;
    void AwaitQuiet();
    Attempt Try(const Workload& workload, const Backend& backend);
    Attempt Best(const Workload& workload, const Backend& backend);
    void Measure(const Workload& workload, const Backend& backend, int repetition);

    const Effort m_effort;
    const std::vector<std::string> m_workloads;
    std::vector<const Backend*> m_backends;
    double m_patience; // seconds that are left of it
    Report m_report;
};

// To standard error.
void Say(const std::string& text);

} // namespace Vantor::Sentrix::Compare
