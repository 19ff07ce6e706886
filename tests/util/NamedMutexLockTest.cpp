// The lock between processes. Children are this program in another role.
#include "tests/support/LogCapture.h"
#include "tools/support/ChildProcess.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/util/Locks.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// These tests take locks in ways that the analysis is there to forbid.
#define UNCHECKED VEYRA_NO_THREAD_SAFETY_ANALYSIS

namespace Vantor::Sentrix {
namespace {

using Support::ChildProcess;

constexpr int kRounds = 10'000;

std::wstring Unique(const std::wstring& name) {
    return name + std::to_wstring(GetCurrentProcessId());
}

bool TryElsewhere(NamedMutexLock& lock, DWORD milliseconds) UNCHECKED {
    bool taken = false;
    std::thread([&]() UNCHECKED {
        taken = lock.TryLock(milliseconds);
        if (taken) {
            lock.Unlock();
        }
    }).join();
    return taken;
}

void Say(const char* line) {
    std::puts(line);
    std::fflush(stdout);
}

int Hold(const std::wstring& name) UNCHECKED {
    NamedMutexLock lock(name.c_str());
    lock.Lock();
    Say("holding");
    Sleep(INFINITE);
    return 1;
}

// Adds to a number in a file, which nothing but the lock keeps from being lost.
int Count(const std::wstring& name, const std::wstring& path) {
    NamedMutexLock lock(name.c_str());
    FileStream file(path, FileStream::kReadWrite | FileStream::kShareAll);
    Say("ready");
    for (int round = 0; round < kRounds; ++round) {
        const AutoLock guard(&lock);
        const AutoLock again(&lock);
        file.SetPosition(0);
        const int value = StreamReader(&file).ReadInt();
        file.SetPosition(0);
        StreamWriter(&file).Write(value + 1);
    }
    return file.IsValid() ? 0 : 1;
}

// Waits until the child says that it has got there.
void Start(ChildProcess& child, const char* role, const std::wstring& name, const std::wstring& path,
           const char* line) {
    ASSERT_TRUE(child.Start(Support::OwnProgramPath(), {role, Support::Utf8FromWide(name), Support::Utf8FromWide(path)},
                            ChildProcess::Output::Pipe));
    ASSERT_EQ(child.ReadLine(), line);
}

TEST(NamedMutexLockTest, TwoProcessesCountOnAfterTheDeathOfAnOwner) {
    const auto test = []() UNCHECKED {
        LogCapture log;
        const std::wstring name = Unique(L"Local\\veyra count/\u00e9 ");
        const auto path = std::filesystem::temp_directory_path() / Unique(L"veyra-named-count-");
        StreamWriter(std::make_unique<FileStream>(path.wstring(), FileStream::kCreate).get()).Write(0);
        NamedMutexLock lock(name.c_str());
        ChildProcess dying;
        Start(dying, "--hold", name, path.wstring(), "holding");
        EXPECT_FALSE(lock.TryLock(1));
        dying.Kill();
        lock.Lock();
        EXPECT_EQ(log.Errors("NamedMutexLock Lock Failed!"), 1) << "the owner did not unlock";

        // Both wait for this thread before they count, so that neither has done when the other begins.
        ChildProcess counting[2];
        for (ChildProcess& child : counting) {
            Start(child, "--count", name, path.wstring(), "ready");
        }
        EXPECT_FALSE(TryElsewhere(lock, 0)) << "owned, in spite of the line";
        lock.Unlock();
        for (ChildProcess& child : counting) {
            EXPECT_EQ(child.WaitForExit(), 0U);
        }
        int total = 0;
        {
            FileStream file(path.wstring(), FileStream::kRead);
            total = StreamReader(&file).ReadInt();
        }
        std::filesystem::remove(path);
        EXPECT_EQ(total, 2 * kRounds);
        EXPECT_EQ(log.Take().size(), 1U);
    };
    test();
}

TEST(NamedMutexLockTest, TimeLimitsPassOnlyWhileSomebodyElseHoldsIt) {
    const auto test = []() UNCHECKED {
        NamedMutexLock lock(Unique(L"veyra limits ").c_str());
        EXPECT_TRUE(lock.TryLock());
        EXPECT_TRUE(lock.TryLock(0)) << "again, for its owner";
        lock.Lock();
        for (int depth = 3; depth > 0; --depth) {
            for (const DWORD limit : {0, 1, 20}) {
                EXPECT_FALSE(TryElsewhere(lock, limit)) << depth;
            }
            lock.Unlock();
        }
        EXPECT_TRUE(TryElsewhere(lock, 0));
        lock.Lock();
        std::thread waiting([&] { EXPECT_TRUE(TryElsewhere(lock, INFINITE)); });
        lock.Unlock();
        waiting.join();
    };
    test();
}

TEST(NamedMutexLockTest, EveryNameIsALockOfItsOwn) {
    const auto test = []() UNCHECKED {
        LogCapture log;
        std::vector<std::wstring> names{L"veyra",           L"Veyra",
                                        L"veyra name",      L"veyra/name",
                                        L"/veyra/../name",  L"%76eyra",
                                        L"veyra.",          L"..",
                                        L"veyra*?\"<>",     L"#",
                                        L"veyra:name",      L"Local\\veyra/l",
                                        L"Global\\veyra/g", L"\u00e9\u4e2d\U0001f512"};
        for (const wchar_t last : {L'\u4e2d', L'\u4e2e'}) { // longer than a file's name may be
            names.push_back(std::wstring(200, L'\u4e2d') + last);
        }
        for (const std::wstring& held : names) {
            NamedMutexLock lock(Unique(held).c_str());
            const AutoLock guard(&lock);
            for (const std::wstring& name : names) {
                NamedMutexLock other(Unique(name).c_str());
                EXPECT_EQ(TryElsewhere(other, 0), name != held)
                    << Support::Utf8FromWide(held) << " and " << Support::Utf8FromWide(name);
            }
        }
        EXPECT_TRUE(log.Take().empty());
    };
    test();
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    const std::string role = argc == 4 ? argv[1] : "";
    if (role == "--hold") {
        return Hold(Support::WideFromUtf8(argv[2]));
    }
    if (role == "--count") {
        return Count(Support::WideFromUtf8(argv[2]), Support::WideFromUtf8(argv[3]));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
