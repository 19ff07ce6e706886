// QueueUserWorkItem: a process-wide pool that runs items in the order they were queued and grows when they block.
//
// Up to kEagerThreads are woken or started at once as items come. Beyond that a supervisor looks each millisecond
// while items wait: when the threads have stopped taking items they are blocked, and every waiting item gets a thread
// (up to kMaxThreads), all in one go; when they are merely busy with many short items, more threads would only be in
// each other's way. Idle threads sleep on a stack, so that the busiest stay warm and the others time out and end.
#include "veyrasvc/platform/posix/WorkPool.h"

#include "veyrasvc/platform/posix/Wait.h"

#include <pthread.h>

#include <algorithm>
#include <deque>
#include <system_error>
#include <thread>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr std::size_t kMaxThreads = 500;
constexpr std::size_t kEagerThreads = 2;
constexpr std::int64_t kTickMs = 1;
constexpr std::int64_t kIdleMs = 10'000;
// Items started within one tick that show the threads to be working, not blocked.
constexpr std::uint64_t kBusyItemsPerTick = 16;

// Items of one burst that are queued without a wake-up.
constexpr int kDeferredItems = 32;

struct DeferredWork {
    bool defers = false;
    int items = 0; // queued and nobody woken for them
};
thread_local DeferredWork deferredWork;

