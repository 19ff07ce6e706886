// What the system tells of its version: several ways to ask, which agree as far as they may.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <ios>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix {
namespace {

TEST(VersionTest, IsToldToRecordsOfAKnownSize) {
    OSVERSIONINFOEXW version{};
    ASSERT_EQ(sizeof version, 284U);
    for (const DWORD size : {283U, 276U, 284U}) {
        version.dwOSVersionInfoSize = size;
        const BOOL isTold = GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version));
        EXPECT_EQ(isTold != FALSE, size != 283U) << size;
        EXPECT_EQ(version.dwMajorVersion >= 5, isTold != FALSE) << size;
    }
    EXPECT_EQ(version.dwPlatformId, VER_PLATFORM_WIN32_NT);
    for (const BYTE type : {BYTE{1}, BYTE{2}, BYTE{3}}) { // workstation, domain controller, server
        OSVERSIONINFOEXW wanted{};
        wanted.dwOSVersionInfoSize = sizeof wanted;
        wanted.wProductType = type;
        const auto isEqual = VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL);
        const bool is = VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, isEqual) != FALSE;
        EXPECT_TRUE(is || GetLastError() == ERROR_OLD_WIN_VERSION) << GetLastError();
        EXPECT_EQ(is, version.wProductType == type) << int{type};
    }
}

// What they answer is looked at where it is used, in the version record.
TEST(VersionTest, TheNetworkAndSystemFilesAreAskedForWhatTheyHave) {
    BYTE* buffer = nullptr;
    EXPECT_EQ(NetWkstaGetInfo(nullptr, 99, &buffer), ERROR_INVALID_LEVEL);
    ASSERT_EQ(NetWkstaGetInfo(nullptr, 100, &buffer), NERR_Success);
    const auto* const workstation = reinterpret_cast<const WKSTA_INFO_100*>(buffer);
    EXPECT_EQ(workstation->wki100_platform_id, PLATFORM_ID_NT);
    EXPECT_NE(std::wstring(workstation->wki100_computername), L"");
    EXPECT_NE(workstation->wki100_langroup, nullptr);
    EXPECT_EQ(NetApiBufferFree(buffer), NERR_Success);

    DWORD unused = 1;
    std::vector<BYTE> block(GetFileVersionInfoSizeW(L"KERNEL32.dll", &unused));
    EXPECT_EQ(unused, 0U);
    ASSERT_TRUE(GetFileVersionInfoW(L"KERNEL32.dll", 0, static_cast<DWORD>(block.size()), block.data()));
    void* root = nullptr;
    UINT length = 0;
    EXPECT_FALSE(VerQueryValueW(block.data(), L"\\NoSuchBlock", &root, &length));
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", &root, &length));
    ASSERT_EQ(length, sizeof(VS_FIXEDFILEINFO));
    EXPECT_EQ(static_cast<const VS_FIXEDFILEINFO*>(root)->dwSignature, VS_FFI_SIGNATURE);
    EXPECT_EQ(GetFileVersionInfoSizeW(L"no-such-file.dll", &unused), 0U);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(VersionTest, TheProcessorIsTheOneThatRunsThis) {
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    EXPECT_TRUE(info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64 ||
                info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_ARM64);
    EXPECT_GE(info.dwNumberOfProcessors, std::thread::hardware_concurrency()) << "a process may have fewer";
    EXPECT_EQ(info.dwPageSize % 4096, 0U);
    ULONG_PTR allowed = 0;
    ULONG_PTR all = 0;
    ASSERT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &allowed, &all));
    constexpr DWORD kBits = 64; // a larger system has more processors than a mask
    EXPECT_EQ(std::popcount(all), static_cast<int>(std::min(info.dwNumberOfProcessors, kBits)));
    EXPECT_TRUE(allowed != 0 || info.dwNumberOfProcessors > kBits);
    EXPECT_EQ(allowed & ~all, 0U) << std::hex << allowed << " of " << all;
    EXPECT_EQ(GetSystemMetrics(SM_SERVERR2), 0) << "a system of twenty years ago";
}

} // namespace
} // namespace Vantor::Sentrix
