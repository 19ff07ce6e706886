#include "bench/compare/Machine.h"

#include "bench/compare/Processes.h"

#include <unistd.h>

#include <cctype>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

namespace Vantor::Sentrix::Compare {

namespace {

namespace Folder = std::filesystem;

std::string PathOf(pid_t process) {
    return "/proc/" + std::to_string(process);
}

std::vector<std::string> NamesIn(const std::string& path) {
    std::vector<std::string> names;
    std::error_code error;
    for (Folder::directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
        names.push_back(at->path().filename().string());
    }
    return names;
}

// The number after `key`, which begins a line.
double NumberAfter(const std::string& text, const std::string& key) {
    const std::size_t at = text.find('\n' + key);
    double number = 0;
    if (at != std::string::npos) {
        std::istringstream(text.substr(at + 1 + key.size())) >> number;
    }
    return number;
}

// The fields of /proc/PROCESS/stat, numbered as in proc(5), which matter here.
struct Stat {
    double parent = 0;
    double own = 0;      // user and system time, in ticks
    double children = 0; // of ended children that were waited for
};

Stat StatOf(const std::string& path) {
    constexpr int kFirstAfterName = 3;
    constexpr int kParent = 4;
    constexpr int kUserTime = 14;
    constexpr int kChildrenSystemTime = 17;
    Stat stat;
    const std::string text = ReadTextFile(path + "/stat");
    const std::size_t nameEnd = text.rfind(')'); // the name may hold anything
    if (nameEnd == std::string::npos) {
        return stat;
    }
    std::istringstream fields(text.substr(nameEnd + 1));
    std::string state;
    fields >> state;
    for (int field = kFirstAfterName + 1; field <= kChildrenSystemTime; ++field) {
        double number = 0;
        fields >> number;
        if (field == kParent) {
            stat.parent = number;
        } else if (field >= kUserTime) {
            (field < kUserTime + 2 ? stat.own : stat.children) += number;
        }
    }
    return stat;
}

double TicksPerSecond() {
    static const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    return ticks;
}

// To the nanosecond, where ticks are hundredths of a second.
double ProcessorSeconds(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        return 0;
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// The eighth number of the first line.
double StolenTicks() {
    std::istringstream line(ReadTextFile("/proc/stat"));
    std::string name;
    double number = 0;
    line >> name;
    for (int field = 0; field < 8; ++field) {
        line >> number;
    }
    return number;
}

} // namespace

Usage& Usage::operator+=(const Usage& other) {
    cpuSeconds += other.cpuSeconds;
    switches += other.switches;
    threads += other.threads;
    return *this;
}

Usage Usage::Since(const Usage& before) const {
    return {cpuSeconds - before.cpuSeconds, switches - before.switches, threads};
}

Usage UsageOf(pid_t process) {
    Usage usage;
    usage.cpuSeconds = ProcessorSeconds(process);
    const std::string tasks = PathOf(process) + "/task/";
    for (const std::string& thread : NamesIn(tasks)) {
        const std::string status = ReadTextFile(tasks + thread + "/status");
        usage.switches += NumberAfter(status, "voluntary_ctxt_switches:");
        usage.switches += NumberAfter(status, "nonvoluntary_ctxt_switches:");
        usage.threads += 1;
    }
    return usage;
}

Memory MemoryOf(pid_t process) {
    constexpr double kKiBPerMiB = 1024;
    const std::string status = ReadTextFile(PathOf(process) + "/status");
    return {NumberAfter(status, "VmRSS:") / kKiBPerMiB, NumberAfter(status, "RssAnon:") / kKiBPerMiB,
            NumberAfter(status, "VmHWM:") / kKiBPerMiB};
}

double ForeignCpuSeconds() {
    const std::string self = std::to_string(getpid());
    double ticks = StolenTicks();
    for (const std::string& name : NamesIn("/proc")) {
        if (std::isdigit(static_cast<unsigned char>(name[0])) != 0 && name != self) {
            const Stat stat = StatOf("/proc/" + name);
            ticks += stat.parent == getpid() ? 0 : stat.own + stat.children;
        }
    }
    return ticks / TicksPerSecond();
}

} // namespace Vantor::Sentrix::Compare
