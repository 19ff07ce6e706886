// Which system this is.
#pragma once

#include "veyrasvc/platform/Export.h"

#include <cstdint>
#include <string>

namespace Vantor::Sentrix {

class SystemQueries;

// The version of the operating system, found once, when the record is made. Newer systems understate theirs to programs
// that were not made for them; the record holds what the system really is. Elsewhere than on Windows it is the level of
// the Windows calls that the library stands on: 10.0, a workstation without service packs.
//
// Threads: any may make one; a record is a plain value.
// Fails: never; what could not be found out is 0.
class VEYRASVC_API SystemVersion {
public:
    SystemVersion();

    // Whether the processor is an x64, whatever this program was built for.
    bool Is64Bit() const { return m_is64Bit; }

    // 0 on nearly every system newer than 5.1: what tells the true version there has no build number in it.
    std::uint32_t GetBuild() const { return m_build; }
    std::uint32_t GetMajor() const { return m_major; }
    std::uint32_t GetMinor() const { return m_minor; }

    // A product's name such as "Windows 7" or "Windows Server 2012"; "Windows" for one without a name of its own here,
    // which are all from 10.0 on.
    std::wstring GetName() const { return m_name; }
    std::uint32_t GetServicePackMajor() const { return m_servicePackMajor; }
    std::uint32_t GetServicePackMinor() const { return m_servicePackMinor; }

    // Compare from left to right; what is not given does not count.
    bool IsAtLeast(std::uint32_t major) const;
    bool IsAtLeast(std::uint32_t major, std::uint32_t minor) const;
    bool IsAtLeast(std::uint32_t major, std::uint32_t minor, std::uint32_t servicePackMajor) const;

private:
    friend void FillVersion(SystemVersion& version, const SystemQueries& queries);

    bool m_is64Bit = false;
    std::uint32_t m_build = 0;
    std::uint32_t m_major = 0;
    std::uint32_t m_minor = 0;
    std::wstring m_name;
    std::uint32_t m_servicePackMajor = 0;
    std::uint32_t m_servicePackMinor = 0;
};

// Whether the system is no workstation: a server or a domain controller.
// Threads: any. Fails: true when the system does not tell.
VEYRASVC_API bool IsServer();

} // namespace Vantor::Sentrix
