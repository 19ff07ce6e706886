// GetNativeSystemInfo, GetProcessAffinityMask and GetSystemMetrics.
#include "veyrasvc/platform/posix/Handle.h"

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
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

// Of this process, as it is on the calling thread: Linux knows it for each thread.
BOOL GetProcessAffinityMask(HANDLE process, ULONG_PTR* ofProcess, ULONG_PTR* ofSystem) {
    constexpr int kBits = 64;
    cpu_set_t allowed;
    if (process != GetCurrentProcess() || ofProcess == nullptr || ofSystem == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        return Fail(ErrorFromErrno(errno));
    }
    *ofProcess = *ofSystem = 0;
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    for (int i = 0; i < kBits; ++i) {
        *ofProcess |= CPU_ISSET(i, &allowed) ? ULONG_PTR{1} << i : 0;
        *ofSystem |= i < online ? ULONG_PTR{1} << i : 0;
    }
    return TRUE;
}

int GetSystemMetrics(int /*index*/) {
    return 0; // what does not exist measures nothing
}

} // namespace Vantor::Sentrix::Platform
