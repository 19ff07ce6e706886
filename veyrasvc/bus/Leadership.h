// Who serves the connection: the I/O thread, or a leader, which is a thread of the pool that runs short callbacks where
// it has read their messages.
//
// Only who serves touches what belongs to the connection's reading side. A leader can be relieved while it runs
// callbacks and at no other time, so it never loses the connection in the middle of a step.
#pragma once

#include <atomic>
#include <cstdint>

namespace Vantor::Sentrix {

// Threads: any; each operation names who may call it. Sequentially consistent, because a leader that begins callbacks
// and somebody who stops watching it must not miss each other.
class Leadership {
public:
    bool IsIoThreads() const { return m_state == 0; }
    bool IsOf(std::uint32_t leader) const { return m_state == Serving(leader); }
    bool RunsCallbacks() const { return (m_state & 1u) != 0; }

    // The I/O thread, while it serves. Numbers are never given again before a thread could have forgotten its own.
    void Give(std::uint32_t leader) { m_state = Serving(leader); }
    // The leader, while it serves.
    void Return() { m_state = 0; }
    void BeginCallbacks(std::uint32_t leader) { m_state = InCallbacks(leader); }
    // False: it was relieved, and must not touch the connection any more.
    bool EndCallbacks(std::uint32_t leader) { return Change(InCallbacks(leader), Serving(leader)); }
    // Anybody. True: that leader was running callbacks, and now the I/O thread is to serve.
    bool Relieve(std::uint32_t leader) { return Change(InCallbacks(leader), 0); }

private:
    static std::uint32_t Serving(std::uint32_t leader) { return leader << 1; }
    static std::uint32_t InCallbacks(std::uint32_t leader) { return leader << 1 | 1u; }

    bool Change(std::uint32_t from, std::uint32_t to) { return m_state.compare_exchange_strong(from, to); }

    std::atomic<std::uint32_t> m_state{0};
};

} // namespace Vantor::Sentrix
