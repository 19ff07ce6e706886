// Security descriptors: what can be built, and which texts describe one.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

namespace Vantor::Sentrix {
namespace {

TEST(SecurityTest, TextsAreTakenOrRefused) {
    struct Case {
        const wchar_t* text;
        bool isTaken;
    };
    const Case cases[] = {
        {L"D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;AU)(A;OICI;GA;;;BA)", true},
        {L"D:(A;;GA;;;WD)", true},
        {L"D:PAI(A;;GRGW;;;SY)", true},
        {L"D:(A;;0x1f01ff;;;S-1-5-32-544)", true},
        {L"D:(A;;GA;;;S-1-1-0)", true},
        {L"D:", true},
        {L"D:(A;;GA;;;WD", false},
        {L"D:A;;GA;;;WD)", false},
        {L"D:(A;;GA;;WD)", false},
        {L"D:(Q;;GA;;;WD)", false},
        {L"D:(A;ZZ;GA;;;WD)", false},
        {L"D:(A;;ZZ;;;WD)", false},
        {L"D:(A;;GA;;;Q!)", false},
        {L"D:(A;;GA;;;S-1-)", false},
        {L"D(A;;GA;;;WD)", false},
        {L"nonsense", false},
    };
    for (const Case& one : cases) {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        SetLastError(NO_ERROR);
        const BOOL taken =
            ConvertStringSecurityDescriptorToSecurityDescriptorW(one.text, SDDL_REVISION_1, &descriptor, nullptr);
        EXPECT_EQ(taken != FALSE, one.isTaken) << testing::PrintToString(std::wstring(one.text));
        if (taken != FALSE) {
            EXPECT_EQ(LocalFree(descriptor), nullptr);
        } else {
            EXPECT_NE(GetLastError(), NO_ERROR);
        }
    }
}

TEST(SecurityTest, CallsRefuseWhatTheyCannotUse) {
    SID_IDENTIFIER_AUTHORITY world = {{0, 0, 0, 0, 0, 1}};
    PSID sid = nullptr;
    EXPECT_FALSE(AllocateAndInitializeSid(&world, 9, 0, 0, 0, 0, 0, 0, 0, 0, &sid));
    alignas(void*) char descriptor[SECURITY_DESCRIPTOR_MIN_LENGTH] = {};
    EXPECT_FALSE(InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION + 1));
    EXPECT_FALSE(SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE)) << "it was never initialised";
    EXPECT_TRUE(InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_TRUE(SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE));
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
