// Libraries that are looked for at run time, and the variables that may ask for them.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <string>

namespace Vantor::Sentrix {
namespace {

#include "LoggerLibraries.inc"

TEST(LibraryTest, ALibraryIsFoundOnceItIsLoadedAndItsFunctionsByName) {
    EXPECT_EQ(GetModuleHandleA("veyra-there-is-none"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(LoadLibraryA("veyra-there-is-none"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);

    const auto library = LoadLibraryA(kLoggerLibrary);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(GetModuleHandleA(kLoggerLibrary), library);
    EXPECT_NE(GetProcAddress(library, "VeyraIsLogEnabled"), nullptr);
    EXPECT_EQ(GetProcAddress(library, "there_is_none"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
}

TEST(LibraryTest, AVariableIsReadWholeOrItsSizeIsTold) {
    char value[4] = "---";
    EXPECT_EQ(GetEnvironmentVariableA("VEYRA_NOT_SET", value, sizeof value), 0U);
    EXPECT_EQ(GetLastError(), ERROR_ENVVAR_NOT_FOUND);
    ASSERT_TRUE(SetEnvironmentVariableW(L"VEYRA_SET", L"four"));
    EXPECT_EQ(GetEnvironmentVariableA("VEYRA_SET", value, sizeof value), 5U);
    ASSERT_TRUE(SetEnvironmentVariableW(L"VEYRA_SET", L"two"));
    EXPECT_EQ(GetEnvironmentVariableA("VEYRA_SET", value, sizeof value), 3U);
    EXPECT_STREQ(value, "two");
}

} // namespace
} // namespace Vantor::Sentrix
