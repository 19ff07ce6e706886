#include "veyrasvc/platform/posix/CompletionPort.h"

#include "veyrasvc/platform/posix/Pipe.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace Vantor::Sentrix::Platform {

CompletionPort::CompletionPort()
    : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = 0;
    if (epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, m_wakeup.Get(), &event) != 0) {
        const int error = errno;
        m_epoll.Reset();
        errno = error == EBADF ? EMFILE : error; // one of the two could not be had
    }
}

bool CompletionPort::Reserve() {
    if (m_reserved.fetch_add(1, std::memory_order_relaxed) < m_places.load(std::memory_order_acquire)) {
        return true;
    }
    const std::lock_guard guard(m_mutex);
    if (!m_completions.Reserve(m_reserved.load(std::memory_order_relaxed))) {
        Unreserve();
        return false;
    }
    m_places.store(m_completions.Capacity(), std::memory_order_release);
    return true;
}

void CompletionPort::Queue(const Completion& completion) {
    const std::lock_guard guard(m_mutex);
    m_completions.PushBack(completion);
    WakeOne();
}

void CompletionPort::MarkDirty(const std::shared_ptr<PortSource>& source, std::size_t bytes) {
    const std::lock_guard guard(m_mutex);
    (m_firstDirty ? m_lastDirty->m_nextDirty : m_firstDirty) = source;
    m_lastDirty = source.get();
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
    const bool isKnown = IfMemoryLasts(false, [&] { return m_watched.emplace(m_nextId, source).second; });
    if (!isKnown || epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        m_watched.erase(m_nextId);
        return 0;
    }
    return m_nextId++;
}

bool CompletionPort::Rewatch(int descriptor, std::uint32_t events, std::uint64_t id) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(m_epoll.Get(), EPOLL_CTL_MOD, descriptor, &event) == 0;
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
    decltype(m_watched) watched; // these are released when the mutex is free
    std::shared_ptr<PortSource> dirty;
    {
        const std::lock_guard guard(m_mutex);
        watched.swap(m_watched);
        dirty = std::move(m_firstDirty);
        m_closed = true;
        WakeOne(); // and everyone else: the wake-up is not drained any more
    }
    while (dirty) {
        dirty = std::move(dirty->m_nextDirty);
    }
}

bool CompletionPort::ServiceIsDue() const {
    return m_completions.Empty() || m_handedOut >= kServiceInterval || m_dirtyBytes >= kServiceBytes;
}

void CompletionPort::ServiceDirty(std::unique_lock<std::mutex>& guard) {
    std::shared_ptr<PortSource> source = std::move(m_firstDirty);
    m_dirtyBytes = 0;
    guard.unlock();
    while (source) {
        const auto next = std::move(source->m_nextDirty); // first: once it is served it may be marked again
        source->Service();
        source = next;
    }
    guard.lock();
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
            const bool idle = m_completions.Empty() && !m_firstDirty;
            if (idle && timedOut) {
                return Fail(WAIT_TIMEOUT);
            }
            if (idle || ++m_servicesUnpolled >= kServicesPerPoll) {
                const std::int64_t limit = idle ? deadline.Remaining() : 0;
                timedOut = !Poll(guard, limit) && idle && deadline.Passed();
            }
        }
        if (!m_completions.Empty() && !m_closed) {
            break;
        }
    }
    const Completion next = m_completions.PopFront();
    Unreserve();
    ++m_handedOut;
    if (!m_completions.Empty()) {
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
        auto port = MakeObject<CompletionPort>();
        if (port && !port->Valid()) {
            SetLastError(ErrorFromErrno(errno));
            return nullptr;
        }
        return AddHandle(std::move(port));
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
    if (!port->Reserve()) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    port->Queue({transferred, key, overlapped, ERROR_SUCCESS});
    return TRUE;
}

} // namespace Vantor::Sentrix::Platform
