// Collects what was measured and tells it.
// Threads: one at a time.
#pragma once

#include "tools/veyra/bench/Workloads.h"

#include <optional>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Tool {

enum class Subject { Bus, Floor };

// Keeps every sample and reports medians.
class Report {
public:
    void Add(const Workload& workload, Subject subject, const Samples& samples);

    // For people: the bus, the floor and how many times slower than the floor the bus is.
    std::string Table() const;
    // For scripts: an array of {"workload","metric","unit","value"}; the floor's metrics are called floor-METRIC and
    // the comparison METRIC-vs-floor.
    std::string Json() const;

private:
    struct Row {
        const Workload* workload;
        std::string metric;
        std::string unit;
        std::vector<double> bus;
        std::vector<double> floor;
    };

    static std::optional<double> TimesSlower(const Row& row);
    Row& RowOf(const Workload& workload, const Sample& sample);

    std::vector<Row> m_rows;
};

} // namespace Vantor::Sentrix::Tool
