// Mutexes between threads and between real processes, some of which die. Children are this program in another role.
#include "tools/support/ChildProcess.h"
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace Vantor::Sentrix {
namespace {

using Support::ChildProcess;

std::string UniqueName(const char* purpose) {
    static int number = 0;
    return "veyra test/" + std::to_string(GetCurrentProcessId()) + "." + std::to_string(++number) + " " + purpose;
}

std::wstring Wide(const std::string& ascii) {
    return {ascii.begin(), ascii.end()};
}

HANDLE Create(const std::string& name, bool owned = false) {
    return CreateMutexW(nullptr, owned ? TRUE : FALSE, Wide(name).c_str());
}

HANDLE Open(const std::string& name) {
    return OpenMutexW(MUTEX_ALL_ACCESS, FALSE, Wide(name).c_str());
}

// What a thread that is not the owner sees.
DWORD WaitElsewhere(HANDLE mutex, DWORD milliseconds) {
    DWORD result = WAIT_FAILED;
    std::thread([&] {
        result = WaitForSingleObject(mutex, milliseconds);
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
            ReleaseMutex(mutex);
        }
    }).join();
    return result;
}

// ---- The children --------------------------------------------------------------------------------------------------

// Holds the mutex until it is killed.
int Hold(const std::string& name) {
    if (WaitForSingleObject(Open(name), INFINITE) == WAIT_OBJECT_0) {
        std::puts("holding");
        std::fflush(stdout);
        Sleep(INFINITE);
    }
    return 1;
}

// Adds to a number in a file, which only the mutex keeps from being lost. Each round has the mutex made and forgotten.
int Count(const std::string& name, const std::string& path, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        const HANDLE mutex = Create(name);
        const DWORD result = WaitForSingleObject(mutex, INFINITE);
        if (mutex == nullptr || result != WAIT_OBJECT_0) {
            return 1;
        }
        int value = 0;
        const bool isRead = !(std::ifstream(path) >> value).fail();
        std::ofstream(path) << value + 1;
        if (!isRead || ReleaseMutex(mutex) == FALSE || CloseHandle(mutex) == FALSE) {
            return 2;
        }
    }
    return 0;
}

// ---- The tests -----------------------------------------------------------------------------------------------------

TEST(MutexTest, IsReentrantForItsOwnerAlone) {
    for (const HANDLE mutex : {Create(UniqueName("owned")), CreateMutexW(nullptr, FALSE, nullptr)}) {
        ASSERT_NE(mutex, nullptr);
        EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(mutex, 10), WAIT_OBJECT_0);
        EXPECT_EQ(WaitElsewhere(mutex, 0), WAIT_TIMEOUT);
        std::thread([mutex] {
            EXPECT_FALSE(ReleaseMutex(mutex));
            EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
        }).join();
        EXPECT_TRUE(ReleaseMutex(mutex));
        EXPECT_EQ(WaitElsewhere(mutex, 1), WAIT_TIMEOUT) << "held once more";
        EXPECT_TRUE(ReleaseMutex(mutex));
        EXPECT_EQ(WaitElsewhere(mutex, 1000), WAIT_OBJECT_0);
        EXPECT_FALSE(ReleaseMutex(mutex));
        EXPECT_TRUE(CloseHandle(mutex));
    }
}

TEST(MutexTest, ANameIsOneMutexWhileAnybodyHasAHandle) {
    const std::string name = UniqueName("name");
    const HANDLE first = Create(name, true);
    EXPECT_EQ(GetLastError(), NO_ERROR);
    const HANDLE second = Create("Local\\" + name, true);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(WaitElsewhere(second, 0), WAIT_TIMEOUT) << "the creator asked to own it";
    EXPECT_TRUE(ReleaseMutex(second)) << "one owner, whichever handle";
    EXPECT_EQ(WaitElsewhere(first, 0), WAIT_OBJECT_0) << "a second creator does not own it";
    CloseHandle(first);
    CloseHandle(second);
    EXPECT_EQ(Open(name), nullptr) << "it went with its last handle";
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(MutexTest, AProcessKeepsOthersOutAndItsDeathLeavesItToTheNext) {
    const std::string name = UniqueName("abandoned");
    const HANDLE mutex = Create(name);
    ChildProcess child;
    ASSERT_TRUE(child.Start(Support::OwnProgramPath(), {"--hold", name}, ChildProcess::Output::Pipe));
    ASSERT_EQ(child.ReadLine(), "holding");
    EXPECT_EQ(WaitForSingleObject(mutex, 1), WAIT_TIMEOUT);
    std::thread waiting([mutex] { // one waits already, one comes later
        EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_ABANDONED);
        EXPECT_EQ(WaitElsewhere(mutex, 0), WAIT_TIMEOUT) << "the caller owns it";
        EXPECT_TRUE(ReleaseMutex(mutex));
    });
    child.Kill();
    waiting.join();
    child.WaitForExit();
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "told once";
    ReleaseMutex(mutex);
    CloseHandle(mutex);
}

TEST(MutexTest, AnEndedThreadLeavesItToTheNext) {
    for (const bool isNamed : {true, false}) {
        const HANDLE mutex = isNamed ? Create(UniqueName("thread")) : CreateMutexW(nullptr, FALSE, nullptr);
        std::thread([mutex] {
            WaitForSingleObject(mutex, INFINITE);
            WaitForSingleObject(mutex, INFINITE);
        }).join();
        EXPECT_EQ(WaitForSingleObject(mutex, 100), WAIT_ABANDONED);
        EXPECT_TRUE(ReleaseMutex(mutex)) << "taken over once, however often the other held it";
        EXPECT_FALSE(ReleaseMutex(mutex));
        EXPECT_EQ(WaitElsewhere(mutex, 0), WAIT_OBJECT_0);
        CloseHandle(mutex);
    }
}

TEST(MutexTest, NothingIsLostWhileProcessesMakeAndForgetIt) {
    constexpr int kProcesses = 6;
    constexpr int kRounds = 300;
    const std::string name = UniqueName("count");
    const auto path = std::filesystem::temp_directory_path() / ("veyra-count-" + std::to_string(GetCurrentProcessId()));
    std::ofstream(path) << 0;
    ChildProcess children[kProcesses];
    for (ChildProcess& child : children) {
        ASSERT_TRUE(child.Start(Support::OwnProgramPath(), {"--count", name, path.string(), std::to_string(kRounds)}));
    }
    for (ChildProcess& child : children) {
        EXPECT_EQ(child.WaitForExit(), 0U);
    }
    int total = 0;
    std::ifstream(path) >> total;
    std::filesystem::remove(path);
    EXPECT_EQ(total, kProcesses * kRounds);
    EXPECT_EQ(Open(name), nullptr) << "nothing of it is left";
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    if (argc == 3 && std::strcmp(argv[1], "--hold") == 0) {
        return Hold(argv[2]);
    }
    if (argc == 5 && std::strcmp(argv[1], "--count") == 0) {
        return Count(argv[2], argv[3], std::stoi(argv[4]));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
