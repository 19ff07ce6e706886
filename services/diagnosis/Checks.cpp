#include "services/diagnosis/Checks.h"

#include "services/diagnosis/Files.h"
#include "services/diagnosis/Judgement.h"
#include "tools/support/ChildProcess.h"
#include "tools/support/Utf8.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Vantor::Sentrix::Diagnosis {

namespace {

using Clock = std::chrono::steady_clock;

// ---- Storage -------------------------------------------------------------------------------------------------------

// Only disks of the machine: the others may be read-only, or far away and silent.
std::vector<std::string> FixedDrives() {
    std::vector<std::string> roots;
    const DWORD drives = GetLogicalDrives();
    for (unsigned int i = 0; i < 26; ++i) {
        const std::string root{static_cast<char>('A' + i), ':', '\\'};
        if ((drives >> i & 1U) != 0 && GetDriveTypeW(Support::WideFromUtf8(root).c_str()) == DRIVE_FIXED) {
            roots.push_back(root);
        }
    }
    return roots;
}

Finding CheckSpace(const std::stop_token& stop) {
    const auto roots =
        HasDriveLetters() ? FixedDrives() : WritableMounts(ReadText("/proc/self/mounts").value_or(std::string()));
    std::vector<Volume> volumes;
    for (const std::string& root : roots) {
        std::error_code error;
        const auto space = std::filesystem::space(Support::PathFromUtf8(root), error);
        if (!error && space.capacity != 0 && space.capacity >= space.free && !stop.stop_requested()) {
            volumes.push_back({root, space.capacity - space.free, space.available});
        }
    }
    return JudgeSpace(volumes);
}

Finding CheckDisks(const std::stop_token& /*stop*/) {
    if (HasDriveLetters()) {
        return JudgeDisks({}, {});
    }
    return JudgeDisks(ReadLines("/sys/block", "", "device/state"), ReadLines("/sys/block", "md", "md/degraded"));
}

Finding CheckFileSystemErrors(const std::stop_token& /*stop*/) {
    return JudgeErrorCounts(HasDriveLetters() ? std::vector<DeviceLine>()
                                              : ReadLines("/sys/fs/ext4", "", "errors_count"));
}

// ---- Memory, processor, power --------------------------------------------------------------------------------------

Finding CheckMemory(const std::stop_token& /*stop*/) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    if (GlobalMemoryStatusEx(&status) == FALSE) {
        return {Outcome::Unknown, "the system does not tell its memory"};
    }
    return JudgeMemory(status.dwMemoryLoad, status.ullTotalPhys);
}

std::uint64_t ValueOf(const FILETIME& time) {
    return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

ProcessorTimes ReadProcessorTimes() {
    FILETIME idle{};
    FILETIME kernel{};
    FILETIME user{};
    if (GetSystemTimes(&idle, &kernel, &user) == FALSE) {
        return {};
    }
    return {ValueOf(idle), ValueOf(kernel) + ValueOf(user)}; // kernel time includes the idle time
}

// Ends early when the stop is asked for.
void Pause(const std::stop_token& stop, std::chrono::milliseconds time) {
    std::mutex mutex;
    std::condition_variable_any never;
    std::unique_lock guard(mutex);
    never.wait_for(guard, stop, time, [] { return false; });
}

Finding CheckLoad(const std::stop_token& stop) {
    constexpr std::chrono::milliseconds kSample{1000}; // a hundred clock ticks
    const ProcessorTimes before = ReadProcessorTimes();
    Pause(stop, kSample);
    return JudgeLoad(before, ReadProcessorTimes());
}

Finding CheckTemperature(const std::stop_token& /*stop*/) {
    std::vector<ThermalZone> zones;
    const std::filesystem::path folder = "/sys/class/thermal";
    if (!HasDriveLetters()) {
        for (const DeviceLine& zone : ReadLines(folder, "thermal_zone", "type")) {
            const std::string text = ReadText(folder / zone.name / "temp").value_or("");
            zones.push_back({zone.line, text.substr(0, text.find('\n'))});
        }
    }
    return JudgeTemperature(zones);
}

Finding CheckBattery(const std::stop_token& /*stop*/) {
    SYSTEM_POWER_STATUS power{};
    if (GetSystemPowerStatus(&power) == FALSE) {
        return {Outcome::Unknown, "the system does not tell its power"};
    }
    return JudgeBattery(power);
}

// ---- Services ------------------------------------------------------------------------------------------------------

// The program's output; nothing when it cannot be run, fails, or takes too long.
std::optional<std::string> OutputOf(const std::string& program, const std::vector<std::string>& arguments,
                                    const std::stop_token& stop) {
    constexpr std::chrono::seconds kPatience{10}; // the manager of a busy machine answers within one
    constexpr DWORD kStepMs = 100;                // how late a stop may be seen
    Support::ChildProcess child;
    if (!child.Start(program, arguments, Support::ChildProcess::Output::PipeAll)) {
        return std::nullopt;
    }
    const auto end = Clock::now() + kPatience;
    std::string text;
    while (!child.AtEnd()) {
        if (stop.stop_requested() || Clock::now() > end) {
            return std::nullopt;
        }
        if (const auto line = child.ReadLine(kStepMs)) {
            text += *line + '\n';
        }
    }
    return child.WaitForExit(kStepMs) == DWORD{0} ? std::optional(text) : std::nullopt;
}

Finding CheckServices(const std::stop_token& stop) {
    std::error_code error;
    for (const char* const program : {"/usr/bin/systemctl", "/bin/systemctl"}) {
        if (!HasDriveLetters() && std::filesystem::exists(program, error)) {
            return JudgeFailedUnits(OutputOf(program, {"--failed", "--plain", "--no-legend", "--no-pager"}, stop));
        }
    }
    return JudgeFailedUnits(std::nullopt);
}

constexpr Check kChecks[] = {
    {"storage.space", CheckSpace},
    {"storage.health", CheckDisks},
    {"memory", CheckMemory},
    {"processor.load", CheckLoad},
    {"processor.temperature", CheckTemperature},
    {"filesystem.errors", CheckFileSystemErrors},
    {"services.failed", CheckServices},
    {"battery", CheckBattery},
};

} // namespace

std::span<const Check> AllChecks() {
    return kChecks;
}

} // namespace Vantor::Sentrix::Diagnosis
