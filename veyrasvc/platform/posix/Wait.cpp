#include "veyrasvc/platform/posix/Wait.h"

#include <linux/futex.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>

namespace Vantor::Sentrix::Platform {

namespace {

int PollTimeout(std::int64_t timeoutMs) {
    return timeoutMs < 0 ? -1 : static_cast<int>(std::min<std::int64_t>(timeoutMs, INT_MAX));
}

void FutexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, std::int64_t timeoutMs) {
    timespec limit{};
    limit.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    limit.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1'000'000;
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT_PRIVATE, expected,
            timeoutMs < 0 ? nullptr : &limit, nullptr, 0);
}

} // namespace

std::int64_t MonotonicMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

DWORD GetTickCount() {
    return static_cast<DWORD>(MonotonicMs()); // wraps around every 49.7 days
}

Deadline::Deadline(DWORD milliseconds) : m_end(milliseconds == INFINITE ? -1 : MonotonicMs() + milliseconds) {}

std::int64_t Deadline::Remaining() const {
    return m_end < 0 ? -1 : std::max<std::int64_t>(m_end - MonotonicMs(), 0);
}

// ---- Waitable ------------------------------------------------------------------------------------------------------

void Waitable::AddWaiter(Waiter* waiter) {
    const std::lock_guard guard(m_waitersMutex);
    m_waiters.push_back(waiter);
    m_waiterCount.fetch_add(1, std::memory_order_seq_cst);
}

void Waitable::RemoveWaiter(Waiter* waiter) {
    const std::lock_guard guard(m_waitersMutex);
    const auto found = std::find(m_waiters.begin(), m_waiters.end(), waiter);
    if (found != m_waiters.end()) {
        m_waiters.erase(found);
        m_waiterCount.fetch_sub(1, std::memory_order_seq_cst);
    }
}

void Waitable::NotifyWaiters() {
    // A waiter counts itself before it looks at the state for the last time, and the state was changed before this
    // look at the count: one of the two sees the other.
    if (m_waiterCount.load(std::memory_order_seq_cst) == 0) {
        return;
    }
    const std::lock_guard guard(m_waitersMutex);
    for (Waiter* waiter : m_waiters) {
        waiter->Notify();
    }
}

// ---- Waiter --------------------------------------------------------------------------------------------------------

Waiter::~Waiter() {
    if (m_eventFd >= 0) {
        close(m_eventFd);
    }
}

Waiter& Waiter::OfThisThread() {
    static thread_local Waiter waiter;
    return waiter;
}

void Waiter::Prepare() {
    m_state.store(kAwake, std::memory_order_seq_cst);
}

void Waiter::Notify() {
    switch (m_state.exchange(kNotified, std::memory_order_seq_cst)) {
    case kInFutex:
        syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&m_state), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
        break;
    case kInPoll: {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = write(m_eventFd, &one, sizeof one);
        break;
    }
    default: // awake, or told already
        break;
    }
}

bool Waiter::BeginSleep(State how) {
    std::uint32_t expected = kAwake;
    return m_state.compare_exchange_strong(expected, how, std::memory_order_seq_cst);
}

void Waiter::Sleep(std::int64_t timeoutMs) {
    if (BeginSleep(kInFutex)) {
        FutexWait(m_state, kInFutex, timeoutMs);
    }
}

void Waiter::SleepPolling(std::vector<Polled>& polled, std::int64_t timeoutMs) {
    if (m_eventFd < 0) {
        m_eventFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    std::array<pollfd, MAXIMUM_WAIT_OBJECTS + 1> descriptors{};
    std::size_t count = 0;
    for (const Polled& one : polled) {
        descriptors[count++] = {one.descriptor, one.events, 0};
    }
    descriptors[count] = {m_eventFd, POLLIN, 0};

    // Without an event descriptor (the process has none left) a notification cannot end the poll: look often instead.
    constexpr int kBlindPollMs = 10;
    const int limit = m_eventFd < 0 ? kBlindPollMs : PollTimeout(timeoutMs);
    const int ready = BeginSleep(kInPoll) ? poll(descriptors.data(), count + 1, limit) : 0;
    // Whoever notified may write to the descriptor only now, so it is also drained when it is found to be ready.
    const bool notified = m_state.exchange(kAwake, std::memory_order_seq_cst) == kNotified;
    if (m_eventFd >= 0 && (notified || (ready > 0 && descriptors[count].revents != 0))) {
        std::uint64_t drained = 0;
        [[maybe_unused]] const auto got = read(m_eventFd, &drained, sizeof drained);
    }
    for (std::size_t i = 0; i < polled.size(); ++i) {
        polled[i].revents = ready > 0 ? descriptors[i].revents : short{0};
    }
}

} // namespace Vantor::Sentrix::Platform
