// What the system tells of its version: several ways to ask, which agree as far as they may.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix {
namespace {

template <class Record> BOOL Ask(Record& version, DWORD size) {
    version.dwOSVersionInfoSize = size;
    return GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version));
}

bool IsProductType(BYTE type) {
    OSVERSIONINFOEXW wanted{};
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.wProductType = type;
    const bool is =
        VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != FALSE;
    EXPECT_TRUE(is || GetLastError() == ERROR_OLD_WIN_VERSION) << GetLastError();
    return is;
}

TEST(VersionTest, IsToldToRecordsOfAKnownSize) {
    OSVERSIONINFOEXW version{};
    ASSERT_EQ(sizeof version, 284U);
    ASSERT_TRUE(Ask(version, sizeof version));
    EXPECT_GE(version.dwMajorVersion, 5U);
    EXPECT_EQ(version.dwPlatformId, VER_PLATFORM_WIN32_NT);
    for (const BYTE type : {BYTE{1}, BYTE{2}, BYTE{3}}) { // workstation, domain controller, server
        EXPECT_EQ(IsProductType(type), version.wProductType == type) << int{type};
    }
    OSVERSIONINFOW brief{};
    ASSERT_TRUE(Ask(brief, sizeof brief));
    EXPECT_EQ(brief.dwMajorVersion, version.dwMajorVersion);
    EXPECT_EQ(brief.dwMinorVersion, version.dwMinorVersion);
    EXPECT_FALSE(Ask(version, sizeof version - 1));
}

TEST(VersionTest, StandsInTheNetworksDescriptionAndInASystemFile) {
    BYTE* buffer = nullptr;
    ASSERT_EQ(NetWkstaGetInfo(nullptr, 100, &buffer), NERR_Success);
    const auto* const workstation = reinterpret_cast<const WKSTA_INFO_100*>(buffer);
    EXPECT_EQ(workstation->wki100_platform_id, PLATFORM_ID_NT);
    EXPECT_GE(workstation->wki100_ver_major, 5U);
    EXPECT_NE(std::wstring(workstation->wki100_computername), L"");
    EXPECT_NE(workstation->wki100_langroup, nullptr);

    DWORD unused = 1;
    const DWORD size = GetFileVersionInfoSizeW(L"KERNEL32.dll", &unused);
    ASSERT_GE(size, sizeof(VS_FIXEDFILEINFO));
    EXPECT_EQ(unused, 0U);
    std::vector<BYTE> block(size);
    ASSERT_TRUE(GetFileVersionInfoW(L"KERNEL32.dll", 0, size, block.data()));
    void* root = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", &root, &length));
    ASSERT_EQ(length, sizeof(VS_FIXEDFILEINFO));
    const auto* const file = static_cast<const VS_FIXEDFILEINFO*>(root);
    EXPECT_EQ(file->dwSignature, VS_FFI_SIGNATURE);
    EXPECT_GE(file->dwProductVersionMS, 5U << 16);
    EXPECT_EQ(NetApiBufferFree(buffer), NERR_Success);

    EXPECT_FALSE(VerQueryValueW(block.data(), L"\\NoSuchBlock", &root, &length));
    EXPECT_EQ(GetFileVersionInfoSizeW(L"no-such-file.dll", &unused), 0U);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(NetWkstaGetInfo(nullptr, 99, &buffer), ERROR_INVALID_LEVEL);
}

TEST(VersionTest, TheProcessorIsTheOneThatRunsThis) {
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    EXPECT_TRUE(info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64 ||
                info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_ARM64)
        << info.wProcessorArchitecture;
    EXPECT_GE(info.dwNumberOfProcessors, std::thread::hardware_concurrency()) << "a process may have fewer";
    EXPECT_EQ(info.dwPageSize & (info.dwPageSize - 1), 0U);
    EXPECT_GE(info.dwPageSize, 4096U);
    EXPECT_EQ(GetSystemMetrics(SM_SERVERR2), 0) << "a system of twenty years ago";
}

} // namespace
} // namespace Vantor::Sentrix
