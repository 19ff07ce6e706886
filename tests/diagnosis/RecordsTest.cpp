#include "tests/support/LogCapture.h"
#include "veyrasvc/diagnosis/DetectParamDecoration.h"
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>
#include <json/value.h>

namespace Vantor::Sentrix {
namespace {

TEST(RecordsTest, ADeviceComesBackFromItsJson) {
    DiagnosisDeviceInfo device("t\"\n", -3);
    device.SetRemoteDeviceInfo("id", "package", "tag", 7);
    const std::string text = device.ToJsonStr();
    EXPECT_EQ(text.find('\n'), std::string::npos);
    DiagnosisDeviceInfo read;
    ASSERT_TRUE(read.FromJsonStr(text));
    EXPECT_EQ(read.GetDeviceType(), "t\"\n");
    EXPECT_EQ(read.GetOperationType(), -3);
    EXPECT_EQ(read.GetDeviceId() + read.GetPackageName() + read.GetAuthTag(), "idpackagetag");
    EXPECT_EQ(read.GetTrelixVersion(), 7);
    ASSERT_TRUE(read.FromJsonStr("{}"));
    EXPECT_EQ(read.ToJsonStr(), DiagnosisDeviceInfo().ToJsonStr()) << "what is missing is reset";
}

TEST(RecordsTest, WhatIsNoRecordLeavesItAsItWasAndIsLogged) {
    const struct {
        const char* text;
        log4cplus::LogLevel level;
        const char* line;
    } cases[] = {
        {"", log4cplus::WARN_LOG_LEVEL, "input jsonStr is empty."},
        {"null", log4cplus::WARN_LOG_LEVEL, "Null Json Value."},
        {"{", log4cplus::ERROR_LOG_LEVEL, "jsonStr[{] err. "},
    };
    for (const auto& one : cases) {
        LogCapture log;
        DiagnosisDeviceInfo device("kept", 1);
        DetectParamDecoration parameters(5, {"kept"}, nullptr);
        EXPECT_FALSE(device.FromJsonStr(one.text));
        EXPECT_FALSE(parameters.FromJsonStr(one.text));
        EXPECT_EQ(device.GetDeviceType() + parameters.GetOperationItems().front(), "keptkept");
        for (const auto& [level, line] : log.Take()) {
            EXPECT_EQ(level, one.level);
            EXPECT_EQ(line.substr(0, std::string(one.line).size()), one.line);
        }
    }
    DiagnosisDeviceInfo device;
    EXPECT_THROW(device.FromJsonStr(R"({"DeviceType":"d","OperationType":"1"})"), Json::LogicError);
    EXPECT_EQ(device.GetDeviceType(), "d") << "read before the fault";
}

TEST(RecordsTest, ParametersShareTheirDeviceUntilTheyAreReadAnew) {
    LogCapture log;
    DetectParamDecoration parameters(2, {"a", "b"}, std::make_shared<DiagnosisDeviceInfo>("pc", 1));
    DetectParamDecoration copy = parameters;
    copy.GetDeviceInfo()->SetDeviceId("seen by both");
    const std::string text = parameters.ToJsonStr();
    EXPECT_NE(text.find(R"("DeviceId":"seen by both")"), std::string::npos);
    EXPECT_NE(text.find(R"("OperationItems":["a","b"])"), std::string::npos);

    ASSERT_TRUE(copy.FromJsonStr(R"({"OperationScene":2})"));
    EXPECT_EQ(copy.GetOperationScene(), 2);
    EXPECT_TRUE(copy.GetOperationItems().empty());
    EXPECT_EQ(copy.GetDeviceInfo()->GetDeviceType(), "");
    EXPECT_EQ(parameters.GetDeviceInfo()->GetDeviceType(), "pc");
    EXPECT_EQ(copy.ToJsonStr().find("OperationItems"), std::string::npos);
    EXPECT_THROW(copy.FromJsonStr(R"({"OperationItems":[{}]})"), Json::LogicError);

    copy.SetDeviceInfo(nullptr);
    log.Take();
    EXPECT_EQ(copy.ToJsonStr(), "");
    EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, "Null Device JsonValue."), 1);
}

TEST(TickCountTest, ItNeverGoesBack) {
    const DWORD before = GetTickCount();
    Sleep(20);
    EXPECT_LT(GetTickCount() - before, DWORD{1} << 31);
    EXPECT_NE(GetTickCount(), before);
}

} // namespace
} // namespace Vantor::Sentrix
