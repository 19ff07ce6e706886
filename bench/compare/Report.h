// Collects what was measured and tells it: medians, in tables for people and as JSON for scripts.
// Threads: one at a time.
#pragma once

#include "bench/compare/Workloads.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Compare {

// Of an even number the mean of the middle two. Requires: not empty.
double Median(std::vector<double> values);

class Report {
public:
    void Add(const Backend& backend, const std::string& workload, const Samples& samples);
    void AddFailure(const Backend& backend, const std::string& workload, const std::string& why);
    // How much of a processor others used during a measurement that was kept.
    void AddForeignCpu(double share) { m_foreignCpu.push_back(share); }

    bool HasFailures() const { return !m_failures.empty(); }

    // Markdown: one table for each theme, then what the clients are, the noise and the failures.
    std::string Tables(const std::vector<const Backend*>& backends) const;
    // An array of {"bus","workload","metric","unit","value"}, in the order in which they came.
    std::string Json() const;

private:
    struct Row {
        std::string bus;
        std::string workload;
        std::string metric;
        std::string unit;
        std::vector<double> values;
    };
    struct Column {
        const char* title;
        const char* workload;
        const char* metric;
        double divisor; // of the metric's unit, to what people read
        int decimals;
    };
    struct Theme {
        const char* title;
        std::vector<Column> columns;
        bool limitsOnly;
    };

    static const std::vector<Theme>& Themes();
    std::string Table(const Theme& theme, const std::vector<const Backend*>& backends) const;
    std::string Noise() const;
    std::optional<double> Find(std::string_view bus, std::string_view workload, std::string_view metric) const;

    std::vector<Row> m_rows;
    std::vector<double> m_foreignCpu;
    std::vector<std::string> m_failures;
};

} // namespace Vantor::Sentrix::Compare
