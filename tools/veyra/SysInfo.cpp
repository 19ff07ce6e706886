// veyra sysinfo: what the library takes this system for.
#include "tools/support/StandardIo.h"
#include "tools/support/Utf8.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/ServiceCall.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/SystemVersion.h"

#include <CLI/CLI.hpp>
#include <json/value.h>

#include <memory>
#include <string>

namespace Vantor::Sentrix::Tool {

namespace {

struct SysInfo {
    std::string name;
    SystemVersion version;
    bool isServer = false;
    MEMORYSTATUSEX memory{};
};

// Fails: false when the system does not tell of its memory.
bool Ask(SysInfo& info) {
    info.name = Support::Utf8FromWide(info.version.GetName());
    info.isServer = IsServer();
    info.memory.dwLength = sizeof info.memory;
    return GlobalMemoryStatusEx(&info.memory) != FALSE;
}

std::string Dotted(std::uint32_t major, std::uint32_t minor) {
    return std::to_string(major) + '.' + std::to_string(minor);
}

std::string MiB(std::uint64_t bytes) {
    constexpr std::uint64_t kMiB = 1 << 20;
    return std::to_string(bytes / kMiB) + " MiB";
}

std::string Line(std::string label, const std::string& value) {
    constexpr std::size_t kWidth = 14;
    label.resize(kWidth, ' ');
    return label + value + '\n';
}

std::string AsLines(const SysInfo& info) {
    const SystemVersion& version = info.version;
    return Line("name", info.name) + Line("version", Dotted(version.GetMajor(), version.GetMinor())) +
           Line("build", std::to_string(version.GetBuild())) +
           Line("service pack", Dotted(version.GetServicePackMajor(), version.GetServicePackMinor())) +
           Line("processor", version.Is64Bit() ? "x64" : "other than x64") +
           Line("role", info.isServer ? "server" : "workstation") +
           Line("memory", MiB(info.memory.ullTotalPhys) + ", " + MiB(info.memory.ullAvailPhys) + " available");
}

Json::Value AsJson(const SysInfo& info) {
    const SystemVersion& version = info.version;
    Json::Value json;
    json["name"] = info.name;
    json["major"] = version.GetMajor();
    json["minor"] = version.GetMinor();
    json["build"] = version.GetBuild();
    json["servicePackMajor"] = version.GetServicePackMajor();
    json["servicePackMinor"] = version.GetServicePackMinor();
    json["is64Bit"] = version.Is64Bit();
    json["isServer"] = info.isServer;
    json["memoryTotal"] = Json::UInt64{info.memory.ullTotalPhys};
    json["memoryAvailable"] = Json::UInt64{info.memory.ullAvailPhys};
    return json;
}

int Tell(bool json) {
    SysInfo info;
    if (!Ask(info)) {
        Say("the system does not tell of its memory, error " + std::to_string(GetLastError()));
        return kFailed;
    }
    return Support::WriteOutput(json ? JsonLine(AsJson(info)) : AsLines(info)) ? kDone : kFailed;
}

} // namespace

Verb AddSysInfo(CLI::App& program) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* command = program.add_subcommand("sysinfo", "Tell the system's version, role and memory");
    command->footer("Elsewhere than on Windows the version is the level of the Windows calls that stand in: 10.0.");
    command->add_flag("--json", *json, "Print a JSON object, memory in bytes");
    return {command, [json] { return Tell(*json); }};
}

} // namespace Vantor::Sentrix::Tool
