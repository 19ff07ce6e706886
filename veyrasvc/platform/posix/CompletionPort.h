// Completion ports: an epoll set joined with a queue of completions in memory.
//
// Whoever asks the port for a completion does the work behind it: it writes what was issued since it last asked, reads
// from the sockets that have bytes for a pending read, and accepts clients. There is no thread of the port's own. A
// completion that is known already is handed out without a system call; the sockets are looked at when none is left,
// and also after kServiceInterval completions or kServiceBytes of unwritten data, so that no connection waits for long
// behind a busy one.
//
// Every operation reserves its place in the queue when it begins, and fails then if there is no memory for it. So an
// operation that has begun completes, whatever becomes of the memory.
#pragma once

#include "veyrasvc/platform/posix/Ring.h"
#include "veyrasvc/platform/posix/UniqueFd.h"
#include "veyrasvc/platform/posix/Wait.h"

#include <atomic>
#include <unordered_map>

namespace Vantor::Sentrix::Platform {

// What a port watches and serves.
class PortSource {
public:
    virtual ~PortSource() = default;
    // On the thread that asks for completions, with no lock of the port held: epoll reported these events.
    virtual void OnEvents(std::uint32_t events) = 0;
    // The same, after MarkDirty: move what can be moved.
    virtual void Service() = 0;

private:
    friend class CompletionPort;
    std::shared_ptr<PortSource> m_nextDirty; // the port's list; guarded by the port's mutex while this is on it
};

struct Completion {
    DWORD transferred;
    ULONG_PTR key;
    OVERLAPPED* overlapped;
    DWORD error; // 0: the operation succeeded
};

class CompletionPort final : public Object {
public:
    CompletionPort();
    // False, with errno set, when the system had no descriptors for it just now.
    bool Valid() const { return m_epoll.Valid(); }

    BOOL Get(DWORD* transferred, ULONG_PTR* key, OVERLAPPED** overlapped, DWORD milliseconds);

    // A place in the queue for a completion that is going to come. Fails: false without memory. Any thread.
    bool Reserve();
    // The completion is not going to come after all.
    void Unreserve() { m_reserved.fetch_sub(1, std::memory_order_relaxed); }

    // Adds a completion, to a place that was reserved. Any thread.
    void Queue(const Completion& completion);

    // `source`, which is not marked, has something to move: `bytes` more to write, or 0 for a read. Any thread.
    void MarkDirty(const std::shared_ptr<PortSource>& source, std::size_t bytes);
    // A source that is marked has that many more bytes to write.
    void AddDirtyBytes(std::size_t bytes);

    // Watches a descriptor for a source, which the port keeps alive until Unwatch. Returns 0 when it cannot
    // be had.
    std::uint64_t Watch(int descriptor, std::uint32_t events, const std::shared_ptr<PortSource>& source);
    bool Rewatch(int descriptor, std::uint32_t events, std::uint64_t id) const;
    // Call before the descriptor is closed.
    void Unwatch(int descriptor, std::uint64_t id);

    void OnClose() override;

private:
    static constexpr int kServiceInterval = 64;
    static constexpr std::size_t kServiceBytes = 32 * 1024;
    static constexpr int kServicesPerPoll = 4;

    bool ServiceIsDue() const;
    void ServiceDirty(std::unique_lock<std::mutex>& guard);
    // False when nothing happened before the time limit.
    bool Poll(std::unique_lock<std::mutex>& guard, std::int64_t timeoutMs);
    void DrainWakeups() const;
    void WakeOne();

    UniqueFd m_epoll;
    UniqueFd m_wakeup; // an eventfd in the epoll set, under id 0

    std::atomic<std::size_t> m_reserved{0}; // places that are reserved or taken
    std::atomic<std::size_t> m_places{0};   // the capacity of m_completions

    std::mutex m_mutex;
    // All guarded by m_mutex.
    Ring<Completion> m_completions;
    std::shared_ptr<PortSource> m_firstDirty;
    PortSource* m_lastDirty = nullptr; // of the list that begins with m_firstDirty
    std::size_t m_dirtyBytes = 0;
    std::unordered_map<std::uint64_t, std::shared_ptr<PortSource>> m_watched;
    std::uint64_t m_nextId = 1;
    int m_sleepers = 0;
    int m_handedOut = 0;        // completions since the last service
    int m_servicesUnpolled = 0; // services since the last look at epoll
    bool m_closed = false;
};

} // namespace Vantor::Sentrix::Platform
