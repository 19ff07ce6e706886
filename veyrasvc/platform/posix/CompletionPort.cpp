#include "veyrasvc/platform/posix/CompletionPort.h"

#include "veyrasvc/platform/posix/Pipe.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <climits>

namespace Vantor::Sentrix::Platform {

CompletionPort::CompletionPort()
    : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = 0;
    if (epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, m_wakeup.Get(), &event) != 0) {
        m_epoll.Reset(); // Watch refuses everything from now on
    }
}

void CompletionPort::Queue(const Completion& completion) {
    const std::lock_guard guard(m_mutex);
    m_completions.push_back(completion);
    WakeOne();
}

void CompletionPort::MarkDirty(const std::shared_ptr<PortSource>& source, std::size_t bytes) {
    const std::lock_guard guard(m_mutex);
    m_dirty.push_back(source);
    m_dirtyBytes += bytes;
    WakeOne();
}

void CompletionPort::AddDirtyBytes(std::size_t bytes) {
    const std::lock_guard guard(m_mutex);
    m_dirtyBytes += bytes;
}

// A thread that is on its way into epoll_wait has counted itself under the mutex, so it finds this.
void CompletionPort::WakeOne() {
    if (m_sleepers > 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = write(m_wakeup.Get(), &one, sizeof one);
    }
}

void CompletionPort::DrainWakeups() const {
    std::uint64_t drained = 0;
    [[maybe_unused]] const auto got = read(m_wakeup.Get(), &drained, sizeof drained);
}

std::uint64_t CompletionPort::Watch(int descriptor, std::uint32_t events, const std::shared_ptr<PortSource>& source) {
    const std::lock_guard guard(m_mutex);
    epoll_event event{};
    event.events = events;
    event.data.u64 = m_nextId;
    if (epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        return 0;
    }
    m_watched.emplace(m_nextId, source);
    return m_nextId++;
}

void CompletionPort::Rewatch(int descriptor, std::uint32_t events, std::uint64_t id) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(m_epoll.Get(), EPOLL_CTL_MOD, descriptor, &event);
}

void CompletionPort::Unwatch(int descriptor, std::uint64_t id) {
    std::shared_ptr<PortSource> released; // its last reference may go here, but not under the mutex
    epoll_ctl(m_epoll.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
    const std::lock_guard guard(m_mutex);
    if (const auto found = m_watched.find(id); found != m_watched.end()) {
        released = std::move(found->second);
        m_watched.erase(found);
    }
}

void CompletionPort::OnClose() {
    decltype(m_watched) watched; // destroyed after the mutex is free
    decltype(m_dirty) dirty;
    const std::lock_guard guard(m_mutex);
    watched.swap(m_watched);
    dirty.swap(m_dirty);
    m_closed = true;
    WakeOne(); // and everyone else: the wake-up is not drained any more
}

bool CompletionPort::ServiceIsDue() const {
    return m_completions.empty() || m_handedOut >= kServiceInterval || m_dirtyBytes >= kServiceBytes;
}

void CompletionPort::ServiceDirty(std::unique_lock<std::mutex>& guard) {
    std::vector<std::shared_ptr<PortSource>> dirty;
    dirty.swap(m_dirty);
    m_dirtyBytes = 0;
    guard.unlock();
    for (const auto& source : dirty) {
        source->Service();
    }
    dirty.clear();
    guard.lock();
    if (m_dirty.empty()) {
        m_dirty.swap(dirty); // keeps the allocation
    }
}

bool CompletionPort::Poll(std::unique_lock<std::mutex>& guard, std::int64_t timeoutMs) {
    constexpr int kEventsAtOnce = 64;
    std::array<epoll_event, kEventsAtOnce> events;
    m_servicesUnpolled = 0;
    const bool blocks = timeoutMs != 0;
    m_sleepers += blocks ? 1 : 0;
    guard.unlock();
    WakeForDeferredWork();
    const int limit = timeoutMs < 0 ? -1 : static_cast<int>(std::min<std::int64_t>(timeoutMs, INT_MAX));
    const int count = epoll_wait(m_epoll.Get(), events.data(), kEventsAtOnce, limit);
    guard.lock();
    m_sleepers -= blocks ? 1 : 0;
    for (int i = 0; i < count; ++i) {
        const auto& event = events[static_cast<std::size_t>(i)];
        if (event.data.u64 == 0) {
            if (!m_closed) {
                DrainWakeups();
            }
            continue;
        }
        const auto found = m_watched.find(event.data.u64);
        if (found == m_watched.end()) {
            continue; // closed after epoll reported it
        }
        const auto source = found->second;
        guard.unlock();
        source->OnEvents(event.events);
        guard.lock();
    }
    return count != 0;
}

BOOL CompletionPort::Get(DWORD* transferred, ULONG_PTR* key, OVERLAPPED** overlapped, DWORD milliseconds) {
    const Deadline deadline(milliseconds);
    *overlapped = nullptr;
    std::unique_lock guard(m_mutex);
    for (bool timedOut = false;;) {
        if (m_closed) {
            return Fail(ERROR_ABANDONED_WAIT_0);
        }
        if (ServiceIsDue()) {
            m_handedOut = 0;
            ServiceDirty(guard);
            const bool idle = m_completions.empty() && m_dirty.empty();
            if (idle && timedOut) {
                return Fail(WAIT_TIMEOUT);
            }
            if (idle || ++m_servicesUnpolled >= kServicesPerPoll) {
                const std::int64_t limit = idle ? deadline.Remaining() : 0;
                timedOut = !Poll(guard, limit) && idle && deadline.Passed();
            }
        }
        if (!m_completions.empty() && !m_closed) {
            break;
        }
    }
    const Completion next = m_completions.front();
    m_completions.pop_front();
    ++m_handedOut;
    if (!m_completions.empty()) {
        WakeOne(); // other threads may have slept since these were queued
    }
    *transferred = next.transferred;
    *key = next.key;
    *overlapped = next.overlapped;
    return next.error == 0 ? TRUE : Fail(next.error);
}

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE existingPort, ULONG_PTR key, DWORD /*concurrentThreads*/) {
    if (file == INVALID_HANDLE_VALUE) {
        if (existingPort != nullptr) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        return AddHandle(std::make_shared<CompletionPort>());
    }
    const auto port = Find<CompletionPort>(existingPort);
    const auto pipe = port ? Find<Pipe>(file) : nullptr;
    return pipe && pipe->Associate(port, key) ? existingPort : nullptr;
}

BOOL GetQueuedCompletionStatus(HANDLE handle, DWORD* transferred, ULONG_PTR* key, OVERLAPPED** overlapped,
                               DWORD milliseconds) {
    *overlapped = nullptr;
    const auto port = Find<CompletionPort>(handle);
    return port ? port->Get(transferred, key, overlapped, milliseconds) : FALSE;
}

BOOL PostQueuedCompletionStatus(HANDLE handle, DWORD transferred, ULONG_PTR key, OVERLAPPED* overlapped) {
    const auto port = Find<CompletionPort>(handle);
    if (!port) {
        return FALSE;
    }
    port->Queue({transferred, key, overlapped, ERROR_SUCCESS});
    return TRUE;
}

} // namespace Vantor::Sentrix::Platform
