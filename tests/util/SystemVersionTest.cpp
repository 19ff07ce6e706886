#include "veyrasvc/util/SystemVersion.h"

#include "veyrasvc/util/SystemQueries.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace Vantor::Sentrix {
namespace {

constexpr unsigned int kX64 = 9, kX86 = 0;
constexpr unsigned int kWorkstation = 1, kServer = 3;

using Numbers = std::optional<VersionNumbers>;

// A system that answers as a case says.
struct Answers : SystemQueries {
    std::optional<ReportedVersion> Reported() const override { return reported; }
    unsigned int Architecture() const override { return architecture; }
    Numbers Workstation() const override { return workstation; }
    Numbers KernelLibrary() const override { return library; }
    bool IsServerR2() const override { return true; }
    std::optional<ReportedVersion> reported;
    Numbers workstation, library;
    unsigned int architecture = kX64;
};

SystemVersion Found(const SystemQueries& queries) {
    SystemVersion version;
    FillVersion(version, queries);
    return version;
}

std::wstring Told(const SystemVersion& version) {
    std::wstring told = version.GetName();
    for (const auto number : {version.GetMajor(), version.GetMinor(), version.GetBuild(), version.GetServicePackMajor(),
                              version.GetServicePackMinor()}) {
        told += L' ' + std::to_wstring(number);
    }
    return told + (version.Is64Bit() ? L" x64" : L"");
}

TEST(SystemVersionTest, EveryProductHasItsName) {
    const struct {
        std::uint32_t major, minor;
        const wchar_t* workstation;
        const wchar_t* server;
    } rows[] = {
        {5, 0, L"Windows 2000", L"Windows 2000"},
        {5, 1, L"Windows XP", L"Windows XP"},
        {5, 2, L"Windows XP", L"Windows Server 2003"},
        {6, 0, L"Windows Vista", L"Windows Server 2008"},
        {6, 1, L"Windows 7", L"Windows Server 2008 R2"},
        {6, 2, L"Windows 8", L"Windows Server 2012"},
        {6, 3, L"Windows 8.1", L"Windows Server 2012 R2"},
        {6, 4, L"Windows 10", L"Windows 10"},
        {6, 5, L"", L""},
    };
    for (const auto& row : rows) {
        EXPECT_STREQ(DisplayName(row.major, row.minor, kWorkstation, kX64, true), row.workstation);
        EXPECT_STREQ(DisplayName(row.major, row.minor, kServer, kX64, false), row.server);
    }
    EXPECT_STREQ(DisplayName(5, 2, kWorkstation, kX86, false), L"Windows Server 2003");
}

TEST(SystemVersionTest, WhatIsReportedIsReplacedByWhatIsTrue) {
    const ReportedVersion capped{{6, 2, 9200}, 1, 2, kWorkstation};
    const ReportedVersion server{{5, 2, 3790}, 2, 0, kServer};
    const VersionNumbers ten{10, 0, 7};
    const struct {
        std::optional<ReportedVersion> reported;
        Numbers workstation, library;
        const wchar_t* told;
    } cases[] = {
        {capped, VersionNumbers{6, 3, 0}, ten, L"Windows 8.1 6 3 0 1 2 x64"},
        {capped, {}, ten, L"Windows 10 0 7 1 2 x64"},
        {capped, {}, {}, L"Windows 0 0 0 1 2 x64"},
        {server, VersionNumbers{5, 2, 0}, {}, L"Windows Server 2003 R2 5 2 0 2 0 x64"},
        {ReportedVersion{{5, 1, 2600}, 3, 0, kWorkstation}, ten, ten, L"Windows XP 5 1 2600 3 0 x64"},
        {ReportedVersion{{5, 0, 2195}, 4, 0, kServer}, ten, ten, L"Windows 2000 5 0 2195 4 0"}, // says no more
        {{}, ten, ten, L"Windows 0 0 0 0 0"},
    };
    Answers answers;
    for (const auto& c : cases) {
        answers.reported = c.reported;
        answers.workstation = c.workstation;
        answers.library = c.library;
        EXPECT_EQ(Told(Found(answers)), c.told);
    }
}

TEST(SystemVersionTest, VersionsCompareFromLeftToRight) {
    Answers answers;
    answers.reported = ReportedVersion{{6, 1, 0}, 1, 5, kWorkstation};
    answers.workstation = VersionNumbers{6, 1, 0};
    const SystemVersion seven = Found(answers);
    EXPECT_TRUE(seven.IsAtLeast(6) && seven.IsAtLeast(5, 9) && seven.IsAtLeast(6, 1) && seven.IsAtLeast(5, 9, 9) &&
                seven.IsAtLeast(6, 0, 9) && seven.IsAtLeast(6, 1, 1));
    EXPECT_FALSE(seven.IsAtLeast(7) || seven.IsAtLeast(6, 2) || seven.IsAtLeast(7, 0) || seven.IsAtLeast(6, 1, 2) ||
                 seven.IsAtLeast(6, 2, 0) || seven.IsAtLeast(7, 0, 0));
}

TEST(SystemVersionTest, ThisSystemAnswersEveryQuestion) {
    const SystemQueries system;
    const Numbers workstation = system.Workstation();
    const Numbers library = system.KernelLibrary();
    ASSERT_TRUE(system.Reported() && workstation && library);
    EXPECT_EQ(IsServer(), system.Reported()->productType != kWorkstation);
    const SystemVersion version;
    EXPECT_EQ(std::tuple(version.GetMajor(), version.GetMinor()), std::tuple(workstation->major, workstation->minor));
    EXPECT_TRUE(version.IsAtLeast(5, 1) && library->major >= 5);
}

} // namespace
} // namespace Vantor::Sentrix
