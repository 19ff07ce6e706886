#include "veyrasvc/bus/SecurityAttribute.h"

#include <gtest/gtest.h>

#include <string>

namespace Vantor::Sentrix {
namespace {

TEST(SecurityAttributeTest, BuildsAttributesThatAPipeTakesAsOftenAsAsked) {
    SecurityAttribute attribute;
    const SECURITY_ATTRIBUTES* const first = attribute.EveryoneSecAttr();
    ASSERT_NE(first, nullptr);
    SECURITY_ATTRIBUTES* const second = attribute.EveryoneSecAttr();
    EXPECT_EQ(second, first);
    EXPECT_NE(second->lpSecurityDescriptor, nullptr);
    EXPECT_FALSE(second->bInheritHandle);
    const std::wstring name = L"\\\\.\\pipe\\veyra-security-" + std::to_wstring(GetCurrentProcessId());
    const HANDLE pipe = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                         PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                                         4096, 4096, 0, second);
    EXPECT_NE(pipe, INVALID_HANDLE_VALUE) << GetLastError();
    CloseHandle(pipe);
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
