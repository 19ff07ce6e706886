#include "veyrasvc/util/AdaptiveSpin.h"

#include <gtest/gtest.h>

#include <chrono>

namespace Vantor::Sentrix {
namespace {

using namespace std::chrono_literals;

// Time passes only where a test says so.
struct ManualClock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<ManualClock, duration>;
    static inline time_point time;
    static time_point now() { return time; } // NOLINT(readability-identifier-naming): what a clock has
};

using Spin = AdaptiveSpin<ManualClock>;

// Of 256 waits for something that comes after `delay`, those that looked for it. A look takes 1 us; a sleeper learns
// of it `wakeUp` later.
int SpinningWaits(Spin& spin, std::chrono::microseconds delay, std::chrono::microseconds wakeUp) {
    int spinning = 0;
    for (int i = 0; i < 256; ++i) {
        int looks = 0;
        const auto due = ManualClock::time + delay;
        const auto look = [&] {
            ++looks;
            ManualClock::time += 1us;
            return ManualClock::time >= due;
        };
        const auto sleep = [&] {
            ManualClock::time = due + wakeUp;
            return true;
        };
        EXPECT_TRUE(spin.Wait(look, sleep));
        EXPECT_LE(looks, 101) << "it looked for too long";
        spinning += looks > 0 ? 1 : 0;
    }
    return spinning;
}

TEST(AdaptiveSpinTest, SpinsWhereItSavesTimeAndTriesTheOtherWayNowAndThen) {
    Spin spin;
    const struct {
        const char* what;
        std::chrono::microseconds delay;
        std::chrono::microseconds wakeUp;
        int spinning;
    } phases[] = {
        {"soon, and a wake-up is dear", 50us, 60us, 252},
        {"too late for a look", 300us, 60us, 4},
        {"soon, and a wake-up is cheap", 50us, 2us, 4},
        {"dear again", 50us, 60us, 252},
    };
    for (const auto& phase : phases) {
        for (int i = 0; i < 8; ++i) {
            SpinningWaits(spin, phase.delay, phase.wakeUp); // time to learn
        }
        EXPECT_EQ(SpinningWaits(spin, phase.delay, phase.wakeUp), phase.spinning) << phase.what;
    }
}

TEST(AdaptiveSpinTest, ReturnsWhatTheSleepSaysAndOnlyOneThreadSpins) {
    Spin spin;
    SpinningWaits(spin, 50us, 60us);
    const auto no = [] {
        ManualClock::time += 1us;
        return false;
    };
    EXPECT_FALSE(spin.Wait(no, no));
    bool nested = false;
    const auto look = [&] { // as another thread, while this one spins
        return spin.Wait([&] { return nested = true; }, [] { return true; });
    };
    EXPECT_TRUE(spin.Wait(look, no));
    EXPECT_FALSE(nested);
}

} // namespace
} // namespace Vantor::Sentrix
