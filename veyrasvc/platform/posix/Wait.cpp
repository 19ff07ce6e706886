#include "veyrasvc/platform/posix/Wait.h"

#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
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

// The descriptor by which a thread is notified while it polls: made by the thread's first poll, closed when the thread
// ends. A destructor of a thread-local object would do the same, but to register one may need memory, and a failure to
// do so ends the process.
pthread_key_t EventFdKey() {
    static const pthread_key_t key = [] {
        pthread_key_t made{};
        pthread_key_create(&made,
                           [](void* kept) { close(static_cast<int>(reinterpret_cast<std::intptr_t>(kept)) - 1); });
        return made;
    }();
    return key;
}

// -1 when there is none to be had.
int EventFdOfThisThread() {
    const auto kept = static_cast<int>(reinterpret_cast<std::intptr_t>(pthread_getspecific(EventFdKey())));
    if (kept != 0) {
        return kept - 1;
    }
    const int made = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made >= 0 && pthread_setspecific(EventFdKey(), reinterpret_cast<void*>(std::intptr_t{made} + 1)) != 0) {
        close(made);
        return -1;
    }
    return made;
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

void Waitable::AddWaiter(WaitLink& link) {
    const std::lock_guard guard(m_waitersMutex);
    link.previous = m_last;
    link.next = nullptr;
    (m_last == nullptr ? m_first : m_last->next) = &link;
    m_last = &link;
    m_waiterCount.fetch_add(1, std::memory_order_seq_cst);
}

void Waitable::RemoveWaiter(WaitLink& link) {
    const std::lock_guard guard(m_waitersMutex);
    (link.previous == nullptr ? m_first : link.previous->next) = link.next;
    (link.next == nullptr ? m_last : link.next->previous) = link.previous;
    m_waiterCount.fetch_sub(1, std::memory_order_seq_cst);
}

void Waitable::NotifyWaiters() {
    // A waiter counts itself before it looks at the state for the last time, and the state was changed before this
    // look at the count: one of the two sees the other.
    if (m_waiterCount.load(std::memory_order_seq_cst) == 0) {
        return;
    }
    const std::lock_guard guard(m_waitersMutex);
    for (const WaitLink* link = m_first; link != nullptr; link = link->next) {
        link->waiter->Notify();
    }
}

// ---- Waiter --------------------------------------------------------------------------------------------------------

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
        [[maybe_unused]] const auto written = write(m_eventFd.load(std::memory_order_relaxed), &one, sizeof one);
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

void Waiter::SleepPolling(PolledList& polled, std::int64_t timeoutMs) {
    const int eventFd = EventFdOfThisThread();
    m_eventFd.store(eventFd, std::memory_order_relaxed);
    std::array<pollfd, MAXIMUM_WAIT_OBJECTS + 1> descriptors; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const std::size_t count = polled.Size();
    for (std::size_t i = 0; i < count; ++i) {
        descriptors[i] = {polled[i].descriptor, polled[i].events, 0};
    }
    descriptors[count] = {eventFd, POLLIN, 0};

    // Without an event descriptor (the process has none left) a notification cannot end the poll: look often instead.
    constexpr int kBlindPollMs = 10;
    const int limit = eventFd < 0 ? kBlindPollMs : PollTimeout(timeoutMs);
    const int ready = BeginSleep(kInPoll) ? poll(descriptors.data(), count + 1, limit) : 0;
    // The thread that notified may write to the descriptor only now, so it is also drained when it is found to be
    // ready.
    const bool notified = m_state.exchange(kAwake, std::memory_order_seq_cst) == kNotified;
    if (eventFd >= 0 && (notified || (ready > 0 && descriptors[count].revents != 0))) {
        std::uint64_t drained = 0;
        [[maybe_unused]] const auto got = read(eventFd, &drained, sizeof drained);
    }
    for (std::size_t i = 0; i < count; ++i) {
        polled[i].revents = ready > 0 ? descriptors[i].revents : short{0};
    }
}

} // namespace Vantor::Sentrix::Platform
