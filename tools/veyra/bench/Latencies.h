// The waiting times of one run, and what is told of them.
// Threads: one at a time.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vantor::Sentrix::Tool {

class Latencies {
public:
    using Clock = std::chrono::steady_clock;

    Latencies() {
        constexpr std::size_t kExpected = 1 << 18; // growing in the middle of a run would be measured too
        m_nanoseconds.reserve(kExpected);
    }

    void Add(Clock::duration time) {
        m_nanoseconds.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
    }
    void Add(const Latencies& other) {
        m_nanoseconds.insert(m_nanoseconds.end(), other.m_nanoseconds.begin(), other.m_nanoseconds.end());
    }
    std::size_t Count() const { return m_nanoseconds.size(); }

    // The time in microseconds within which that share of all was done. 0 when there is none.
    double Microseconds(double share) {
        if (m_nanoseconds.empty()) {
            return 0;
        }
        const auto at =
            m_nanoseconds.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(m_nanoseconds.size() - 1));
        std::nth_element(m_nanoseconds.begin(), at, m_nanoseconds.end());
        return static_cast<double>(*at) / 1000;
    }

private:
    std::vector<std::int64_t> m_nanoseconds;
};

inline constexpr std::chrono::milliseconds kWarmUp{200};

} // namespace Vantor::Sentrix::Tool
