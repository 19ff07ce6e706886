// What the stand-in owes to the system it stands on: leave nothing behind, let in who may come in. And what it keeps of
// Windows although not every Windows does.
#include "tests/platform/Pipes.h"
#include "veyrasvc/bus/SecurityAttribute.h"
#include "veyrasvc/platform/posix/MutexFile.h"
#include "veyrasvc/platform/posix/PoolGrowth.h"
#include "veyrasvc/platform/posix/SecurityDescriptor.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <deque>
#include <mutex>
#include <set>
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
    EXPECT_TRUE(AllowsEveryone(SecurityAttribute().EveryoneSecAttr()));
    EXPECT_TRUE(Allows(L"D:(A;;GA;;;WD)"));
    EXPECT_TRUE(Allows(L"D:(A;;GR;;;WD)(A;;GW;;;S-1-1-0)"));
    EXPECT_FALSE(Allows(L"D:"));
    EXPECT_FALSE(Allows(L"D:(A;;GR;;;WD)"));
    EXPECT_FALSE(Allows(L"D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;AU)(A;OICI;GA;;;BA)")) << "named mutexes";
    EXPECT_FALSE(Allows(L"D:(D;;GW;;;WD)(A;;GA;;;WD)"));
    EXPECT_TRUE(Allows(L"D:(A;;GA;;;WD)(D;;GW;;;WD)")) << "the first word counts";
    for (const wchar_t* refused : {L"D:(A;;GA;;;WD", L"D:(A;;ZZ;;;WD)", L"D:(A;;GA;;;Q!)", L"nonsense"}) {
        EXPECT_FALSE(ConvertStringSecurityDescriptorToSecurityDescriptorW(refused, SDDL_REVISION_1,
                                                                          &attributes.lpSecurityDescriptor, nullptr));
    }
}

TEST(PosixExtras, AMutexFileLeftByAKilledProcessIsAFreshMutexForEveryAccount) {
    const std::wstring name = L"veyra extras " + std::to_wstring(GetCurrentProcessId());
    const std::string file = MutexFile::PathFor({name.begin(), name.end()});
    const pid_t child = fork();
    if (child == 0) {
        umask(077);
        CreateMutexW(nullptr, TRUE, name.c_str());
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0) << "nobody was left to take it away";
    EXPECT_EQ(status.st_mode & 0777U, 0666U) << "whatever the child's umask";
    EXPECT_EQ(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, name.c_str());
    EXPECT_EQ(GetLastError(), NO_ERROR);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    EXPECT_NE(stat(file.c_str(), &status), 0) << "it goes with its last handle";
}

TEST(PosixExtras, AChildHasTheStreamsItWasGivenAndIsNoZombieWithoutAHandle) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE in = nullptr;
    HANDLE out = nullptr;
    ASSERT_TRUE(CreatePipe(&startup.hStdInput, &in, &inheritable, 0));
    ASSERT_TRUE(CreatePipe(&out, &startup.hStdOutput, &inheritable, 0));
    PROCESS_INFORMATION child{};
    wchar_t line[] = L"cat";
    ASSERT_TRUE(CreateProcessW(nullptr, line, nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child));
    for (const HANDLE unneeded : {startup.hStdInput, startup.hStdOutput, child.hThread, child.hProcess}) {
        CloseHandle(unneeded);
    }
    char text[8] = {};
    DWORD count = 0;
    EXPECT_TRUE(WriteFile(in, "copied", 6, &count, nullptr));
    EXPECT_TRUE(ReadFile(out, text, sizeof text, &count, nullptr));
    EXPECT_STREQ(text, "copied");
    const auto id = static_cast<pid_t>(child.dwProcessId);
    ASSERT_EQ(kill(id, SIGKILL), 0);
    while (kill(id, 0) == 0) { // a zombie can still be signalled; ends when it has been collected
        Sleep(1);
    }
    EXPECT_EQ(errno, ESRCH);
    EXPECT_FALSE(ReadFile(out, text, sizeof text, &count, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_BROKEN_PIPE);
    EXPECT_FALSE(WriteFile(in, "x", 1, &count, nullptr)) << "and no signal ends the writer";
    CloseHandle(in);
    CloseHandle(out);
}

TEST(PosixExtras, APoolDoublesWhileItsThreadsAreBlockedAndElseGrowsAtItsPace) {
    PoolGrowth growth;
    std::size_t busy = 2;
    for (const std::size_t added : {2, 4, 8, 16, 32, 0}) {
        EXPECT_EQ(growth.Add(1000, 64 - busy, busy, false), added) << busy;
        busy += added;
    }
    std::size_t added = 0;
    for (std::int64_t now = 2000; now < 2100; ++now) {
        added += growth.Add(now, 300, 2, true);
    }
    EXPECT_EQ(added, 10U) << "a few, for one that computes for long";
    EXPECT_EQ(growth.Add(2100, 0, 2, true), 0U);
    EXPECT_EQ(growth.Add(2101, 300, 20, false), 20U);
}

