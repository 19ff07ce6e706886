// What the machine has and how busy it is, from what the kernel counts.
#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/KernelText.h"

#include <unistd.h>

#include <sstream>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr std::uint64_t kFileTimeTicksPerSecond = 10'000'000; // of 100 ns
constexpr std::uint64_t kUserAddressSpace = std::uint64_t{1} << 47;

FILETIME FileTimeOf(std::uint64_t clockTicks) {
    static const auto perSecond = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    const std::uint64_t value = clockTicks * kFileTimeTicksPerSecond / perSecond;
    return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

} // namespace

BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) {
    return IfMemoryLasts(FALSE, [&] {
        if (status == nullptr || status->dwLength != sizeof *status) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
        std::string text;
        if (!ReadWhole("/proc/meminfo", text) || BytesOf(text, "MemTotal") == 0) {
            return Fail(ERROR_GEN_FAILURE);
        }
        status->ullTotalPhys = BytesOf(text, "MemTotal");
        status->ullAvailPhys = BytesOf(text, "MemAvailable");
        status->dwMemoryLoad =
            static_cast<DWORD>((status->ullTotalPhys - status->ullAvailPhys) * 100 / status->ullTotalPhys);
        // The page file of Windows counts what may be committed in all: memory and swap.
        status->ullTotalPageFile = status->ullTotalPhys + BytesOf(text, "SwapTotal");
        status->ullAvailPageFile = status->ullAvailPhys + BytesOf(text, "SwapFree");
        status->ullTotalVirtual = kUserAddressSpace;
        status->ullAvailVirtual = kUserAddressSpace;
        std::string own;
        if (ReadWhole("/proc/self/status", own)) {
            status->ullAvailVirtual -= BytesOf(own, "VmSize");
        }
        status->ullAvailExtendedVirtual = 0;
        return TRUE;
    });
}

BOOL GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) {
    return IfMemoryLasts(FALSE, [&] {
        std::string text;
        if (!ReadWhole("/proc/stat", text)) {
            return Fail(ERROR_GEN_FAILURE);
        }
        std::istringstream line(text);
        std::string name;
        std::uint64_t userTicks = 0, nice = 0, system = 0, idleTicks = 0, ioWait = 0, irq = 0, softIrq = 0, steal = 0;
        line >> name >> userTicks >> nice >> system >> idleTicks >> ioWait >> irq >> softIrq >> steal;
        if (!line || name != "cpu") {
            return Fail(ERROR_GEN_FAILURE);
        }
        const std::uint64_t waiting = idleTicks + ioWait;
        if (idle != nullptr) {
            *idle = FileTimeOf(waiting);
        }
        if (kernel != nullptr) { // as on Windows, idle time is kernel time
            *kernel = FileTimeOf(system + irq + softIrq + steal + waiting);
        }
        if (user != nullptr) {
            *user = FileTimeOf(userTicks + nice);
        }
        return TRUE;
    });
}

DWORD GetLogicalDrives() {
    return 0; // no drive has a letter
}

UINT GetDriveTypeW(LPCWSTR /*root*/) {
    return DRIVE_NO_ROOT_DIR;
}

} // namespace Vantor::Sentrix::Platform
