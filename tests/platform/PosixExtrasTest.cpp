// What the stand-in owes to the system it stands on: leave nothing behind, let in who may come in.
#include "tools/support/ChildProcess.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/platform/posix/MutexFile.h"
#include "veyrasvc/platform/posix/SecurityDescriptor.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

namespace Vantor::Sentrix {
namespace {

bool Allows(const wchar_t* text) {
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1,
                                                                     &attributes.lpSecurityDescriptor, nullptr));
    const bool allows = AllowsEveryone(&attributes);
    LocalFree(attributes.lpSecurityDescriptor);
    return allows;
}

TEST(PosixExtras, OnlyADescriptorThatSaysSoAllowsEveryone) {
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    EXPECT_FALSE(AllowsEveryone(&attributes)) << "default security";
    alignas(void*) char descriptor[SECURITY_DESCRIPTOR_MIN_LENGTH];
    EXPECT_TRUE(InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION));
    attributes.lpSecurityDescriptor = descriptor;
    SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE);
    EXPECT_TRUE(AllowsEveryone(&attributes)) << "a list of nothing refuses nobody";

    EXPECT_TRUE(Allows(L"D:(A;;GA;;;WD)"));
    EXPECT_TRUE(Allows(L"D:(A;;GR;;;WD)(A;;GW;;;S-1-1-0)"));
    EXPECT_FALSE(Allows(L"D:"));
    EXPECT_FALSE(Allows(L"D:(A;;GR;;;WD)"));
    EXPECT_FALSE(Allows(L"D:(A;;GA;;;BA)(A;;GA;;;AU)"));
    EXPECT_FALSE(Allows(L"D:(D;;GW;;;WD)(A;;GA;;;WD)"));
    EXPECT_TRUE(Allows(L"D:(A;;GA;;;WD)(D;;GW;;;WD)")) << "the first word counts";
}

TEST(PosixExtras, AMutexFileLeftByAKilledProcessIsAFreshMutexForEveryAccount) {
    const std::wstring name = L"veyra extras " + std::to_wstring(GetCurrentProcessId());
    const std::string narrow(name.begin(), name.end());
    const std::string file = MutexFile::PathFor(narrow);
    Support::ChildProcess child;
    ASSERT_TRUE(child.Start(Support::OwnProgramPath(), {"--hold", narrow}, Support::ChildProcess::Output::Pipe));
    ASSERT_EQ(child.ReadLine(), "holding");
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U) << "whatever the child's umask";
    child.Kill();
    child.WaitForExit();
    ASSERT_EQ(stat(file.c_str(), &status), 0) << "nobody was left to take it away";
    EXPECT_EQ(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, name.c_str());
    EXPECT_EQ(GetLastError(), NO_ERROR);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    EXPECT_NE(stat(file.c_str(), &status), 0) << "it goes with its last handle";
}

TEST(PosixExtras, AChildWithoutAHandleIsNoZombie) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    wchar_t line[] = L"sleep 1000";
    ASSERT_TRUE(CreateProcessW(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information));
    CloseHandle(information.hThread);
    CloseHandle(information.hProcess);
    const auto id = static_cast<pid_t>(information.dwProcessId);
    ASSERT_EQ(kill(id, SIGKILL), 0) << "it has run on, without a handle";
    while (kill(id, 0) == 0) { // a zombie can still be signalled; ends when it has been collected
        Sleep(1);
    }
    EXPECT_EQ(errno, ESRCH);
}

TEST(PosixExtras, AFullDiskIsReported) {
    const HANDLE full = CreateFileW(L"/dev/full", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(full, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    EXPECT_FALSE(WriteFile(full, "x", 1, &written, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    CloseHandle(full);
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    if (argc == 3 && std::strcmp(argv[1], "--hold") == 0) {
        umask(077);
        const std::string name = argv[2];
        CreateMutexW(nullptr, TRUE, std::wstring(name.begin(), name.end()).c_str());
        std::puts("holding");
        std::fflush(stdout);
        Sleep(INFINITE);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
