#include "veyrasvc/util/MemoryReport.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace Vantor::Sentrix {
namespace {

TEST(MemoryReportTest, OneDebugLineNamesTheOccasionAndFourCounters) {
    LogCapture log;
    ShowMemory(L"CheckAccepting");
    ShowMemory(L"caf\u00e9");
    GetLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    ShowMemory(L"not at this level");
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, log4cplus::DEBUG_LOG_LEVEL);
    EXPECT_TRUE(std::regex_match(
        lines[0].second, std::regex("\\[MemoryInfo\\] CheckAccepting WorkingSetSize: [1-9]\\d* QuotaPagedPoolUsage: "
                                    "\\d+ QuotaNonPagedPoolUsage: \\d+ PagefileUsage: \\d+")))
        << lines[0].second;
    EXPECT_EQ(lines[1].second.substr(0, 19), "[MemoryInfo] caf? W");
}

} // namespace
} // namespace Vantor::Sentrix
