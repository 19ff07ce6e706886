// NetWkstaGetInfo: what this machine calls itself on the network.
#include "veyrasvc/platform/posix/ApiLevel.h"
#include "veyrasvc/platform/posix/Utf8.h"

#include <limits.h>
#include <unistd.h>

#include <cwchar>
#include <new>
#include <string>

namespace Vantor::Sentrix::Platform {

namespace {

// One block, as NetApiBufferFree frees one.
struct Workstation {
    WKSTA_INFO_100 info{};
    wchar_t computerName[HOST_NAME_MAX + 1]{};
    wchar_t group[1]{};
};

std::wstring HostName() {
    char name[HOST_NAME_MAX + 1] = {};
    std::wstring wide;
    if (gethostname(name, sizeof name - 1) == 0) {
        Utf8ToWide(name, wide);
    }
    return wide;
}

} // namespace

NET_API_STATUS NetWkstaGetInfo(LPWSTR server, DWORD level, BYTE** buffer) {
    if (buffer == nullptr || server != nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (level != 100) {
        return ERROR_INVALID_LEVEL;
    }
    auto* const block = new (std::nothrow) Workstation;
    if (block == nullptr) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    HostName().copy(block->computerName, HOST_NAME_MAX);
    block->info = {PLATFORM_ID_NT, block->computerName, block->group, kApiMajor, kApiMinor};
    *buffer = reinterpret_cast<BYTE*>(block);
    return NERR_Success;
}

NET_API_STATUS NetApiBufferFree(void* buffer) {
    delete static_cast<Workstation*>(buffer);
    return NERR_Success;
}

} // namespace Vantor::Sentrix::Platform
