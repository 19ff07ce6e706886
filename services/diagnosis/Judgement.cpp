#include "services/diagnosis/Judgement.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <set>
#include <sstream>

namespace Vantor::Sentrix::Diagnosis {

namespace {

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

// A full file system slows down from about a tenth left on, and near the end logs and updates fail. A tenth of a large
// disk is plenty, though, so that few bytes must be left as well.
constexpr std::uint64_t kTightPercent = 90;
constexpr std::uint64_t kTightBytes = 50 * kGiB;
constexpr std::uint64_t kFullPercent = 97;
constexpr std::uint64_t kFullBytes = 10 * kGiB;

// Caches do not count as use. What is beyond is lent from the disk, and near the end programs are ended.
constexpr unsigned int kTightMemoryPercent = 90;
constexpr unsigned int kFullMemoryPercent = 97;

// A busy processor is no fault, but all of it in use leaves nothing for who sits in front of it.
constexpr std::uint64_t kBusyPercent = 95;

// Processors slow themselves down between 95 and 105 degrees.
constexpr long kHotMillidegrees = 90'000;
constexpr long kTooHotMillidegrees = 100'000;
// Sensors that are not connected report values such as -273 or 255.
constexpr long kColdestMillidegrees = -40'000;
constexpr long kHottestMillidegrees = 150'000;

// Where systems begin to warn, and where they put themselves to sleep.
constexpr unsigned int kLowBatteryPercent = 20;
constexpr unsigned int kEmptyBatteryPercent = 7;

constexpr std::size_t kNamedAtMost = 5; // in one statement

std::optional<long> NumberIn(const std::string& line) {
    long number = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    return error == std::errc() && end == line.data() + line.size() ? std::optional(number) : std::nullopt;
}

std::string Enumerated(const std::vector<std::string>& names) {
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), kNamedAtMost); ++i) {
        text += (i == 0 ? "" : ", ") + names[i];
    }
    return names.size() > kNamedAtMost ? text + " and " + std::to_string(names.size() - kNamedAtMost) + " more" : text;
}

std::string Counted(std::size_t count, const std::string& noun) {
    return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

std::string Percent(std::uint64_t value) {
    return std::to_string(value) + " %";
}

// ---- Mounts --------------------------------------------------------------------------------------------------------

// Blanks and the like stand as a backslash and three octal digits.
std::string Unescaped(std::string_view field) {
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const std::string_view digits = field.substr(i + 1, 3);
        int value = 0;
        if (field[i] == '\\' && digits.size() == 3 &&
            std::from_chars(digits.data(), digits.data() + 3, value, 8).ptr == digits.data() + 3) {
            text += static_cast<char>(value);
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

// Not those of the network, which may never answer, nor those that live in memory.
bool IsLocal(const std::string& device, const std::string& type, const std::string& mountPoint) {
    return device.starts_with("/dev/") || type == "zfs" || (type == "overlay" && mountPoint == "/");
}

bool IsReadOnly(const std::string& options) {
    return options == "ro" || options.starts_with("ro,");
}

// ---- Space ---------------------------------------------------------------------------------------------------------

std::uint64_t PercentFull(const Volume& volume) {
    const auto all = static_cast<double>(volume.used) + static_cast<double>(volume.available);
    return all > 0 ? static_cast<std::uint64_t>(static_cast<double>(volume.used) * 100 / all) : 0;
}

Outcome OutcomeOf(const Volume& volume) {
    const std::uint64_t percent = PercentFull(volume);
    if (percent >= kFullPercent && volume.available < kFullBytes) {
        return Outcome::Fault;
    }
    return percent >= kTightPercent && volume.available < kTightBytes ? Outcome::Warning : Outcome::Ok;
}

std::string Statement(const Volume& volume) {
    return volume.name + " is " + Percent(PercentFull(volume)) + " full";
}

// True when `a` is worse than `b`.
bool IsWorse(Outcome a, Outcome b) {
    const auto rank = [](Outcome outcome) {
        return outcome == Outcome::Fault ? 2 : outcome == Outcome::Warning ? 1 : 0;
    };
    return rank(a) > rank(b);
}

bool IsOfProcessor(const ThermalZone& zone) {
    std::string type = zone.type;
    std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : static_cast<char>(c);
    });
    constexpr std::string_view kNames[] = {"cpu", "pkg", "core", "soc", "acpitz"};
    return std::any_of(std::begin(kNames), std::end(kNames),
                       [&](std::string_view name) { return type.find(name) != std::string::npos; });
}

} // namespace

std::string ReadableSize(std::uint64_t bytes) {
    constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(kUnits); ++unit) {
        value /= 1024;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit != 0 && value < 10 ? "%.1f %s" : "%.0f %s", value, kUnits[unit]);
    return text;
}

// ---- Storage -------------------------------------------------------------------------------------------------------

std::vector<std::string> WritableMounts(std::string_view mounts) {
    std::vector<std::string> points;
    std::set<std::string> seen;
    std::istringstream lines{std::string(mounts)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string device, point, type, options;
        if (fields >> device >> point >> type >> options && IsLocal(device, type, point) && !IsReadOnly(options) &&
            seen.insert(device).second) {
            points.push_back(Unescaped(point));
        }
    }
    return points;
}

