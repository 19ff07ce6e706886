// What a version record is made of: the answers of the system, each behind a function that a test can answer instead.
#pragma once

#include <cstdint>
#include <optional>

namespace Vantor::Sentrix {

class SystemVersion;

struct VersionNumbers {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t build = 0;
};

// What the system says of itself, which may be older than what it is: programs without a manifest are told of the
// last system that had no need of one.
struct ReportedVersion {
    VersionNumbers numbers;
    std::uint32_t servicePackMajor = 0;
    std::uint32_t servicePackMinor = 0;
    unsigned int productType = 0; // 1: workstation
};

// The questions to this system.
// Threads: any.
// Fails: with nothing.
class SystemQueries {
public:
    SystemQueries() = default;
    virtual ~SystemQueries();
    SystemQueries(const SystemQueries&) = delete;
    SystemQueries& operator=(const SystemQueries&) = delete;

    virtual std::optional<ReportedVersion> Reported() const;
    virtual unsigned int Architecture() const;                   // of the processor; 9: x64
    virtual std::optional<VersionNumbers> Workstation() const;   // from the network's description of it; no build
    virtual std::optional<VersionNumbers> KernelLibrary() const; // from the version resource of a system file
    virtual bool IsServerR2() const;
};

// Fills `version` from the answers, whatever it held before.
void FillVersion(SystemVersion& version, const SystemQueries& queries);

// A product's name for a version; empty when there is none. `isServerR2` counts for 5.2 alone.
const wchar_t* DisplayName(std::uint32_t major, std::uint32_t minor, unsigned int productType,
                           unsigned int architecture, bool isServerR2);

} // namespace Vantor::Sentrix
