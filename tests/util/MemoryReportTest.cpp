#include "veyrasvc/util/MemoryReport.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdio>
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
    unsigned long long set = 0;
    unsigned long long paged = 0;
    unsigned long long nonPaged = 0;
    unsigned long long file = 0;
    ASSERT_EQ(std::sscanf(lines[0].second.c_str(),
                          "[MemoryInfo] CheckAccepting WorkingSetSize: %llu QuotaPagedPoolUsage: %llu "
                          "QuotaNonPagedPoolUsage: %llu PagefileUsage: %llu",
                          &set, &paged, &nonPaged, &file),
              4)
        << lines[0].second;
    EXPECT_GT(set, 0U);
    EXPECT_TRUE(lines[0].second.ends_with(": " + std::to_string(file))) << "nothing behind it";
    EXPECT_EQ(lines[1].second.substr(0, 19), "[MemoryInfo] caf? W");
}

} // namespace
} // namespace Vantor::Sentrix
