// Locks, their guards and containers.
#include "veyrasvc/util/Locks.h"

#include "tests/support/LogCapture.h"
#include "veyrasvc/util/LockedContainers.h"
#include "veyrasvc/util/SlimLock.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

// These tests take locks in ways that the analysis is there to forbid.
#define UNCHECKED VEYRA_NO_THREAD_SAFETY_ANALYSIS

namespace Vantor::Sentrix {
namespace {

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

TEST(LocksTest, AutoLockHoldsForItsScopeAndAdopts) {
    const auto test = []() UNCHECKED {
        LockQueue<int> lock; // every container is its own lock
        {
            const AutoLock outer(&lock);
            const AutoLock inner(static_cast<BaseLock*>(&lock)); // re-entrant
            EXPECT_FALSE(TryElsewhere(lock));
        }
        EXPECT_TRUE(TryElsewhere(lock));
        lock.Lock();
        {
            const AutoLock adopting(&lock, true);
            EXPECT_FALSE(TryElsewhere(lock));
        }
        EXPECT_TRUE(TryElsewhere(lock)) << "it was unlocked once, and had not been locked again";
        const AutoLock nothing(nullptr);
    };
    test();
}

TEST(LocksTest, SlimLockKeepsWritersAlone) {
    SlimLock slim;
    int written = 0;
    constexpr int kRounds = 5000;
    const auto write = [&] {
        for (int round = 0; round < kRounds; ++round) {
            {
                const ExclusiveGuard guard(slim);
                ++written;
            }
            const SharedGuard guard(slim);
            ASSERT_GT(written, round);
        }
    };
    std::thread other(write);
    write();
    other.join();
    EXPECT_EQ(written, 2 * kRounds);
}

// What the death of another process does to a mutex is the mutex's own test; its owner here is a thread that ends.
TEST(LocksTest, AnAbandonedNamedMutexIsReportedAndTakenOver) {
    const auto test = []() UNCHECKED {
        LogCapture log;
        const std::wstring name = L"veyra-locks-" + std::to_wstring(GetCurrentProcessId());
        NamedMutexLock lock(name.c_str());
        const auto abandon = [&lock] { std::thread([&lock]() UNCHECKED { lock.Lock(); }).join(); };
        abandon();
        lock.Lock();
        EXPECT_EQ(log.Take(),
                  std::vector<LogCapture::Line>({{log4cplus::ERROR_LOG_LEVEL, "NamedMutexLock Lock Failed!"}}));
        EXPECT_FALSE(TryElsewhere(lock)) << "taken over, in spite of the line";
        lock.Unlock();
        abandon();
        EXPECT_FALSE(lock.TryLock()) << "abandoned";
        EXPECT_TRUE(TryElsewhere(lock)) << "and left free by that";
        std::make_unique<NamedMutexLock>(name.c_str())->Lock();
        EXPECT_TRUE(TryElsewhere(lock)) << "the destructor unlocks";
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

} // namespace
} // namespace Vantor::Sentrix
