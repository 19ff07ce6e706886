// GetVersionExW and VerifyVersionInfoW.
#include "veyrasvc/platform/posix/ApiLevel.h"
#include "veyrasvc/platform/posix/Handle.h"

#include <cstring>

namespace Vantor::Sentrix::Platform {

namespace {

// Three bits a question, in the order of the questions' own bits.
constexpr ULONGLONG kProductTypeIsEqual = ULONGLONG{VER_EQUAL} << (7 * 3);

} // namespace

BOOL GetVersionExW(OSVERSIONINFOW* version) {
    const DWORD size = version->dwOSVersionInfoSize;
    if (size != sizeof(OSVERSIONINFOW) && size != sizeof(OSVERSIONINFOEXW)) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    OSVERSIONINFOEXW own{};
    own.dwOSVersionInfoSize = size;
    own.dwMajorVersion = kApiMajor;
    own.dwMinorVersion = kApiMinor;
    own.dwPlatformId = VER_PLATFORM_WIN32_NT;
    own.wProductType = VER_NT_WORKSTATION;
    std::memcpy(static_cast<void*>(version), &own, size); // the short record is the beginning of the long one
    return TRUE;
}

ULONGLONG VerSetConditionMask(ULONGLONG conditions, DWORD typeMask, BYTE condition) {
    return typeMask == VER_PRODUCT_TYPE && condition == VER_EQUAL ? conditions | kProductTypeIsEqual : 0;
}

BOOL VerifyVersionInfoW(OSVERSIONINFOEXW* version, DWORD typeMask, ULONGLONG conditions) {
    if (version == nullptr || typeMask != VER_PRODUCT_TYPE || conditions != kProductTypeIsEqual) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    return version->wProductType == VER_NT_WORKSTATION ? TRUE : Fail(ERROR_OLD_WIN_VERSION);
}

} // namespace Vantor::Sentrix::Platform
