#include "veyrasvc/util/MemoryReport.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <regex>

namespace Vantor::Sentrix {
namespace {

TEST(MemoryReportTest, OneDebugLineNamesTheOccasionAndFourCounters) {
    LogCapture log;
    ShowMemory(L"CheckAccepting");
    ShowMemory(L"caf\u00e9");
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, log4cplus::DEBUG_LOG_LEVEL);
    const std::regex expected("\\[MemoryInfo\\] CheckAccepting WorkingSetSize: ([1-9][0-9]{5,}) QuotaPagedPoolUsage: "
                              "[0-9]+ QuotaNonPagedPoolUsage: [0-9]+ PagefileUsage: [1-9][0-9]{4,}");
    EXPECT_TRUE(std::regex_match(lines[0].second, expected)) << lines[0].second;
    EXPECT_EQ(lines[1].second.substr(0, 19), "[MemoryInfo] caf? W");
}

TEST(MemoryReportTest, NothingIsLoggedAboveDebug) {
    LogCapture log;
    GetLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    ShowMemory(L"CheckAccepting");
    EXPECT_TRUE(log.Take().empty());
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
