// Waiting: what the waitable objects share.
//
// A thread that has to block puts its Waiter on every object it waits for, looks once more, and goes to sleep; an
// object that becomes signalled notifies the waiters on its list, and each of those tries again to acquire. Signalling
// an object that nobody waits for, and waiting for one that is signalled already, make no system call.
//
// Overlapped pipe I/O that reports to an event has no thread of its own: a wait for such an event polls the pipe of the
// operation and performs its reads and writes itself. An event therefore knows the source that will signal it.
//
// Waiting takes no memory: what a wait needs is on the stack of the thread that waits.
#pragma once

#include "veyrasvc/platform/posix/FixedVector.h"
#include "veyrasvc/platform/posix/Handle.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace Vantor::Sentrix::Platform {

class Waiter;

// Something whose progress is made by the thread that waits for it.
class ProgressSource {
public:
    virtual ~ProgressSource() = default;

    // Does what can be done without blocking. Called with no lock held, before a thread blocks and after every poll.
    // `revents` is what poll() reported for the descriptor, 0 before the first poll.
    virtual void Progress(short revents) = 0;

    // Descriptor and poll() events to wait for; -1 when there is nothing to wait for.
    virtual int PollDescriptor(short& events) = 0;
};

// A waiter's place on the list of one object.
struct WaitLink {
    Waiter* waiter = nullptr;
    WaitLink* previous = nullptr;
    WaitLink* next = nullptr;
};

class Waitable : public Object {
public:
    // Takes the signal if there is one (an auto-reset event and a mutex change by it).
    virtual bool TryAcquire() = 0;

    // The source that is going to signal this object, if its progress needs the waiting thread.
    virtual std::shared_ptr<ProgressSource> Source() { return nullptr; }

    // The link is borrowed from the first of these calls to the second.
    void AddWaiter(WaitLink& link);
    void RemoveWaiter(WaitLink& link);

protected:
    // Wakes everyone who waits; call after the state changed, with sequentially consistent order.
    void NotifyWaiters();

private:
    std::atomic<int> m_waiterCount{0};
    std::mutex m_waitersMutex;
    WaitLink* m_first = nullptr; // this and the next are guarded by m_waitersMutex
    WaitLink* m_last = nullptr;
};

// One thread's place to sleep: on a futex, or in poll() when descriptors are waited for as well.
class Waiter {
public:
    Waiter() = default;
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    // Forgets earlier notifications. Call before the conditions are checked for the last time before a sleep.
    void Prepare();
    // Any thread: ends the sleep, or keeps the next one from starting.
    void Notify();
    // Until notified or `timeoutMs` has passed (negative: without limit).
    void Sleep(std::int64_t timeoutMs);

    struct Polled {
        std::shared_ptr<ProgressSource> source;
        int descriptor = -1;
        short events = 0;
        short revents = 0;
    };
    using PolledList = FixedVector<Polled, MAXIMUM_WAIT_OBJECTS>;
    // The same, or until one of the descriptors is ready; fills in `revents`. Those that are -1 are passed over.
    void SleepPolling(PolledList& polled, std::int64_t timeoutMs);

    static Waiter& OfThisThread();

private:
    enum State : std::uint32_t { kAwake, kNotified, kInFutex, kInPoll };
    bool BeginSleep(State how);

    std::atomic<std::uint32_t> m_state{kAwake};
    std::atomic<int> m_eventFd{-1}; // the thread's own, see Wait.cpp
};

// True on the threads that CreateThread made. They are the library's own and block nowhere but in the waits of this
// stand-in, so what they should do before they block can be put off until then. A caller's thread may block anywhere.
bool BlocksOnlyInWaits();

// Milliseconds of a clock that never goes back.
std::int64_t MonotonicMs();

// A time limit in the form the Windows calls take it; INFINITE never passes.
class Deadline {
public:
    explicit Deadline(DWORD milliseconds);
    // Milliseconds left, at least 0; -1 without limit.
    std::int64_t Remaining() const;
    bool Passed() const { return Remaining() == 0; }

private:
    std::int64_t m_end; // -1: never
};

} // namespace Vantor::Sentrix::Platform
