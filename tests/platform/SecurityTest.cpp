// Security descriptors: what can be built, and which texts describe one.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

namespace Vantor::Sentrix {
namespace {

TEST(SecurityTest, TextsAreTakenOrRefused) {
    // The first is the one of every named mutex.
    const wchar_t* const taken[] = {L"D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;AU)(A;OICI;GA;;;BA)",
                                    L"D:(A;;0x1f01ff;;;S-1-5-32-544)", L"D:"};
    const wchar_t* const refused[] = {L"D:(A;;GA;;;WD",    L"D:A;;GA;;;WD)",  L"D:(A;;GA;;WD)",  L"D:(Q;;GA;;;WD)",
                                      L"D:(A;ZZ;GA;;;WD)", L"D:(A;;ZZ;;;WD)", L"D:(A;;GA;;;Q!)", L"D:(A;;GA;;;S-1-)",
                                      L"D(A;;GA;;;WD)",    L"nonsense"};
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    for (const wchar_t* text : taken) {
        EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor, nullptr));
        EXPECT_EQ(LocalFree(descriptor), nullptr);
    }
    for (const wchar_t* text : refused) {
        EXPECT_FALSE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor, nullptr))
            << testing::PrintToString(std::wstring(text));
    }
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