// Held for a few instructions by threads that run at the same time: spinning for a moment beats going to sleep.
class AdaptiveMutex {
public:
    AdaptiveMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    void lock() { pthread_mutex_lock(&m_mutex); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

struct Item {
    LPTHREAD_START_ROUTINE function;
    void* context;
};

class WorkPool {
public:
    bool Queue(Item item) {
        Sleeper woken;
        {
            const std::lock_guard guard(m_mutex);
            m_items.push_back(item);
            if (deferredWork.defers && m_threads > 0 && ++deferredWork.items < kDeferredItems) {
                return true;
            }
            deferredWork.items = 0;
            if (!SeeToItems(woken)) {
                m_items.pop_back(); // no thread could be had, and none will come to run it
                return false;
            }
        }
        Wake(woken);
        return true;
    }

    void WakeForDeferred() {
        Sleeper woken;
        {
            const std::lock_guard guard(m_mutex);
            deferredWork.items = 0;
            if (!m_items.empty()) {
                SeeToItems(woken);
            }
        }
        Wake(woken);
    }

private:
    // Shared, so that a thread can be woken without the mutex, which it is going to take first of all.
    using Sleeper = std::shared_ptr<Waiter>;

    static void Wake(const Sleeper& sleeper) {
        if (sleeper) {
            sleeper->Notify();
        }
    }

    std::size_t BusyThreads() const { return m_threads - m_idle.size(); }

    // Sees to it that somebody takes what is queued; false when there is no thread at all. The caller wakes `woken`.
    bool SeeToItems(Sleeper& woken) {
        const bool added = BusyThreads() - m_blocked < kEagerThreads && AddRunner(woken);
        if (!added || m_items.size() > 1) {
            WakeSupervisor(); // the first of the items may block whoever takes it
        }
        return m_threads > 0;
    }

    // A further thread to take items: an idle one, which the caller wakes, else a new one.
    bool AddRunner(Sleeper& woken) {
        if (!m_idle.empty()) {
            woken = std::move(m_idle.back());
            m_idle.pop_back();
            return true;
        }
        if (m_threads >= kMaxThreads) {
            return false;
        }
        try {
            std::thread([this] { Run(); }).detach();
        } catch (const std::system_error&) {
            return false;
        }
        ++m_threads;
        return true;
    }

    void Run() {
        const auto self = std::make_shared<Waiter>();
        std::unique_lock guard(m_mutex);
        for (;;) {
            while (!m_items.empty()) {
                const Item item = m_items.front();
                m_items.pop_front();
                ++m_started;
                ++m_running;
                const std::uint64_t look = m_looks;
                guard.unlock();
                item.function(item.context);
                guard.lock();
                --m_running;
                m_blocked -= look < m_blockedAt ? 1 : 0;
            }
            if (!AwaitItems(self, guard)) {
                --m_threads;
                return;
            }
        }
    }

    // False when nothing came for so long that the thread should end.
    bool AwaitItems(const Sleeper& self, std::unique_lock<AdaptiveMutex>& guard) {
        self->Prepare();
        m_idle.push_back(self);
        guard.unlock();
        self->Sleep(kIdleMs);
        guard.lock();
        const auto found = std::find(m_idle.begin(), m_idle.end(), self);
        if (found == m_idle.end()) {
            return true; // whoever woke this thread took it off the stack
        }
        m_idle.erase(found);
        return !m_items.empty();
    }

    void WakeSupervisor() {
        if (m_supervisorAwake) {
            return;
        }
        m_supervisorAwake = true;
        if (m_supervisor != nullptr) {
            m_supervisor->Notify();
            return;
        }
        try {
            std::thread([this] { Supervise(); }).detach();
        } catch (const std::system_error&) {
            m_supervisorAwake = false; // the next item tries again; the threads there are go on
        }
    }

    void Supervise() {
        Waiter& waiter = Waiter::OfThisThread();
        std::unique_lock guard(m_mutex);
        m_supervisor = &waiter;
        for (;;) {
            const std::uint64_t started = m_started;
            waiter.Prepare();
            guard.unlock();
            waiter.Sleep(kTickMs);
            guard.lock();
            if (m_items.empty()) {
                m_supervisorAwake = false;
                waiter.Prepare();
                guard.unlock();
                waiter.Sleep(-1);
                guard.lock();
            } else {
                Grow(m_started - started);
            }
        }
    }

    void Grow(std::uint64_t startedInTick) {
        if (startedInTick >= kBusyItemsPerTick) {
            return;
        }
        // What the threads that came in the last tick took first says nothing of the others.
        const bool blocked = startedInTick <= m_added;
        if (blocked) {
            m_blocked = m_running;
            m_blockedAt = ++m_looks;
        }
        std::size_t wanted = blocked ? m_items.size() : 1;
        m_added = 0;
        for (Sleeper woken; wanted > 0 && AddRunner(woken); --wanted, ++m_added) {
            Wake(std::exchange(woken, nullptr));
        }
    }

    AdaptiveMutex m_mutex;
    // All guarded by m_mutex.
    std::deque<Item> m_items;
    std::vector<Sleeper> m_idle; // the last one has slept the shortest
    std::size_t m_threads = 0;
    std::size_t m_running = 0;     // threads inside an item
    std::size_t m_blocked = 0;     // those of them that were inside at the last look that found no progress
    std::uint64_t m_looks = 0;     // such looks of the supervisor
    std::uint64_t m_blockedAt = 0; // the last of them
    std::uint64_t m_added = 0;     // by the supervisor's last look
    std::uint64_t m_started = 0;   // items taken since the pool began
    Waiter* m_supervisor = nullptr;
    bool m_supervisorAwake = false;
};

// Never destroyed: its threads may run while the process exits.
WorkPool& Pool() {
    static auto* const pool = new WorkPool;
    return *pool;
}

} // namespace

void DeferWorkWakeUps() {
    deferredWork.defers = true;
}

void WakeForDeferredWork() {
    if (deferredWork.items > 0) {
        Pool().WakeForDeferred();
    }
}

BOOL QueueUserWorkItem(LPTHREAD_START_ROUTINE function, void* context, ULONG flags) {
    if (function == nullptr || (flags != WT_EXECUTEDEFAULT && flags != WT_EXECUTELONGFUNCTION)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    return Pool().Queue({function, context}) ? TRUE : Fail(ERROR_NOT_ENOUGH_MEMORY);
}

} // namespace Vantor::Sentrix::Platform
