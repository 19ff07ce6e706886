#include "tools/veyra/bench/Report.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace Vantor::Sentrix::Tool {

namespace {

double Median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string Format(const char* form, double value) {
    char text[64];
    std::snprintf(text, sizeof text, form, value);
    return text;
}

std::string Thousands(double value) {
    std::string digits = Format("%.0f", value);
    for (std::size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, " ");
    }
    return digits;
}

// As people read it.
std::string Readable(double value, std::string_view unit) {
    if (unit == "us") {
        return Format("%.1f us", value);
    }
    if (unit == "MiB") {
        return Format("%.2f MiB", value);
    }
    return unit == "B/s" ? Format("%.1f MB/s", value / 1e6) : Thousands(value) + " /s";
}

std::string Pad(std::string text, std::size_t width, bool right) {
    const std::size_t missing = width > text.size() ? width - text.size() : 0;
    return text.insert(right ? 0 : text.size(), missing, ' ');
}

std::string TableLine(const std::string& name, const std::string& metric, const std::string& bus,
                      const std::string& floor, const std::string& ratio) {
    const std::string line = Pad(name, 37, false) + Pad(metric, 12, false) + Pad(bus, 16, true) + Pad(floor, 16, true) +
                             Pad(ratio, 16, true);
    return line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
}

} // namespace

Report::Row& Report::RowOf(const Workload& workload, const Sample& sample) {
    const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
        return row.workload == &workload && row.metric == sample.metric;
    });
    return found != m_rows.end() ? *found : m_rows.emplace_back(Row{&workload, sample.metric, sample.unit, {}, {}});
}

void Report::Add(const Workload& workload, Subject subject, const Samples& samples) {
    for (const Sample& sample : samples) {
        Row& row = RowOf(workload, sample);
        (subject == Subject::Bus ? row.bus : row.floor).push_back(sample.value);
    }
}

// Of a time the bus's share of the floor's, of a rate the floor's of the bus's.
std::optional<double> Report::TimesSlower(const Row& row) {
    const double bus = Median(row.bus);
    const double floor = Median(row.floor);
    if (bus <= 0 || floor <= 0) {
        return std::nullopt;
    }
    return row.unit == "us" ? bus / floor : floor / bus;
}

std::string Report::Table() const {
    std::string table = TableLine("", "", "bus", "floor", "times slower");
    const Workload* last = nullptr;
    for (const Row& row : m_rows) {
        const auto slower = TimesSlower(row);
        table += TableLine(row.workload == last ? "" : row.workload->meaning, row.metric,
                           row.bus.empty() ? "" : Readable(Median(row.bus), row.unit),
                           row.floor.empty() ? "" : Readable(Median(row.floor), row.unit),
                           slower ? Format("%.2f", *slower) : "");
        last = row.workload;
    }
    return table;
}

std::string Report::Json() const {
    std::string json;
    const auto add = [&json](const Row& row, const std::string& metric, const std::string& unit, double value) {
        json += json.empty() ? "[\n" : ",\n";
        json += R"({"workload":")" + std::string(row.workload->name) + R"(","metric":")" + metric + R"(","unit":")" +
                unit + R"(","value":)" + Format("%.3f", value) + '}';
    };
    for (const Row& row : m_rows) {
        if (!row.bus.empty()) {
            add(row, row.metric, row.unit, Median(row.bus));
        }
        if (!row.floor.empty()) {
            add(row, "floor-" + row.metric, row.unit, Median(row.floor));
        }
        if (const auto slower = TimesSlower(row)) {
            add(row, row.metric + "-vs-floor", "times slower", *slower);
        }
    }
    return (json.empty() ? "[" : json) + "\n]\n";
}

} // namespace Vantor::Sentrix::Tool
