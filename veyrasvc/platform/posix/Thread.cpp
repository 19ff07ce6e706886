// Threads: CreateThread and what a thread can say of itself.
#include "veyrasvc/platform/posix/Wait.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <system_error>
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
    bool TryAcquire() override { return m_finished.load(std::memory_order_seq_cst); }

private:
    std::atomic<bool> m_finished{false};
};

} // namespace

HANDLE CreateThread(SECURITY_ATTRIBUTES* /*attributes*/, SIZE_T /*stackSize*/, LPTHREAD_START_ROUTINE start,
                    void* parameter, DWORD flags, DWORD* threadId) {
    if (start == nullptr || flags != 0 || threadId != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto thread = std::make_shared<Thread>();
    const HANDLE handle = AddHandle(thread);
    if (handle == nullptr) {
        return nullptr;
    }
    try {
        std::thread([thread, start, parameter] {
            isOwnThread = true;
            start(parameter);
            WakeForDeferredWork(); // the thread's end comes after all that it did
            thread->Finish();
        }).detach();
    } catch (const std::system_error&) {
        CloseHandle(handle);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
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
