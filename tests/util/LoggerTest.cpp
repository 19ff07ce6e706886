// What the logger does on standard error, as long as no file configures it.
#include "logging/Logger.h"
#include "tests/support/LogCapture.h"
#include "veyrasvc/util/LogStatement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace Vantor::Sentrix {
namespace {

TEST(LoggerTest, TheDefaultOutputLeavesOutTheRoutineThatEveryOtherAppenderGets) {
    GetLogger().setLogLevel(log4cplus::WARN_LOG_LEVEL); // its default
    testing::internal::CaptureStderr();
    LOG_WARN("first " << 1);
    LOG_INFO("below the level");
    LOG_ERROR_ROUTINE("of a healthy bus");
    LOG_WARN_ROUTINE_IF(true, "of a healthy bus");
    LOG_WARN_ROUTINE_IF(false, "of another");
    LOG_ERROR("last");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 3) << written;
    for (const char* line :
         {" WARN  first 1 [LoggerTest.cpp:", " WARN  of another [LoggerTest.cpp:", " ERROR last ["}) {
        EXPECT_NE(written.find(line), std::string::npos) << written;
    }

    const LogCapture capture;
    LOG_ERROR_ROUTINE("of a healthy bus");
    EXPECT_EQ(capture.Errors("of a healthy bus"), 1);
}

} // namespace
} // namespace Vantor::Sentrix