// Items that compute are not blocked, although none of them ends for many ticks: more threads would not help them.
TEST(PosixExtras, APoolWhoseThreadsComputeDoesNotExplode) {
    constexpr int kItems = 100;
    struct Run {
        std::mutex mutex;
        std::set<DWORD> threads; // guarded by mutex
        std::atomic<int> left{kItems};
        Owned ended = NewEvent(true);
    } run;
    const auto compute = [](void* context) -> DWORD {
        auto& of = *static_cast<Run*>(context);
        for (const DWORD begin = GetTickCount(); GetTickCount() - begin < 2;) {
        }
        const std::lock_guard guard(of.mutex);
        of.threads.insert(GetCurrentThreadId());
        if (--of.left == 0) {
            SetEvent(of.ended);
        }
        return 0;
    };
    const DWORD begin = GetTickCount();
    for (int i = 0; i < kItems; ++i) {
        ASSERT_TRUE(QueueUserWorkItem(compute, &run, WT_EXECUTEDEFAULT));
    }
    ASSERT_EQ(WaitForSingleObject(run.ended, kPatienceMs), WAIT_OBJECT_0);
    const std::lock_guard guard(run.mutex);
    EXPECT_LE(run.threads.size(), 4 + (GetTickCount() - begin) / PoolGrowth::kPaceMs);
}

TEST(PosixExtras, ClosingAPortEndsTheWaits) {
    for (int round = 0; round < 50; ++round) {
        Owned port = NewPort();
        char byte = 0;
        OVERLAPPED read{};
        const Connection connection{port};
        EXPECT_TRUE(Begun(ReadFile(connection.server, &byte, 1, nullptr, &read)));
        std::atomic<int> started{0};
        std::deque<Thread> waiting;
        for (int i = 0; i < 3; ++i) {
            waiting.emplace_back([&started, handle = HANDLE{port}] {
                ++started;
                const Completion none = Next(handle);
                EXPECT_TRUE(!none.succeeded && none.error != WAIT_TIMEOUT && none.overlapped == nullptr);
            });
        }
        while (started < 3) {
            Sleep(0);
        }
        port.Close();
    }
}

TEST(PosixExtras, PagesThatAreResetAreTheSystemsToTakeUntilTheyAreWrittenTo) {
    constexpr SIZE_T kBytes = 8 << 20;
    char* const pages = static_cast<char*>(VirtualAlloc(nullptr, kBytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(pages, nullptr);
    std::fill_n(pages, kBytes, 'a');
    EXPECT_EQ(VirtualAlloc(pages, kBytes + 1, MEM_RESET, PAGE_READWRITE), nullptr) << "more than there is";
    EXPECT_EQ(VirtualAlloc(nullptr, kBytes, MEM_RESET, PAGE_READWRITE), nullptr);
    EXPECT_EQ(VirtualAlloc(pages, kBytes, MEM_RESET | MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_EQ(VirtualAlloc(pages, kBytes, MEM_RESET, PAGE_READWRITE), pages);
    ASSERT_EQ(madvise(pages, kBytes, MADV_PAGEOUT), 0); // as the kernel does when memory is short
    EXPECT_EQ(std::count(pages, pages + kBytes, 'a'), 0) << "none was kept";
    std::fill_n(pages, kBytes, 'b');
    EXPECT_EQ(std::count(pages, pages + kBytes, 'b'), static_cast<std::ptrdiff_t>(kBytes));
    EXPECT_TRUE(VirtualFree(pages, 0, MEM_RELEASE));
}

TEST(PosixExtras, ShareModesBindOtherProcessesAsLongAsTheyLive) {
    const std::wstring path = L"/tmp/veyra-share-extras-" + std::to_wstring(GetCurrentProcessId());
    const std::string narrow(path.begin(), path.end());
    const auto errorOfOpening = [&path](DWORD access) {
        const HANDLE file = CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        return file != INVALID_HANDLE_VALUE && CloseHandle(file) != FALSE ? NO_ERROR : GetLastError();
    };
    const int other = open(narrow.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        static_cast<void>(!write(ends[1], "x", 1));
        pause();
    }
    char byte = 0;
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(errorOfOpening(GENERIC_READ), NO_ERROR);
    EXPECT_EQ(errorOfOpening(GENERIC_WRITE), ERROR_SHARING_VIOLATION);
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(errorOfOpening(GENERIC_WRITE), NO_ERROR);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(errorOfOpening(GENERIC_READ), ERROR_SHARING_VIOLATION) << "another program's lock";
    for (const int descriptor : {other, ends[0], ends[1]}) {
        close(descriptor);
    }
    unlink(narrow.c_str());
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

// (Wine 8 tells the network an older version than everybody else.)
TEST(PosixExtras, TheVersionIsThatOfTheCallsAndARecordOfAnotherSizeIsRefused) {
    OSVERSIONINFOW version{};
    EXPECT_FALSE(GetVersionExW(&version));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(GetVersionExW(&version));
    EXPECT_EQ(version.dwMajorVersion, 10U);
    EXPECT_EQ(version.dwMinorVersion, 0U);
    VS_FIXEDFILEINFO file{};
    EXPECT_FALSE(GetFileVersionInfoW(L"kernel32.dll", 0, sizeof file - 1, &file));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
}

} // namespace
} // namespace Vantor::Sentrix
