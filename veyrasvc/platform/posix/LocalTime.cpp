// GetLocalTime.
#include "veyrasvc/platform/posix/Win32Subset.h"

#include <ctime>

namespace Vantor::Sentrix::Platform {

void GetLocalTime(SYSTEMTIME* now) {
    timespec clock{};
    clock_gettime(CLOCK_REALTIME, &clock);
    tm local{};
    localtime_r(&clock.tv_sec, &local);
    *now = {static_cast<WORD>(local.tm_year + 1900), static_cast<WORD>(local.tm_mon + 1),
            static_cast<WORD>(local.tm_wday),        static_cast<WORD>(local.tm_mday),
            static_cast<WORD>(local.tm_hour),        static_cast<WORD>(local.tm_min),
            static_cast<WORD>(local.tm_sec),         static_cast<WORD>(clock.tv_nsec / 1'000'000)};
}

} // namespace Vantor::Sentrix::Platform
