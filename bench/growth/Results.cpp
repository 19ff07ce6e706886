#include "bench/growth/Results.h"

#include "bench/compare/Report.h"

#include <algorithm>
#include <cstdio>

namespace Vantor::Sentrix::Growth {

namespace {

// Four digits that count, and no exponent where people read.
std::string Text(double value) {
    char text[64];
    std::snprintf(text, sizeof text, value >= 1000 ? "%.0f" : "%.4g", value);
    return text;
}

template <class Value> void AddOnce(std::vector<Value>& values, const Value& value) {
    if (std::find(values.begin(), values.end(), value) == values.end()) {
        values.push_back(value);
    }
}

} // namespace

void Results::Add(const std::string& series, double x, const std::string& xUnit, const std::string& metric,
                  const std::string& unit, double value) {
    const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
        return row.series == series && row.x == x && row.metric == metric;
    });
    Row& row = found != m_rows.end() ? *found : m_rows.emplace_back(Row{series, x, xUnit, metric, unit, {}});
    row.values.push_back(value);
}

std::string Results::Table(const std::string& series) const {
    std::vector<double> points;
    std::vector<std::string> metrics;
    std::string head;
    std::string rule = "|---:|";
    for (const Row& row : m_rows) {
        if (row.series == series) {
            const auto known = metrics.size();
            AddOnce(points, row.x);
            AddOnce(metrics, row.metric);
            head += head.empty() ? "| " + row.xUnit + " |" : "";
            head += metrics.size() > known ? ' ' + row.metric + ' ' + row.unit + " |" : "";
            rule += metrics.size() > known ? "---:|" : "";
        }
    }
    std::string table = series + "\n\n" + head + '\n' + rule + '\n';
    for (const double x : points) {
        table += "| " + Text(x) + " |";
        for (const std::string& metric : metrics) {
            const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
                return row.series == series && row.x == x && row.metric == metric;
            });
            table += ' ' + (found != m_rows.end() ? Text(Compare::Median(found->values)) : "-") + " |";
        }
        table += '\n';
    }
    return table + '\n';
}

std::string Results::Tables() const {
    std::vector<std::string> series;
    std::string tables;
    for (const Row& row : m_rows) {
        AddOnce(series, row.series);
    }
    for (const std::string& one : series) {
        tables += Table(one);
    }
    return tables;
}

std::string Results::Json() const {
    std::string json;
    for (const Row& row : m_rows) {
        char numbers[2][64];
        std::snprintf(numbers[0], sizeof numbers[0], "%.10g", row.x);
        std::snprintf(numbers[1], sizeof numbers[1], "%.6g", Compare::Median(row.values));
        json += (json.empty() ? "[\n" : ",\n") + std::string(R"({"series":")") + row.series + R"(","x":)" + numbers[0] +
                R"(,"x_unit":")" + row.xUnit + R"(","metric":")" + row.metric + R"(","unit":")" + row.unit +
                R"(","value":)" + numbers[1] + '}';
    }
    return (json.empty() ? "[" : json) + "\n]\n";
}

} // namespace Vantor::Sentrix::Growth
