// How fast a pool whose items have to wait gets threads.
//
// Threads that are blocked are of no use to the items that wait: the pool doubles until every item has a thread. A
// thread that could run, but has no processor just now, will come to the items, and more threads would only be in its
// way. It may also compute for long, so one thread is added now and then: items never wait for ever.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Vantor::Sentrix::Platform {

class PoolGrowth {
public:
    // Between two threads that are added although others could run.
    static constexpr std::int64_t kPaceMs = 10;

    // Whether items are taken at a rate that shows the threads at work. If not, look at them and ask Add.
    static bool IsAtWork(std::uint64_t startedInTick) { return startedInTick >= kBusyItemsPerTick; }

    // Threads to add for `waiting` items. `busy` threads are inside an item or about to be; `couldRun`: at least one of
    // them has been woken and has not begun, or is inside an item and not blocked.
    std::size_t Add(std::int64_t nowMs, std::size_t waiting, std::size_t busy, bool couldRun) {
        if (waiting == 0 || (couldRun && nowMs - m_addedMs < kPaceMs)) {
            return 0;
        }
        m_addedMs = nowMs;
        return couldRun ? 1 : std::min(waiting, std::max<std::size_t>(busy, 1));
    }

private:
    static constexpr std::uint64_t kBusyItemsPerTick = 16;

    std::int64_t m_addedMs = INT64_MIN / 2; // when threads were added last
};

} // namespace Vantor::Sentrix::Platform
