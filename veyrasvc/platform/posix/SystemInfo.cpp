// GetNativeSystemInfo and GetSystemMetrics.
#include "veyrasvc/platform/posix/Win32Subset.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>

namespace Vantor::Sentrix::Platform {

namespace {

// The kernel's word, not the compiler's: a program may run beneath a kernel of another width.
WORD ProcessorArchitecture() {
    utsname system{};
    if (uname(&system) != 0) {
        return PROCESSOR_ARCHITECTURE_UNKNOWN;
    }
    if (std::strcmp(system.machine, "x86_64") == 0) {
        return PROCESSOR_ARCHITECTURE_AMD64;
    }
    return std::strcmp(system.machine, "aarch64") == 0 ? PROCESSOR_ARCHITECTURE_ARM64 : PROCESSOR_ARCHITECTURE_UNKNOWN;
}

} // namespace

void GetNativeSystemInfo(SYSTEM_INFO* info) {
    *info = {};
    info->wProcessorArchitecture = ProcessorArchitecture();
    info->dwPageSize = static_cast<DWORD>(sysconf(_SC_PAGESIZE));
    info->dwNumberOfProcessors = static_cast<DWORD>(sysconf(_SC_NPROCESSORS_ONLN));
}

int GetSystemMetrics(int /*index*/) {
    return 0; // what does not exist measures nothing
}

} // namespace Vantor::Sentrix::Platform
