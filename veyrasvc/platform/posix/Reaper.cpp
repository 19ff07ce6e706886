#include "veyrasvc/platform/posix/Reaper.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <system_error>
#include <thread>
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

    void Add(UniqueFd child) {
        const std::lock_guard guard(m_mutex);
        m_children.push_back(std::move(child));
        if (m_isRunning) {
            eventfd_write(m_wake.Get(), 1);
        } else {
            m_isRunning = StartThread();
        }
    }

private:
    // Without a thread to be had, the children wait for the next attempt. It takes no signals: they are the program's.
    bool StartThread() {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        bool started = true;
        try {
            std::thread([this] { Run(); }).detach();
        } catch (const std::system_error&) {
            started = false;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return started;
    }

    void Run() {
        std::vector<pollfd> polled;
        while (CollectEnded(polled)) {
            poll(polled.data(), polled.size(), -1);
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
    std::vector<UniqueFd> m_children; // guarded by m_mutex
    bool m_isRunning = false;         // guarded by m_mutex
};

} // namespace

void ReapWhenEnded(UniqueFd child) {
    static auto* const reaper = new Reaper; // never destroyed: its thread may run while the process exits
    reaper->Add(std::move(child));
}

} // namespace Vantor::Sentrix::Platform
