// What readings mean: pure functions from what the system tells to a finding.
// Threads: any.
#pragma once

#include "services/diagnosis/Finding.h"
#include "veyrasvc/platform/Win32.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Diagnosis {

// A number of bytes for people, such as "24 GiB".
std::string ReadableSize(std::uint64_t bytes);

// ---- Storage -------------------------------------------------------------------------------------------------------

struct Volume {
    std::string name; // a mount point or a drive
    std::uint64_t used;
    std::uint64_t available; // to ordinary users
};

// The mount points of local file systems that can be written, from the lines of /proc/self/mounts; each device once.
std::vector<std::string> WritableMounts(std::string_view mounts);
Finding JudgeSpace(const std::vector<Volume>& volumes);

// One line that the kernel keeps for a device: `name` is the device's.
struct DeviceLine {
    std::string name;
    std::string line;
};

// Of disks their states, of arrays how many disks they lack.
Finding JudgeDisks(const std::vector<DeviceLine>& states, const std::vector<DeviceLine>& lacking);
// Of file systems how many errors they have met.
Finding JudgeErrorCounts(const std::vector<DeviceLine>& counts);

// ---- Memory, processor, power --------------------------------------------------------------------------------------

Finding JudgeMemory(unsigned int percentInUse, std::uint64_t bytes);

struct ProcessorTimes {
    std::uint64_t idle;
    std::uint64_t all;
};
Finding JudgeLoad(const ProcessorTimes& before, const ProcessorTimes& after);

struct ThermalZone {
    std::string type;
    std::string millidegrees; // Celsius
};
Finding JudgeTemperature(const std::vector<ThermalZone>& zones);

Finding JudgeBattery(const SYSTEM_POWER_STATUS& power);

// ---- Services ------------------------------------------------------------------------------------------------------

// The lines of `systemctl --failed --plain --no-legend`; nothing: it could not tell.
Finding JudgeFailedUnits(const std::optional<std::string>& lines);

} // namespace Vantor::Sentrix::Diagnosis
