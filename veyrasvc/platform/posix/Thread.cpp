// Threads: CreateThread and what a thread can say of itself.
#include "veyrasvc/platform/posix/StartThread.h"
#include "veyrasvc/platform/posix/Wait.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <thread>

namespace Vantor::Sentrix::Platform {

namespace {

thread_local bool isOwnThread = false;

// Signalled when the thread's procedure has returned. A thread runs on if its handle is closed.
class Thread final : public Waitable {
public:
    void Finish() {
        m_finished.store(true, std::memory_order_seq_cst);
        NotifyWaiters();
    }
    // A thread does not come along into a forked process: there it has ended.
    bool TryAcquire() override {
        return m_finished.load(std::memory_order_seq_cst) || m_generation != ForkGeneration();
    }

private:
    std::atomic<bool> m_finished{false};
    const unsigned m_generation = ForkGeneration();
};

struct Launch {
    std::shared_ptr<Thread> thread;
    LPTHREAD_START_ROUTINE start;
    void* parameter;
};

void* RunThread(void* launched) {
    std::unique_ptr<Launch> launch(static_cast<Launch*>(launched));
    isOwnThread = true;
    launch->start(launch->parameter);
    WakeForDeferredWork(); // the thread's end comes after all that it did
    launch->thread->Finish();
    return nullptr;
}

} // namespace

HANDLE CreateThread(SECURITY_ATTRIBUTES* /*attributes*/, SIZE_T /*stackSize*/, LPTHREAD_START_ROUTINE start,
                    void* parameter, DWORD flags, DWORD* threadId) {
    if (start == nullptr || flags != 0 || threadId != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto thread = MakeObject<Thread>();
    std::unique_ptr<Launch> launch(thread ? new (std::nothrow) Launch{thread, start, parameter} : nullptr);
    if (!launch) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const HANDLE handle = AddHandle(std::move(thread));
    if (handle == nullptr) {
        return nullptr;
    }
    if (!StartThread(&RunThread, launch.get())) {
        CloseHandle(handle);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    static_cast<void>(launch.release()); // the thread has it
    return handle;
}

bool BlocksOnlyInWaits() {
    return isOwnThread;
}

DWORD GetCurrentThreadId() {
    static thread_local const auto id = static_cast<DWORD>(syscall(SYS_gettid));
    return id;
}

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

void Sleep(DWORD milliseconds) {
    WakeForDeferredWork();
    if (milliseconds == 0) {
        std::this_thread::yield();
        return;
    }
    if (milliseconds == INFINITE) {
        for (;;) {
            pause();
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

} // namespace Vantor::Sentrix::Platform