Finding JudgeSpace(const std::vector<Volume>& volumes) {
    if (volumes.empty()) {
        return {Outcome::Unknown, "no local file system tells its size"};
    }
    Outcome worst = Outcome::Ok;
    std::vector<std::string> tight;
    const Volume* fullest = &volumes.front();
    for (const Volume& volume : volumes) {
        const Outcome outcome = OutcomeOf(volume);
        if (outcome != Outcome::Ok) {
            tight.push_back(Statement(volume) + ", " + ReadableSize(volume.available) + " left");
        }
        worst = IsWorse(outcome, worst) ? outcome : worst;
        fullest = PercentFull(volume) > PercentFull(*fullest) ? &volume : fullest;
    }
    return {worst, tight.empty() ? Statement(*fullest) + ", the fullest of " + std::to_string(volumes.size())
                                 : Enumerated(tight)};
}

Finding JudgeDisks(const std::vector<DeviceLine>& states, const std::vector<DeviceLine>& lacking) {
    std::vector<std::string> bad;
    for (const DeviceLine& disk : states) {
        if (disk.line != "running" && disk.line != "live") { // the words of SCSI and of NVMe
            bad.push_back(disk.name + " is " + disk.line);
        }
    }
    for (const DeviceLine& array : lacking) {
        if (array.line != "0") {
            bad.push_back(array.name + " lacks " + array.line + " of its disks");
        }
    }
    if (!bad.empty()) {
        return {Outcome::Fault, Enumerated(bad)};
    }
    if (states.empty() && lacking.empty()) {
        return {Outcome::Unknown, "no disk tells its state"};
    }
    return {Outcome::Ok, Counted(states.size(), "disk") + " and " + Counted(lacking.size(), "array") + " in order"};
}

Finding JudgeErrorCounts(const std::vector<DeviceLine>& counts) {
    std::vector<std::string> bad;
    for (const DeviceLine& count : counts) {
        if (count.line != "0") {
            bad.push_back(count.name + " has met " + count.line + " errors since its last check");
        }
    }
    if (!bad.empty()) {
        return {Outcome::Fault, Enumerated(bad)};
    }
    return counts.empty() ? Finding{Outcome::Unknown, "no file system counts its errors"}
                          : Finding{Outcome::Ok, "no errors on " + Counted(counts.size(), "file system")};
}

// ---- Memory, processor, power --------------------------------------------------------------------------------------

Finding JudgeMemory(unsigned int percentInUse, std::uint64_t bytes) {
    const Outcome outcome = percentInUse >= kFullMemoryPercent    ? Outcome::Fault
                            : percentInUse >= kTightMemoryPercent ? Outcome::Warning
                                                                  : Outcome::Ok;
    return {outcome, Percent(percentInUse) + " of " + ReadableSize(bytes) + " in use"};
}

Finding JudgeLoad(const ProcessorTimes& before, const ProcessorTimes& after) {
    if (after.all <= before.all || after.idle < before.idle || after.idle - before.idle > after.all - before.all) {
        return {Outcome::Unknown, "the processor times do not advance"};
    }
    const std::uint64_t all = after.all - before.all;
    const std::uint64_t percent = (all - (after.idle - before.idle)) * 100 / all;
    return {percent >= kBusyPercent ? Outcome::Warning : Outcome::Ok, Percent(percent) + " busy"};
}

Finding JudgeTemperature(const std::vector<ThermalZone>& zones) {
    std::optional<long> hottest;
    for (const ThermalZone& zone : zones) {
        const auto value = NumberIn(zone.millidegrees);
        if (IsOfProcessor(zone) && value && *value > kColdestMillidegrees && *value < kHottestMillidegrees) {
            hottest = std::max(hottest.value_or(*value), *value);
        }
    }
    if (!hottest) {
        return {Outcome::Unknown, "no sensor tells the processor's temperature"};
    }
    const Outcome outcome = *hottest >= kTooHotMillidegrees ? Outcome::Fault
                            : *hottest >= kHotMillidegrees  ? Outcome::Warning
                                                            : Outcome::Ok;
    return {outcome, std::to_string(*hottest / 1000) + " degrees Celsius"};
}

Finding JudgeBattery(const SYSTEM_POWER_STATUS& power) {
    constexpr BYTE kUnknown = 255;
    constexpr BYTE kNoBattery = 128;
    constexpr BYTE kOnMains = 1;
    if (power.BatteryFlag != kUnknown && (power.BatteryFlag & kNoBattery) != 0) {
        return {Outcome::Ok, "there is no battery"};
    }
    if (power.BatteryLifePercent > 100) {
        return {Outcome::Unknown, "the battery's charge is not known"};
    }
    const unsigned int percent = power.BatteryLifePercent;
    if (power.ACLineStatus == kOnMains) {
        return {Outcome::Ok, Percent(percent) + " charged, on mains"};
    }
    const Outcome outcome = percent <= kEmptyBatteryPercent ? Outcome::Fault
                            : percent <= kLowBatteryPercent ? Outcome::Warning
                                                            : Outcome::Ok;
    return {outcome, Percent(percent) + " charged, on battery"};
}

// ---- Services ------------------------------------------------------------------------------------------------------

Finding JudgeFailedUnits(const std::optional<std::string>& lines) {
    if (!lines) {
        return {Outcome::Unknown, "the system does not tell which services have failed"};
    }
    std::vector<std::string> units;
    std::istringstream text(*lines);
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line);
        if (std::string unit; words >> unit) {
            units.push_back(unit);
        }
    }
    // The machine goes on without them, so they are no fault of it.
    return units.empty() ? Finding{Outcome::Ok, "no service has failed"}
                         : Finding{Outcome::Warning, Counted(units.size(), "unit") + " failed: " + Enumerated(units)};
}

} // namespace Vantor::Sentrix::Diagnosis
