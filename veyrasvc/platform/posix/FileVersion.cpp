// Version resources. The only file that has one is "kernel32.dll", whose part this stand-in plays.
#include "veyrasvc/platform/posix/ApiLevel.h"
#include "veyrasvc/platform/posix/Handle.h"

#include <cstring>
#include <cwchar>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr wchar_t kOwnFile[] = L"kernel32.dll";
constexpr DWORD kStructVersion = 0x10000; // 1.0
constexpr DWORD kVersionHigh = DWORD{kApiMajor} << 16 | kApiMinor;

} // namespace

DWORD GetFileVersionInfoSizeW(LPCWSTR file, DWORD* unused) {
    if (unused != nullptr) {
        *unused = 0;
    }
    if (file == nullptr || wcscasecmp(file, kOwnFile) != 0) {
        SetLastError(file == nullptr ? ERROR_INVALID_PARAMETER : ERROR_FILE_NOT_FOUND);
        return 0;
    }
    return sizeof(VS_FIXEDFILEINFO);
}

BOOL GetFileVersionInfoW(LPCWSTR file, DWORD /*unused*/, DWORD size, void* block) {
    if (GetFileVersionInfoSizeW(file, nullptr) == 0) {
        return FALSE;
    }
    if (block == nullptr || size < sizeof(VS_FIXEDFILEINFO)) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    VS_FIXEDFILEINFO version{};
    version.dwSignature = VS_FFI_SIGNATURE;
    version.dwStrucVersion = kStructVersion;
    version.dwFileVersionMS = kVersionHigh;
    version.dwProductVersionMS = kVersionHigh;
    std::memcpy(block, &version, sizeof version);
    return TRUE;
}

BOOL VerQueryValueW(const void* block, LPCWSTR what, void** value, UINT* length) {
    if (std::wcscmp(what, L"\\") != 0) {
        return Fail(ERROR_RESOURCE_TYPE_NOT_FOUND);
    }
    *value = const_cast<void*>(block); // the call gives a reader a pointer that could write
    *length = sizeof(VS_FIXEDFILEINFO);
    return TRUE;
}

} // namespace Vantor::Sentrix::Platform
