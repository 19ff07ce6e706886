#include "veyrasvc/util/MemoryReport.h"

#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/LogStatement.h"

#include <string>

namespace Vantor::Sentrix {

namespace {

std::string Narrowed(const wchar_t* text) {
    constexpr wchar_t kLastAscii = 0x7F;
    std::string narrow;
    for (; text != nullptr && *text != L'\0'; ++text) {
        narrow += *text > L'\0' && *text <= kLastAscii ? static_cast<char>(*text) : '?';
    }
    return narrow;
}

} // namespace

void ShowMemory(const wchar_t* tag) {
    // The counters are worth a few system calls only if somebody reads them.
    if (!IsLogEnabled(LogLevel::Debug)) {
        return;
    }
    PROCESS_MEMORY_COUNTERS counters{};
    if (K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) == FALSE) {
        return;
    }
    LOG_DEBUG("[MemoryInfo] " << Narrowed(tag) << " WorkingSetSize: " << counters.WorkingSetSize
                              << " QuotaPagedPoolUsage: " << counters.QuotaPagedPoolUsage << " QuotaNonPagedPoolUsage: "
                              << counters.QuotaNonPagedPoolUsage << " PagefileUsage: " << counters.PagefileUsage);
}

} // namespace Vantor::Sentrix
