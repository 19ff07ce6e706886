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
    const std::regex form(R"(\[MemoryInfo\] CheckAccepting WorkingSetSize: \d{6,} QuotaPagedPoolUsage: \d+ )"
                          R"(QuotaNonPagedPoolUsage: \d+ PagefileUsage: \d{5,})");
    EXPECT_TRUE(std::regex_match(lines[0].second, form)) << lines[0].second;
    EXPECT_EQ(lines[1].second.substr(0, 19), "[MemoryInfo] caf? W");
    GetLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    ShowMemory(L"CheckAccepting");
    EXPECT_TRUE(log.Take().empty());
}

} // namespace
} // namespace Vantor::Sentrix
