// Locks, their guards and containers.
#include "veyrasvc/util/Locks.h"

#include "veyrasvc/util/LockedContainers.h"
#include "veyrasvc/util/SlimLock.h"

#include <gtest/gtest.h>

#include <thread>

namespace Vantor::Sentrix {
namespace {

bool TryElsewhere(BaseLock& lock) {
    bool taken = false;
    std::thread([&] {
        taken = lock.TryLock();
        if (taken) {
            lock.Unlock();
        }
    }).join();
    return taken;
}

TEST(LocksTest, AutoLockHoldsForItsScopeAndAdopts) {
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

} // namespace
} // namespace Vantor::Sentrix
