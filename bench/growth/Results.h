// Collects what was measured and tells it: medians, in tables for people and as JSON for scripts.
// Threads: one at a time.
#pragma once

#include <string>
#include <vector>

namespace Vantor::Sentrix::Growth {

class Results {
public:
    // The cost of `series` where there is `x` of what grows. Values that come again are further runs.
    void Add(const std::string& series, double x, const std::string& xUnit, const std::string& metric,
             const std::string& unit, double value);

    // Markdown: a table for each series, a row for each x.
    std::string Tables() const;
    // An array of {"series","x","x_unit","metric","unit","value"}, in the order in which they came.
    std::string Json() const;

private:
    struct Row {
        std::string series;
        double x;
        std::string xUnit;
        std::string metric;
        std::string unit;
        std::vector<double> values;
    };

    std::string Table(const std::string& series) const;

    std::vector<Row> m_rows;
};

} // namespace Vantor::Sentrix::Growth
