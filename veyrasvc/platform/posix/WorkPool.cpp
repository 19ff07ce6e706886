// QueueUserWorkItem: a process-wide pool that runs items in the order they were queued and grows when they block.
//
// Up to kEagerThreads are woken or started at once as items come. Beyond that a supervisor looks each millisecond
// while items wait: when they are not taken at a rate that shows the threads at work, it asks the kernel which of the
// threads could run, and adds as many as PoolGrowth says (up to kMaxThreads). Idle threads sleep on a stack, so that
// the busiest stay warm and the others time out and end.
#include "veyrasvc/platform/posix/WorkPool.h"

#include "veyrasvc/platform/posix/PoolGrowth.h"
#include "veyrasvc/platform/posix/Ring.h"
#include "veyrasvc/platform/posix/StartThread.h"
#include "veyrasvc/platform/posix/ThreadState.h"
#include "veyrasvc/platform/posix/Wait.h"

#include <pthread.h>

#include <array>
#include <mutex>
#include <new>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr std::size_t kMaxThreads = 500;
constexpr std::size_t kEagerThreads = 2;
constexpr std::int64_t kTickMs = 1;
constexpr DWORD kIdleMs = 10'000;

// Items of one burst that are queued without a wake-up.
constexpr int kDeferredItems = 32;

// Room for items that is kept when none is left.
constexpr std::size_t kKeptItems = 4096;

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

// A thread of the pool, or a place for one. Its memory stays, so that it can be woken without the mutex, which it is
// going to take first of all: a wake-up that comes too late finds a thread that looks and sleeps again.
struct Runner {
    enum class State { kNone, kUnbegun, kIdle, kTaking, kInside };

    Waiter waiter;
    State state = State::kNone; // this and all below are guarded by the pool's mutex
    pid_t id = 0;
    bool isBlocked = false;     // found blocked since it took its item
    Runner* nextIdle = nullptr; // one that has slept longer
};

class WorkPool {
public:
    bool Queue(Item item) {
        Runner* woken = nullptr;
        {
            const std::lock_guard guard(m_mutex);
            if (!m_items.Reserve(m_items.Size() + 1)) {
                return false;
            }
            const bool isFirst = m_threads == 0;
            if (isFirst && !AddRunner(woken)) {
                return false; // no thread could be had, and none would come to run it
            }
            m_items.PushBack(item);
            if (!isFirst && (!deferredWork.defers || ++deferredWork.items >= kDeferredItems)) {
                deferredWork.items = 0;
                SeeToItems(woken);
            }
        }
        Wake(woken);
        return true;
    }

    void WakeForDeferred() {
        Runner* woken = nullptr;
        {
            const std::lock_guard guard(m_mutex);
            deferredWork.items = 0;
            if (!m_items.Empty()) {
                SeeToItems(woken);
            }
        }
        Wake(woken);
    }

    // Around a fork. In the child the threads are gone, and the items are the parent's business.
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }
    void StartAfresh() {
        m_items.Clear();
        for (Runner& runner : m_runners) {
            runner.state = Runner::State::kNone;
            runner.isBlocked = false;
        }
        m_idle = nullptr;
        m_threads = m_sleeping = m_unbegun = m_blocked = 0;
        m_hasSupervisor = m_supervisorAwake = false;
        m_mutex.unlock();
    }

