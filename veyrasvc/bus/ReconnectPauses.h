// How long the engine waits before it looks for the host again.
//
// A host that was killed is usually back within moments, so the first looks follow each other closely; one that stays
// away costs a look a second. The pauses are spread a little: the clients of a host that has died would otherwise all
// come back at the same moment.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>

namespace Vantor::Sentrix {

// Threads: one at a time.
class ReconnectPauses {
public:
    using Milliseconds = std::chrono::milliseconds;

    explicit ReconnectPauses(std::uint32_t seed) : m_random(seed) {}

    // The pause after an attempt that failed.
    Milliseconds Next() {
        const std::int64_t pause = kPausesMs[m_next];
        m_next = std::min(m_next + 1, kPausesMs.size() - 1);
        const std::int64_t spread = pause / kSpreadDivisor;
        return Milliseconds(std::uniform_int_distribution(pause - spread, pause + spread)(m_random));
    }

    // The pause after a connection that lasted so long: none, and the series begins anew. A connection that ended at
    // once, as where the host has no place left, is no better than an attempt that failed.
    Milliseconds AfterConnection(std::chrono::steady_clock::duration lasted) {
        if (lasted < kStable) {
            return Next();
        }
        m_next = 0;
        return Milliseconds(0);
    }

private:
    static constexpr std::array<std::int64_t, 6> kPausesMs{20, 50, 100, 200, 500, 1000};
    static constexpr std::int64_t kSpreadDivisor = 8;
    static constexpr Milliseconds kStable{100};

    std::size_t m_next = 0;
    std::minstd_rand m_random;
};

} // namespace Vantor::Sentrix
