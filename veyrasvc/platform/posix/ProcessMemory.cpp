// K32GetProcessMemoryInfo, from what the kernel counts for a process.
#include "veyrasvc/platform/posix/KernelText.h"
#include "veyrasvc/platform/posix/Process.h"

#include <cstdlib>
#include <string>

namespace Vantor::Sentrix::Platform {

namespace {

// Fields 10 and 12 of the stat line; counted behind the program's name, which may hold anything.
DWORD PageFaults(const std::string& stat) {
    const auto nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos) {
        return 0;
    }
    constexpr int kFirstField = 3;
    constexpr int kMinor = 10;
    constexpr int kMajor = 12;
    unsigned long long faults = 0;
    const char* at = stat.c_str() + nameEnd + 2 + 2; // behind ") S " comes field 4
    for (int field = kFirstField + 1; field <= kMajor; ++field) {
        char* end = nullptr;
        const auto value = std::strtoull(at, &end, 10);
        faults += field == kMinor || field == kMajor ? value : 0;
        at = end;
    }
    return static_cast<DWORD>(faults);
}

void Fill(PROCESS_MEMORY_COUNTERS& counters, const std::string& status, const std::string& stat) {
    counters = {};
    counters.cb = sizeof counters;
    counters.PageFaultCount = PageFaults(stat);
    counters.WorkingSetSize = BytesOf(status, "VmRSS");
    counters.PeakWorkingSetSize = BytesOf(status, "VmHWM");
    // Kernel memory held for the process: its page tables may be counted as paged, pinned pages are not.
    counters.QuotaPagedPoolUsage = BytesOf(status, "VmPTE");
    counters.QuotaPeakPagedPoolUsage = counters.QuotaPagedPoolUsage;
    counters.QuotaNonPagedPoolUsage = BytesOf(status, "VmPin");
    counters.QuotaPeakNonPagedPoolUsage = counters.QuotaNonPagedPoolUsage;
    // What would have to go to swap: the private pages.
    counters.PagefileUsage = BytesOf(status, "RssAnon") + BytesOf(status, "VmSwap");
    counters.PeakPagefileUsage = counters.PagefileUsage;
}

} // namespace

BOOL K32GetProcessMemoryInfo(HANDLE handle, PROCESS_MEMORY_COUNTERS* counters, DWORD size) {
    return IfMemoryLasts(FALSE, [&] {
        if (counters == nullptr || size < sizeof *counters) {
            return Fail(ERROR_INSUFFICIENT_BUFFER);
        }
        std::string folder = "/proc/self";
        std::shared_ptr<Process> process; // keeps the child's number from being given to another process
        if (handle != GetCurrentProcess()) {
            process = Find<Process>(handle);
            if (!process) {
                return FALSE;
            }
            folder = "/proc/" + std::to_string(process->Id());
        }
        std::string status;
        std::string stat;
        if (!ReadWhole(folder + "/status", status) || !ReadWhole(folder + "/stat", stat)) {
            return Fail(ERROR_ACCESS_DENIED);
        }
        Fill(*counters, status, stat);
        return TRUE;
    });
}

} // namespace Vantor::Sentrix::Platform
