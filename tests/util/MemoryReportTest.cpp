#include "veyrasvc/util/MemoryReport.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace Vantor::Sentrix {
namespace {

std::string WithoutNumbers(const std::string& line) {
    std::string result;
    for (const char c : line) {
        if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
            result += c;
        } else if (result.empty() || result.back() != '#') {
            result += '#';
        }
    }
    return result;
}

TEST(MemoryReportTest, OneDebugLineNamesTheOccasionAndFourCounters) {
    LogCapture log;
    ShowMemory(L"CheckAccepting");
    ShowMemory(L"caf\u00e9");
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, log4cplus::DEBUG_LOG_LEVEL);
    EXPECT_EQ(WithoutNumbers(lines[0].second), "[MemoryInfo] CheckAccepting WorkingSetSize: # QuotaPagedPoolUsage: # "
                                               "QuotaNonPagedPoolUsage: # PagefileUsage: #");
    EXPECT_EQ(lines[0].second.find("WorkingSetSize: 0 "), std::string::npos);
    EXPECT_EQ(lines[1].second.substr(0, 19), "[MemoryInfo] caf? W");
    GetLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    ShowMemory(L"CheckAccepting");
    EXPECT_TRUE(log.Take().empty());
}

} // namespace
} // namespace Vantor::Sentrix
