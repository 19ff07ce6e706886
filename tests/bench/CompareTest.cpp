// The comparison: its arithmetic, and a short run over our bus and the plain forwarder. Its receivers fail when a
// message is lost, comes twice or is damaged, so a run that succeeds has moved them all.
#include "bench/compare/Report.h"
#include "tools/support/ChildProcess.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace Vantor::Sentrix::Compare {
namespace {

using Arguments = std::vector<std::string>;
using Metrics = std::map<std::string, double>; // by "BUS WORKLOAD METRIC"

// Fails unless every element has exactly the promised members, and none comes twice.
Metrics Parse(std::istream& text) {
    Metrics metrics;
    Json::Value rows;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &rows, &errors)) << errors;
    for (const Json::Value& row : rows) {
        EXPECT_EQ(row.getMemberNames(), (Arguments{"bus", "metric", "unit", "value", "workload"}));
        const std::string key =
            row["bus"].asString() + ' ' + row["workload"].asString() + ' ' + row["metric"].asString();
        EXPECT_TRUE(metrics.emplace(key, row["value"].asDouble()).second) << key;
    }
    return metrics;
}

std::optional<DWORD> ExitCodeOf(const Arguments& arguments) {
    Support::ChildProcess program;
    EXPECT_TRUE(program.Start(VEYRA_COMPARE, arguments, Support::ChildProcess::Output::PipeAll)) << GetLastError();
    while (const auto line = program.ReadLine()) {
        SCOPED_TRACE(*line);
        EXPECT_EQ(line->find("FAILED"), std::string::npos) << *line;
    }
    return program.WaitForExit();
}

TEST(CompareReport, TellsMediansOfWhatCame) {
    Backend odd;
    odd.name = R"(a "bus" \)";
    Report report;
    std::istringstream empty(report.Json());
    EXPECT_TRUE(Parse(empty).empty());
    for (const double value : {9.0, 1.0, 4.0}) {
        report.Add(odd, "post-64", {{"messages", "1/s", value}, {"bytes", "B/s", 64 * value}});
    }
    report.Add(odd, "memory", {{"broker-0", "MiB", 3}});
    report.Add(odd, "memory", {{"broker-0", "MiB", 2}});
    std::istringstream json(report.Json());
    const Metrics expected = {
        {odd.name + " post-64 messages", 4}, {odd.name + " post-64 bytes", 256}, {odd.name + " memory broker-0", 2.5}};
    EXPECT_EQ(Parse(json), expected);
    EXPECT_NE(report.Tables({&odd}).find("| 2.50 |"), std::string::npos) << report.Tables({&odd});
}

TEST(CompareProgram, MovesEveryMessage) {
    const std::string file = testing::TempDir() + "compare-" + std::to_string(GetCurrentProcessId()) + ".json";
    const Arguments buses = {"veyrasvc", "limit-fwd", "limit-fwd-batch"};
    EXPECT_EQ(ExitCodeOf({"--bus=veyrasvc,limit-fwd,limit-fwd-batch",
                          "--workload=sync-64,post-64,post-1m,sync-64-x64,publish-8", "--seconds=0.05",
                          "--repetitions=1", "--retries=0", "--patience=0", "--json=" + file}),
              0U);
    std::ifstream json(file);
    Metrics metrics = Parse(json);
    for (const std::string& bus : buses) {
        for (const char* rate : {" sync-64 requests", " post-64 messages", " post-1m messages", " sync-64-x64 requests",
                                 " publish-8 deliveries"}) {
            EXPECT_GT(metrics[bus + rate], 0) << bus << rate;
        }
        EXPECT_LE(metrics[bus + " sync-64 min"], metrics[bus + " sync-64 p50"]);
        EXPECT_LE(metrics[bus + " sync-64 p50"], metrics[bus + " sync-64 p99"]);
    }
    // Nobody else's client carries what our library brings along.
    EXPECT_EQ(metrics["limit-fwd sync-64 threads-client"], 1);
    std::remove(file.c_str());
}

TEST(CompareProgram, RefusesWhatItDoesNotKnow) {
    for (const char* argument :
         {"--bus=nobody", "--workload=nothing", "--seconds=0", "--repetitions=0", "--retries=-1"}) {
        EXPECT_EQ(ExitCodeOf({argument}), 2U) << argument;
    }
}

} // namespace
} // namespace Vantor::Sentrix::Compare
