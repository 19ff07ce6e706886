#include "veyrasvc/platform/posix/Reaper.h"

#include "veyrasvc/platform/posix/StartThread.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <new>
#include <vector>

namespace Vantor::Sentrix::Platform {

namespace {

bool Collect(const UniqueFd& child) {
    siginfo_t info{};
    const int result = waitid(P_PIDFD, static_cast<id_t>(child.Get()), &info, WEXITED | WNOHANG);
    return result != 0 ? errno != EINTR : info.si_pid != 0;
}

class Reaper {
public:
    Reaper() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    void Add(Child child) {
        const std::lock_guard guard(m_mutex);
        m_children.splice(m_children.end(), child);
        if (m_isRunning) {
            eventfd_write(m_wake.Get(), 1);
        } else {
            m_isRunning = StartThread();
        }
    }

    // Around a fork. The parent's children are no children of the child's.
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }
    void StartAfresh() {
        m_children.clear();
        m_isRunning = false;
        m_mutex.unlock();
    }

private:
    // Without a thread to be had, the children wait for the next attempt. It takes no signals: they are the program's.
    bool StartThread() {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        const auto run = [](void* self) -> void* {
            static_cast<Reaper*>(self)->Run();
            return nullptr;
        };
        const bool started = Platform::StartThread(run, this);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return started;
    }

    void Run() {
        constexpr int kWithoutMemoryMs = 100; // the children are looked at now and then, until there is some
        std::vector<pollfd> polled;
        for (bool more = true; more;) {
            int limit = -1;
            try {
                more = CollectEnded(polled);
            } catch (const std::bad_alloc&) {
                limit = kWithoutMemoryMs;
            }
            if (more) {
                poll(polled.data(), limit < 0 ? polled.size() : 0, limit);
            }
        }
    }

    // False when no child is left; then this thread is not the reaper any more.
    bool CollectEnded(std::vector<pollfd>& polled) {
        const std::lock_guard guard(m_mutex);
        eventfd_t wakes = 0;
        eventfd_read(m_wake.Get(), &wakes);
        std::erase_if(m_children, Collect);
        polled.assign(1, {m_wake.Get(), POLLIN, 0});
        for (const UniqueFd& child : m_children) {
            polled.push_back({child.Get(), POLLIN, 0});
        }
        m_isRunning = !m_children.empty();
        return m_isRunning;
    }

    const UniqueFd m_wake;
    std::mutex m_mutex;
    Child m_children;         // guarded by m_mutex
    bool m_isRunning = false; // guarded by m_mutex
};

// Never destroyed: its thread may run while the process exits.
Reaper& TheReaper() {
    alignas(Reaper) static unsigned char memory[sizeof(Reaper)];
    static Reaper* const reaper = [] {
        auto* const made = ::new (static_cast<void*>(memory)) Reaper;
        pthread_atfork([] { TheReaper().Lock(); }, [] { TheReaper().Unlock(); }, [] { TheReaper().StartAfresh(); });
        return made;
    }();
    return *reaper;
}

} // namespace

void ReapWhenEnded(Child child) {
    TheReaper().Add(std::move(child));
}

} // namespace Vantor::Sentrix::Platform
