// GetSystemPowerStatus, from the power supplies that the kernel knows.
#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/KernelText.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr BYTE kUnknown = 255;
constexpr BYTE kHigh = 1;     // more than 66 %
constexpr BYTE kLow = 2;      // less than 33 %
constexpr BYTE kCritical = 4; // less than 5 %
constexpr BYTE kCharging = 8;
constexpr BYTE kNoBattery = 128;
constexpr DWORD kUnknownTime = 0xFFFFFFFF;

std::string Line(const std::filesystem::path& file) {
    std::string text;
    ReadWhole(file.string(), text);
    return text.substr(0, text.find('\n'));
}

BYTE FlagOf(BYTE percent) {
    return percent > 66 ? kHigh : percent < 5 ? kCritical : percent < 33 ? kLow : 0;
}

// Of several batteries the emptiest is told: it is the first to be missed.
void AddBattery(SYSTEM_POWER_STATUS& status, const std::filesystem::path& supply) {
    const std::string capacity = Line(supply / "capacity");
    const std::string state = Line(supply / "status");
    if (status.BatteryFlag == kNoBattery) {
        status.BatteryFlag = kUnknown;
    }
    if (state == "Discharging") {
        status.ACLineStatus = 0;
    }
    const BYTE percent = static_cast<BYTE>(std::clamp(std::atoi(capacity.c_str()), 0, 100));
    if (!capacity.empty() && percent < status.BatteryLifePercent) {
        status.BatteryLifePercent = percent;
        status.BatteryFlag = static_cast<BYTE>(FlagOf(percent) | (state == "Charging" ? kCharging : 0));
    }
}

} // namespace

BOOL GetSystemPowerStatus(SYSTEM_POWER_STATUS* status) {
    return IfMemoryLasts(FALSE, [&] {
        if (status == nullptr) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
        *status = {kUnknown, kUnknown, kUnknown, 0, kUnknownTime, kUnknownTime};
        std::error_code error;
        std::filesystem::directory_iterator supply("/sys/class/power_supply", error);
        if (error) {
            return TRUE; // all is unknown
        }
        status->BatteryFlag = kNoBattery;
        for (; !error && supply != std::filesystem::directory_iterator(); supply.increment(error)) {
            const std::string type = Line(supply->path() / "type");
            const bool ofDevice = Line(supply->path() / "scope") == "Device"; // a mouse has a battery too
            if (type == "Battery" && !ofDevice) {
                AddBattery(*status, supply->path());
            } else if (type == "Mains" && status->ACLineStatus == kUnknown) {
                status->ACLineStatus = Line(supply->path() / "online") == "1" ? 1 : 0;
            }
        }
        if (status->BatteryFlag == kNoBattery) {
            status->ACLineStatus = 1; // what else does it run on
        }
        return TRUE;
    });
}

} // namespace Vantor::Sentrix::Platform
