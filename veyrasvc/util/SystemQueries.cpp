#include "veyrasvc/util/SystemQueries.h"

#include "veyrasvc/platform/Win32.h"

#include <vector>

namespace Vantor::Sentrix {

namespace {

constexpr wchar_t kKernelLibrary[] = L"kernel32.dll";
constexpr DWORD kWorkstationLevel = 100;

constexpr std::uint32_t HighWord(DWORD value) {
    return value >> 16;
}

constexpr std::uint32_t LowWord(DWORD value) {
    return value & 0xFFFF;
}

} // namespace

SystemQueries::~SystemQueries() = default;

std::optional<ReportedVersion> SystemQueries::Reported() const {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    if (GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)) == FALSE) {
        return std::nullopt;
    }
    return ReportedVersion{{version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber},
                           version.wServicePackMajor,
                           version.wServicePackMinor,
                           version.wProductType};
}

unsigned int SystemQueries::Architecture() const {
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    return info.wProcessorArchitecture;
}

std::optional<VersionNumbers> SystemQueries::Workstation() const {
    BYTE* buffer = nullptr;
    if (NetWkstaGetInfo(nullptr, kWorkstationLevel, &buffer) != NERR_Success || buffer == nullptr) {
        return std::nullopt;
    }
    const auto* const info = reinterpret_cast<const WKSTA_INFO_100*>(buffer);
    const VersionNumbers numbers{info->wki100_ver_major, info->wki100_ver_minor, 0};
    NetApiBufferFree(buffer);
    return numbers;
}

std::optional<VersionNumbers> SystemQueries::KernelLibrary() const {
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeW(kKernelLibrary, &unused);
    std::vector<BYTE> block(size);
    void* root = nullptr;
    UINT length = 0;
    if (size == 0 || GetFileVersionInfoW(kKernelLibrary, 0, size, block.data()) == FALSE ||
        VerQueryValueW(block.data(), L"\\", &root, &length) == FALSE || length < sizeof(VS_FIXEDFILEINFO)) {
        return std::nullopt;
    }
    const auto* const version = static_cast<const VS_FIXEDFILEINFO*>(root);
    return VersionNumbers{HighWord(version->dwProductVersionMS), LowWord(version->dwProductVersionMS),
                          HighWord(version->dwProductVersionLS)};
}

bool SystemQueries::IsServerR2() const {
    return GetSystemMetrics(SM_SERVERR2) != 0;
}

} // namespace Vantor::Sentrix
