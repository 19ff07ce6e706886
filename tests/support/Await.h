// Waiting in tests: for something to happen, never for time to pass. The limit only turns a hang into a failure.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace Vantor::Sentrix {

inline constexpr std::chrono::seconds kAwaitLimit{60};

// A number that threads change and wait for.
class Tally {
public:
    void Add(int count = 1) {
        const std::lock_guard guard(m_mutex);
        m_value += count;
        m_changed.notify_all();
    }
    int Value() const {
        const std::lock_guard guard(m_mutex);
        return m_value;
    }
    bool Await(int atLeast) {
        std::unique_lock guard(m_mutex);
        return m_changed.wait_for(guard, kAwaitLimit, [&] { return m_value >= atLeast; });
    }
    bool AwaitExactly(int value) {
        std::unique_lock guard(m_mutex);
        return m_changed.wait_for(guard, kAwaitLimit, [&] { return m_value == value; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_value = 0; // guarded by m_mutex
};

// What callbacks hand to the test, in the order in which they came.
template <class T> class Mailbox {
public:
    void Put(T value) {
        const std::lock_guard guard(m_mutex);
        m_values.push_back(std::move(value));
        m_changed.notify_all();
    }
    // Nothing when the limit has passed.
    std::optional<T> Take() {
        std::unique_lock guard(m_mutex);
        if (!m_changed.wait_for(guard, kAwaitLimit, [&] { return !m_values.empty(); })) {
            return std::nullopt;
        }
        T value = std::move(m_values.front());
        m_values.pop_front();
        return value;
    }
    bool IsEmpty() const {
        const std::lock_guard guard(m_mutex);
        return m_values.empty();
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_values; // guarded by m_mutex
};

} // namespace Vantor::Sentrix