private:
    static void Wake(Runner* runner) {
        if (runner != nullptr) {
            runner->waiter.Notify();
        }
    }

    std::size_t BusyThreads() const { return m_threads - m_sleeping; }

    // Sees to it that a thread takes what is queued. The caller wakes `woken`.
    void SeeToItems(Runner*& woken) {
        const bool added = BusyThreads() - m_blocked < kEagerThreads && AddRunner(woken);
        if (!added || m_items.Size() > 1) {
            WakeSupervisor(); // the first of the items may block the thread that takes it
        }
    }

    // A further thread to take items: an idle one, which the caller wakes, else a new one.
    bool AddRunner(Runner*& woken) {
        if (m_idle != nullptr) {
            woken = std::exchange(m_idle, m_idle->nextIdle);
            woken->state = Runner::State::kUnbegun;
            --m_sleeping;
            ++m_unbegun;
            return true;
        }
        return m_threads < kMaxThreads && StartRunner();
    }

    bool StartRunner() {
        std::size_t place = 0;
        while (m_runners[place].state != Runner::State::kNone) {
            ++place;
        }
        if (!StartThread(&WorkPool::RunnerProc, &m_runners[place])) {
            return false;
        }
        m_runners[place].state = Runner::State::kUnbegun;
        ++m_threads;
        ++m_unbegun;
        return true;
    }

    static void* RunnerProc(void* runner);
    static void* SupervisorProc(void* pool) {
        static_cast<WorkPool*>(pool)->Supervise();
        return nullptr;
    }

    void Run(Runner& self) {
        std::unique_lock guard(m_mutex);
        self.id = static_cast<pid_t>(GetCurrentThreadId());
        do {
            --m_unbegun;
            self.state = Runner::State::kTaking;
            while (!m_items.Empty()) {
                RunOne(self, guard);
            }
            if (m_items.Capacity() > kKeptItems) {
                m_items.Clear();
            }
        } while (AwaitItems(self, guard));
        self.state = Runner::State::kNone;
        --m_unbegun;
        --m_threads;
    }

    void RunOne(Runner& self, std::unique_lock<AdaptiveMutex>& guard) {
        const Item item = m_items.PopFront();
        ++m_started;
        self.state = Runner::State::kInside;
        guard.unlock();
        item.function(item.context);
        guard.lock();
        self.state = Runner::State::kTaking;
        m_blocked -= std::exchange(self.isBlocked, false) ? 1 : 0;
    }

    // False when nothing came for so long that the thread should end.
    bool AwaitItems(Runner& self, std::unique_lock<AdaptiveMutex>& guard) {
        self.state = Runner::State::kIdle;
        self.nextIdle = std::exchange(m_idle, &self);
        ++m_sleeping;
        const Deadline deadline(kIdleMs);
        while (!deadline.Passed()) {
            self.waiter.Prepare();
            guard.unlock();
            self.waiter.Sleep(deadline.Remaining());
            guard.lock();
            if (self.state != Runner::State::kIdle) {
                return true; // the thread that woke this one took it off the stack
            }
        }
        LeaveIdle(self);
        return !m_items.Empty();
    }

    void LeaveIdle(Runner& self) {
        Runner** link = &m_idle;
        while (*link != &self) {
            link = &(*link)->nextIdle;
        }
        *link = self.nextIdle;
        --m_sleeping;
        ++m_unbegun;
    }

    void WakeSupervisor() {
        if (m_supervisorAwake) {
            return;
        }
        m_supervisorAwake = true;
        if (m_hasSupervisor) {
            m_supervisor.Notify();
            return;
        }
        m_hasSupervisor = m_supervisorAwake = StartThread(&WorkPool::SupervisorProc, this); // else the next item tries
    }

    void Supervise() {
        std::unique_lock guard(m_mutex);
        for (;;) {
            const std::uint64_t started = m_started;
            m_supervisor.Prepare();
            guard.unlock();
            m_supervisor.Sleep(kTickMs);
            guard.lock();
            if (m_items.Empty()) {
                m_supervisorAwake = false;
                while (!m_supervisorAwake) {
                    m_supervisor.Prepare();
                    guard.unlock();
                    m_supervisor.Sleep(-1);
                    guard.lock();
                }
            } else if (!PoolGrowth::IsAtWork(m_started - started) && BusyThreads() < kMaxThreads) {
                Grow(guard);
            }
        }
    }

    void Grow(std::unique_lock<AdaptiveMutex>& guard) {
        const bool couldRun = AnyCouldRun(guard);
        std::size_t wanted = m_growth.Add(MonotonicMs(), m_items.Size(), BusyThreads(), couldRun);
        for (Runner* woken = nullptr; wanted > 0 && AddRunner(woken); --wanted) {
            Wake(std::exchange(woken, nullptr));
        }
    }

    // Whether a busy thread has not begun, or is not blocked. The kernel is asked without the mutex. Threads that are
    // blocked are noted as such, if all are.
    bool AnyCouldRun(std::unique_lock<AdaptiveMutex>& guard) {
        if (m_unbegun > 0) {
            return true;
        }
        const std::uint64_t started = m_started;
        std::size_t count = 0;
        for (const Runner& runner : m_runners) {
            if (runner.state == Runner::State::kInside) {
                m_asked[count++] = runner.id;
            }
        }
        guard.unlock();
        std::size_t blocked = 0;
        while (blocked < count && StateOf(m_asked[blocked]) == ThreadState::kBlocked) {
            ++blocked;
        }
        guard.lock();
        if (blocked < count || started != m_started) {
            return true;
        }
        for (Runner& runner : m_runners) {
            const bool isNew = runner.state == Runner::State::kInside && !runner.isBlocked;
            runner.isBlocked = runner.isBlocked || isNew;
            m_blocked += isNew ? 1 : 0;
        }
        return false;
    }

    AdaptiveMutex m_mutex;
    Waiter m_supervisor;
    std::array<pid_t, kMaxThreads> m_asked{}; // the supervisor's alone
    // All guarded by m_mutex.
    Ring<Item> m_items;
    std::array<Runner, kMaxThreads> m_runners;
    Runner* m_idle = nullptr; // the one that has slept the shortest
    std::size_t m_threads = 0;
    std::size_t m_sleeping = 0;  // threads that are idle
    std::size_t m_unbegun = 0;   // threads that were started or woken and have not got the mutex since
    std::size_t m_blocked = 0;   // threads inside an item that were found blocked in it
    std::uint64_t m_started = 0; // items taken since the pool began
    PoolGrowth m_growth;
    bool m_hasSupervisor = false;
    bool m_supervisorAwake = false;
};

// Never destroyed: its threads may run while the process exits.
WorkPool& Pool() {
    alignas(WorkPool) static unsigned char memory[sizeof(WorkPool)];
    static WorkPool* const pool = [] {
        auto* const made = ::new (static_cast<void*>(memory)) WorkPool;
        pthread_atfork([] { Pool().Lock(); }, [] { Pool().Unlock(); }, [] { Pool().StartAfresh(); });
        return made;
    }();
    return *pool;
}

void* WorkPool::RunnerProc(void* runner) {
    Pool().Run(*static_cast<Runner*>(runner));
    return nullptr;
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
