#include "veyrasvc/util/MemoryReport.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace Vantor::Sentrix {
namespace {

TEST(MemoryReportTest, OneDebugLineNamesTheOccasionAndFourCounters) {
    LogCapture log;
    ShowMemory(L"CheckAccepting");
    ShowMemory(L"caf\u00e9");
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, log4cplus::DEBUG_LOG_LEVEL);
    std::istringstream line(lines[0].second);
    std::string texts[6];
    unsigned long long workingSet = 0, pagedPool = 0, otherPool = 0, pageFile = 0;
    line >> texts[0] >> texts[1] >> texts[2] >> workingSet >> texts[3] >> pagedPool >> texts[4] >> otherPool >>
        texts[5] >> pageFile;
    EXPECT_TRUE(line.eof() && line) << lines[0].second;
    EXPECT_EQ(texts[0] + texts[1] + texts[2] + texts[3] + texts[4] + texts[5],
              "[MemoryInfo]CheckAcceptingWorkingSetSize:QuotaPagedPoolUsage:QuotaNonPagedPoolUsage:PagefileUsage:");
    EXPECT_GT(workingSet, 100'000U);
    EXPECT_GT(pageFile, 10'000U);
    EXPECT_EQ(lines[1].second.substr(0, 19), "[MemoryInfo] caf? W");
    GetLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    ShowMemory(L"CheckAccepting");
    EXPECT_TRUE(log.Take().empty());
}

} // namespace
} // namespace Vantor::Sentrix
