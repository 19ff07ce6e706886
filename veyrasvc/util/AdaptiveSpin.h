// A short busy wait in front of a sleep, for as long as it pays.
//
// To wake a thread on a processor that has gone to sleep can take longer than everything else in a short round trip. A
// thread that waits for what usually comes at once therefore looks for it a moment longer before it sleeps, and lets
// any thread that is ready to run have its processor between the looks. Where the answers are slow or the processors
// are busy anyway, the same looks only cost time. Which of the two it is, is measured all the while.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace Vantor::Sentrix {

// Shared by the waits of one kind. One thread at a time spins.
// Threads: any.
template <class Clock = std::chrono::steady_clock> class AdaptiveSpin {
public:
    // Returns what `isThere()` or `sleep()` returned last: the first is called until it is true or the time for it is
    // over, the second then, or at once.
    template <class IsThere, class Sleep> bool Wait(IsThere&& isThere, Sleep&& sleep) {
        const auto begin = Clock::now();
        const bool spins = ShouldSpin() && !m_spinning.test_and_set(std::memory_order_acquire);
        bool came = false;
        if (spins) {
            came = Look(isThere, begin + kLongest);
            m_spinning.clear(std::memory_order_release);
        }
        came = came || sleep();
        Learn(spins, Clock::now() - begin);
        return came;
    }

private:
    static constexpr std::chrono::microseconds kLongest{100};
    static constexpr std::chrono::nanoseconds kSlow = 4 * kLongest; // all the same beyond this
    static constexpr std::uint32_t kTrialInterval = 64;             // waits between trials of the other way

    template <class IsThere> static bool Look(IsThere& isThere, typename Clock::time_point end) {
        while (!isThere()) {
            if (Clock::now() >= end) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    bool ShouldSpin() {
        const bool pays = Average(true) < Average(false) - Average(false) / 8;
        const bool trial = m_waits.fetch_add(1, std::memory_order_relaxed) % kTrialInterval == 0;
        return pays != trial;
    }

    std::int64_t Average(bool spinning) const { return m_average[spinning ? 1 : 0].load(std::memory_order_relaxed); }

    // A sample that is lost between two threads does no harm.
    void Learn(bool spun, std::chrono::nanoseconds took) {
        constexpr std::int64_t kWeight = 8;
        const std::int64_t average = Average(spun);
        const std::int64_t sample = std::min(took, kSlow).count();
        m_average[spun ? 1 : 0].store(average + (sample - average) / kWeight, std::memory_order_relaxed);
    }

    std::atomic_flag m_spinning;
    std::atomic<std::uint32_t> m_waits{0};
    // How long a wait takes, in nanoseconds, without and with spinning.
    std::array<std::atomic<std::int64_t>, 2> m_average{kSlow.count(), kSlow.count() / 2};
};

} // namespace Vantor::Sentrix
