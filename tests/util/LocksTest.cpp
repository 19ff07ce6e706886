// Locks, their guards and containers. The other processes are this program in another role.
#include "veyrasvc/util/Locks.h"

#include "tests/support/LogCapture.h"
#include "tools/support/ChildProcess.h"
#include "veyrasvc/util/LockedContainers.h"
#include "veyrasvc/util/SlimLock.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

// These tests take locks in ways that the analysis is there to forbid.
#define UNCHECKED VEYRA_NO_THREAD_SAFETY_ANALYSIS

namespace Vantor::Sentrix {
namespace {

using Support::ChildProcess;

std::wstring UniqueName(const wchar_t* purpose) {
    return L"veyra-locks-" + std::to_wstring(GetCurrentProcessId()) + L"-" + purpose;
}

bool TryElsewhere(BaseLock& lock) UNCHECKED {
    bool taken = false;
    std::thread([&]() UNCHECKED {
        taken = lock.TryLock();
        if (taken) {
            lock.Unlock();
        }
    }).join();
    return taken;
}

int HoldForEver(const std::string& name) UNCHECKED {
    NamedMutexLock lock(std::wstring(name.begin(), name.end()).c_str());
    lock.Lock();
    std::puts("holding");
    std::fflush(stdout);
    Sleep(INFINITE);
    return 0;
}

// A child that owns the mutex; killing it abandons that.
void StartHolder(ChildProcess& child, const std::wstring& name) {
    ASSERT_TRUE(child.Start(Support::OwnProgramPath(), {"--hold", std::string(name.begin(), name.end())},
                            ChildProcess::Output::Pipe));
    ASSERT_EQ(child.ReadLine(), "holding");
}

TEST(LocksTest, AutoLockHoldsForItsScope) {
    CommonLock lock;
    {
        const AutoLock outer(&lock);
        const AutoLock inner(static_cast<BaseLock*>(&lock));
        EXPECT_FALSE(TryElsewhere(lock));
    }
    EXPECT_TRUE(TryElsewhere(lock));
}

TEST(LocksTest, AutoLockAdoptsAndAcceptsNothing) {
    const auto test = []() UNCHECKED {
        CommonLock lock;
        lock.Lock();
        EXPECT_TRUE(lock.TryLock()) << "re-entrant";
        lock.Unlock();
        {
            const AutoLock adopting(&lock, true);
            EXPECT_FALSE(TryElsewhere(lock));
        }
        EXPECT_TRUE(TryElsewhere(lock)) << "it was unlocked once, and had not been locked again";
        { const AutoLock taking(&lock, false); }
        EXPECT_TRUE(TryElsewhere(lock));
        const AutoLock nothing(nullptr);
        const AutoLock nothingAdopted(nullptr, true);
        EXPECT_FALSE(BaseLock().TryLock());
    };
    test();
}

TEST(LocksTest, ContainersAndSlimLockKeepTheirItemsWhole) {
    LockQueue<int> queue;
    SlimLock slim;
    int written = 0;
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                {
                    const AutoLock guard(&queue);
                    queue.m_items.push(round);
                }
                {
                    const ExclusiveGuard guard(slim);
                    ++written;
                }
                const SharedGuard guard(slim);
                ASSERT_GT(written, round);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const AutoLock guard(&queue);
    EXPECT_EQ(queue.m_items.size(), static_cast<std::size_t>(kThreads * kRounds));
    EXPECT_EQ(written, kThreads * kRounds);
}

TEST(LocksTest, NamedMutexExcludesProcessesAndSurvivesTheDeathOfItsOwner) {
    const auto test = []() UNCHECKED {
        LogCapture log;
        const std::wstring name = UniqueName(L"death");
        NamedMutexLock lock(name.c_str());
        ChildProcess first;
        StartHolder(first, name);
        EXPECT_FALSE(lock.TryLock());
        std::thread killer([&first] { first.Kill(); });
        lock.Lock();
        killer.join();
        EXPECT_EQ(log.Take(),
                  std::vector<LogCapture::Line>({{log4cplus::ERROR_LOG_LEVEL, "NamedMutexLock Lock Failed!"}}));
        EXPECT_FALSE(TryElsewhere(lock)) << "taken over, in spite of the line";
        lock.Unlock();
        EXPECT_TRUE(lock.TryLock(INFINITE));
        EXPECT_TRUE(lock.TryLock()) << "re-entrant";
        lock.Unlock();
        lock.Unlock();

        ChildProcess second;
        StartHolder(second, name);
        second.Kill();
        second.WaitForExit();
        EXPECT_FALSE(lock.TryLock()) << "abandoned";
        EXPECT_TRUE(TryElsewhere(lock)) << "and left free by that";
        EXPECT_TRUE(log.Take().empty());
    };
    test();
}

TEST(LocksTest, ANamedMutexThatCannotBeHadSaysSoAndLocksNothing) {
    const auto test = []() UNCHECKED {
        LogCapture log;
        NamedMutexLock lock(L"no\\such\\folder");
        EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, "NamedMutexLock Init Failed!"), 1U);
        lock.Lock();
        EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, "NamedMutexLock Lock Failed!"), 1U);
        lock.Unlock();
        EXPECT_FALSE(lock.TryLock());
        EXPECT_EQ(log.Take().size(), 2U);
    };
    test();
}

TEST(LocksTest, ANamedMutexIsReleasedByItsDestructor) {
    const std::wstring name = UniqueName(L"destructor");
    NamedMutexLock other(name.c_str());
    const auto test = [&]() UNCHECKED {
        NamedMutexLock lock(name.c_str());
        lock.Lock();
        EXPECT_FALSE(TryElsewhere(other));
    };
    test();
    EXPECT_TRUE(TryElsewhere(other));
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--hold") == 0) {
        return Vantor::Sentrix::HoldForEver(argv[2]);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
