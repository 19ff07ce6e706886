#include "veyrasvc/util/SystemVersion.h"

#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/SystemQueries.h"

#include <tuple>

namespace Vantor::Sentrix {

namespace {

// From here on the system tells of its processor.
constexpr auto kTellsArchitecture = std::make_tuple(5U, 1U);

struct NameRow {
    std::uint32_t major, minor;
    const wchar_t* workstation;
    const wchar_t* server;
};

constexpr NameRow kNames[] = {
    {5, 0, L"Windows 2000", L"Windows 2000"},
    {5, 1, L"Windows XP", L"Windows XP"},
    {6, 0, L"Windows Vista", L"Windows Server 2008"},
    {6, 1, L"Windows 7", L"Windows Server 2008 R2"},
    {6, 2, L"Windows 8", L"Windows Server 2012"},
    {6, 3, L"Windows 8.1", L"Windows Server 2012 R2"},
    {6, 4, L"Windows 10", L"Windows 10"},
};

// Newer than 5.1 the reported version may be one that programs of an older day can bear.
bool MayBeUnderstated(const VersionNumbers& reported) {
    return reported.major > 5 || reported.minor >= 2;
}

VersionNumbers TrueNumbers(const SystemQueries& queries) {
    if (const auto numbers = queries.Workstation()) {
        return *numbers;
    }
    return queries.KernelLibrary().value_or(VersionNumbers{});
}

} // namespace

const wchar_t* DisplayName(std::uint32_t major, std::uint32_t minor, unsigned int productType,
                           unsigned int architecture, bool isServerR2) {
    const bool isWorkstation = productType == VER_NT_WORKSTATION;
    if (major == 5 && minor == 2) { // one version for a server and for the 64-bit workstation before it
        if (isWorkstation && architecture == PROCESSOR_ARCHITECTURE_AMD64) {
            return L"Windows XP";
        }
        return isServerR2 ? L"Windows Server 2003 R2" : L"Windows Server 2003";
    }
    for (const NameRow& row : kNames) {
        if (row.major == major && row.minor == minor) {
            return isWorkstation ? row.workstation : row.server;
        }
    }
    return L"";
}

void FillVersion(SystemVersion& version, const SystemQueries& queries) {
    const ReportedVersion reported = queries.Reported().value_or(ReportedVersion{});
    VersionNumbers numbers = reported.numbers;
    const bool isTold = std::make_tuple(numbers.major, numbers.minor) >= kTellsArchitecture;
    const unsigned int architecture = isTold ? queries.Architecture() : 0;
    if (MayBeUnderstated(numbers)) {
        numbers = TrueNumbers(queries);
    }
    const bool isServerR2 = numbers.major == 5 && numbers.minor == 2 && queries.IsServerR2();
    const std::wstring name = DisplayName(numbers.major, numbers.minor, reported.productType, architecture, isServerR2);
    version.m_is64Bit = architecture == PROCESSOR_ARCHITECTURE_AMD64;
    version.m_build = numbers.build;
    version.m_major = numbers.major;
    version.m_minor = numbers.minor;
    version.m_name = name.empty() ? L"Windows" : name;
    version.m_servicePackMajor = reported.servicePackMajor;
    version.m_servicePackMinor = reported.servicePackMinor;
}

SystemVersion::SystemVersion() {
    FillVersion(*this, SystemQueries());
}

bool SystemVersion::IsAtLeast(std::uint32_t major) const {
    return m_major >= major;
}

bool SystemVersion::IsAtLeast(std::uint32_t major, std::uint32_t minor) const {
    return std::tie(m_major, m_minor) >= std::tie(major, minor);
}

bool SystemVersion::IsAtLeast(std::uint32_t major, std::uint32_t minor, std::uint32_t servicePackMajor) const {
    return std::tie(m_major, m_minor, m_servicePackMajor) >= std::tie(major, minor, servicePackMajor);
}

bool IsServer() {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    version.wProductType = VER_NT_WORKSTATION;
    return VerifyVersionInfoW(&version, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) == FALSE;
}

} // namespace Vantor::Sentrix
