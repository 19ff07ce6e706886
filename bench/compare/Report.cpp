#include "bench/compare/Report.h"

#include <algorithm>
#include <cstdio>

namespace Vantor::Sentrix::Compare {

namespace {

std::string Fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string Grouped(double value, int decimals) {
    std::string text = Fixed(value, decimals);
    for (std::size_t at = std::min(text.find('.'), text.size()); at > 3;) {
        at -= 3;
        text.insert(at, " ");
    }
    return text;
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    }
    return quoted + '"';
}

} // namespace

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void Report::Add(const Backend& backend, const std::string& workload, const Samples& samples) {
    for (const Sample& sample : samples) {
        const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
            return row.bus == backend.name && row.workload == workload && row.metric == sample.metric;
        });
        Row& row = found != m_rows.end()
                       ? *found
                       : m_rows.emplace_back(Row{backend.name, workload, sample.metric, sample.unit, {}});
        row.values.push_back(sample.value);
    }
}

void Report::AddFailure(const Backend& backend, const std::string& workload, const std::string& why) {
    m_failures.push_back(backend.name + ' ' + workload + ": " + why);
}

std::optional<double> Report::Find(std::string_view bus, std::string_view workload, std::string_view metric) const {
    const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
        return row.bus == bus && row.workload == workload && row.metric == metric;
    });
    return found != m_rows.end() ? std::optional(Median(found->values)) : std::nullopt;
}

const std::vector<Report::Theme>& Report::Themes() {
    static const std::vector<Theme> themes = {
        {"Request and reply, one outstanding",
         {{"64 B p50 us", "sync-64", "p50", 1, 1},
          {"p99 us", "sync-64", "p99", 1, 1},
          {"1/s", "sync-64", "requests", 1, 0},
          {"16 KiB p50 us", "sync-16k", "p50", 1, 1},
          {"p99 us", "sync-16k", "p99", 1, 1},
          {"1/s", "sync-16k", "requests", 1, 0},
          {"one CPU, 64 B p50 us", "sync-64-one-cpu", "p50", 1, 1},
          {"p99 us", "sync-64-one-cpu", "p99", 1, 1},
          {"1/s", "sync-64-one-cpu", "requests", 1, 0}},
         false},
        {"What one 64 B round trip costs: switches of threads as the kernel counts them, and processor time",
         {{"switches, client", "sync-64", "switches-client", 1, 2},
          {"server", "sync-64", "switches-server", 1, 2},
          {"broker", "sync-64", "switches-broker", 1, 2},
          {"CPU us", "sync-64", "cpu", 1, 1},
          {"of it broker", "sync-64", "cpu-broker", 1, 1},
          {"one CPU: switches, client", "sync-64-one-cpu", "switches-client", 1, 2},
          {"server", "sync-64-one-cpu", "switches-server", 1, 2},
          {"broker", "sync-64-one-cpu", "switches-broker", 1, 2},
          {"CPU us", "sync-64-one-cpu", "cpu", 1, 1}},
         false},
        {"Throughput, and what it costs the broker",
         {{"64 outstanding, 64 B 1/s", "sync-64-x64", "requests", 1, 0},
          {"one way 64 B 1/s", "post-64", "messages", 1, 0},
          {"4 KiB 1/s", "post-4k", "messages", 1, 0},
          {"MB/s", "post-4k", "bytes", 1e6, 0},
          {"1 MiB 1/s", "post-1m", "messages", 1, 0},
          {"two at a time 1/s", "post-1m-x2", "messages", 1, 0},
          {"1 to 8, 64 B deliveries/s", "publish-8", "deliveries", 1, 0},
          {"broker CPU s per million of 64 B", "post-64", "broker-cpu", 1, 2}},
         false},
        {"Resident memory of the broker, MiB",
         {{"no client", "memory", "broker-0", 1, 2},
          {"20 idle", "memory", "broker-20", 1, 2},
          {"90 idle", "memory", "broker-90", 1, 2},
          {"of it anonymous", "memory", "broker-90-anonymous", 1, 2}},
         false},
        {"Where the floor's processes run: 64 B, client and server on one processor, the broker on the other; direct, "
         "one each",
         {{"apart p50 us", "sync-64-apart", "p50", 1, 1},
          {"p99 us", "sync-64-apart", "p99", 1, 1},
          {"CPU us", "sync-64-apart", "cpu", 1, 1},
          {"best apart us", "sync-64-apart", "min", 1, 1},
          {"best on one CPU us", "sync-64-one-cpu", "min", 1, 1},
          {"best anywhere us", "sync-64", "min", 1, 1}},
         true}};
    return themes;
}

std::string Report::Table(const Theme& theme, const std::vector<const Backend*>& backends) const {
    std::string head = "| bus |";
    std::string rule = "|---|";
    for (const Column& column : theme.columns) {
        head += ' ' + std::string(column.title) + " |";
        rule += "---:|";
    }
    std::string body;
    for (const Backend* backend : backends) {
        std::string line;
        bool any = false;
        for (const Column& column : theme.columns) {
            const auto value = Find(backend->name, column.workload, column.metric);
            any |= value.has_value();
            line += ' ' + (value ? Grouped(*value / column.divisor, column.decimals) : "-") + " |";
        }
        if (any && (backend->kind == Kind::Limit || !theme.limitsOnly)) {
            body += "| " + backend->name + " |" + line + '\n';
        }
    }
    return body.empty() ? "" : std::string(theme.title) + "\n\n" + head + '\n' + rule + '\n' + body + '\n';
}

std::string Report::Noise() const {
    if (m_foreignCpu.empty()) {
        return "Nothing was measured.\n";
    }
    return "Processor time that others used during the measurements, in processors: median " +
           Fixed(Median(m_foreignCpu), 2) + ", worst " +
           Fixed(*std::max_element(m_foreignCpu.begin(), m_foreignCpu.end()), 2) + ".\n";
}

std::string Report::Tables(const std::vector<const Backend*>& backends) const {
    std::string text;
    for (const Theme& theme : Themes()) {
        text += Table(theme, backends);
    }
    text += "What the clients are\n\n| bus | threads: client, server, broker | |\n|---|---|---|\n";
    for (const Backend* backend : backends) {
        std::string threads;
        for (const char* metric : {"threads-client", "threads-server", "threads-broker"}) {
            const auto count = Find(backend->name, "sync-64", metric);
            threads += (threads.empty() ? "" : ", ") + (count ? Fixed(*count, 0) : "-");
        }
        text += "| " + backend->name + " | " + threads + " | " + backend->note + " |\n";
    }
    text += '\n' + Noise();
    for (const std::string& failure : m_failures) {
        text += "FAILED " + failure + '\n';
    }
    return text;
}

std::string Report::Json() const {
    std::string json;
    for (const Row& row : m_rows) {
        json += (json.empty() ? "[\n" : ",\n") + std::string(R"({"bus":)") + Quoted(row.bus) + R"(,"workload":)" +
                Quoted(row.workload) + R"(,"metric":)" + Quoted(row.metric) + R"(,"unit":)" + Quoted(row.unit) +
                R"(,"value":)" + Fixed(Median(row.values), 4) + '}';
    }
    return (json.empty() ? "[" : json) + "\n]\n";
}

} // namespace Vantor::Sentrix::Compare
