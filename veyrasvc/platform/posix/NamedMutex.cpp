// Mutexes: owned by a thread, re-entrant, abandoned when their owner ends.
//
// A named mutex lives in a shared-memory file (MutexFile.h), an unnamed one in this process; both are the same robust
// pthread mutex. All handles of one name in this process share one object: a robust mutex that is held must stay
// mapped, at the one address its owner locked it at, until it is released or the owner has ended. For that reason an
// owned mutex holds a reference to itself: a handle may be closed under its owner, as on Windows.
#include "veyrasvc/platform/posix/BlockingWaitable.h"
#include "veyrasvc/platform/posix/MutexFile.h"
#include "veyrasvc/platform/posix/Utf8.h"
#include "veyrasvc/platform/posix/Wait.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

[[maybe_unused]] constexpr std::int64_t kNanosecondsPerMs = 1'000'000;
[[maybe_unused]] constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Unlike the system's thread ids, never used twice.
std::uint64_t ThisThread() {
    static std::atomic<std::uint64_t> next{1};
    static thread_local const std::uint64_t id = next.fetch_add(1, std::memory_order_relaxed);
    return id;
}

int LockWithin(pthread_mutex_t* mutex, DWORD milliseconds) {
#ifdef __SANITIZE_THREAD__
    // The thread sanitizer follows neither clocklock nor, through timedlock, a mutex whose owner has ended.
    const Deadline deadline(milliseconds);
    for (;;) {
        const bool isLast = deadline.Passed();
        const int error = pthread_mutex_trylock(mutex);
        if (error != EBUSY || isLast) {
            return error;
        }
        Sleep(1);
    }
#else
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const std::int64_t nanoseconds = end.tv_nsec + milliseconds * kNanosecondsPerMs;
    end.tv_sec += nanoseconds / kNanosecondsPerSecond;
    end.tv_nsec = nanoseconds % kNanosecondsPerSecond;
    return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
#endif
}

class Mutex final : public BlockingWaitable, public std::enable_shared_from_this<Mutex> {
public:
    explicit Mutex(std::unique_ptr<MutexFile> file) : m_file(std::move(file)), m_mutex(m_file->Mutex()) {}
    Mutex() : m_mutex(&m_private) { InitRobustMutex(&m_private, PTHREAD_PROCESS_PRIVATE); }
    ~Mutex() override = default; // nobody owns it: an owner would hold a reference

    DWORD BlockingWait(DWORD milliseconds) override {
        const int error = Acquire(milliseconds);
        switch (error) {
        case 0:
            TakeOwnership();
            return WAIT_OBJECT_0;
        case EOWNERDEAD:
            pthread_mutex_consistent(m_mutex);
            TakeOwnership();
            return WAIT_ABANDONED;
        case EBUSY:
        case ETIMEDOUT:
            return WAIT_TIMEOUT;
        default:
            SetLastError(ErrorFromErrno(error));
            return WAIT_FAILED;
        }
    }

    BOOL Release() {
        if (m_owner.load(std::memory_order_relaxed) != ThisThread()) {
            return Fail(ERROR_NOT_OWNER);
        }
        std::shared_ptr<Mutex> pin; // goes last: the mutex has to outlive its release
        if (m_depth.fetch_sub(1, std::memory_order_relaxed) == 1) {
            m_owner.store(0, std::memory_order_relaxed);
            pin = std::move(m_pin);
            m_pinned.store(false, std::memory_order_release);
        }
        pthread_mutex_unlock(m_mutex);
        return TRUE;
    }

    void OnOpen() { m_handles.fetch_add(1, std::memory_order_relaxed); }
    void OnClose() override { m_handles.fetch_sub(1, std::memory_order_relaxed); }
    bool HasHandles() const { return m_handles.load(std::memory_order_relaxed) > 0; }

private:
    int Acquire(DWORD milliseconds) {
        if (milliseconds == 0) {
            return pthread_mutex_trylock(m_mutex);
        }
        if (milliseconds == INFINITE) {
            return pthread_mutex_lock(m_mutex);
        }
        return LockWithin(m_mutex, milliseconds);
    }

    void TakeOwnership() {
        if (m_owner.load(std::memory_order_relaxed) == ThisThread()) {
            m_depth.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        m_owner.store(ThisThread(), std::memory_order_relaxed);
        m_depth.store(1, std::memory_order_relaxed);
        if (!m_pinned.load(std::memory_order_acquire)) { // an owner that ended left its own
            m_pin = shared_from_this();
            m_pinned.store(true, std::memory_order_release);
        }
    }

    const std::unique_ptr<MutexFile> m_file; // null for an unnamed mutex
    pthread_mutex_t m_private{};
    pthread_mutex_t* const m_mutex;
    std::atomic<int> m_handles{0};

    // Changed by the owner only. Atomic because an owner that ends hands them on without unlocking.
    std::atomic<std::uint64_t> m_owner{0}; // stale once the owner has ended
    std::atomic<unsigned> m_depth{0};
    std::atomic<bool> m_pinned{false};
    std::shared_ptr<Mutex> m_pin; // the owner's reference, while m_pinned
};

// The mutexes of this process.
class Registry {
public:
    HANDLE Open(const std::string& path, MutexFile::Mode mode, bool& created) {
        const std::lock_guard guard(m_mutex);
        Sweep();
        auto& known = m_known[path];
        std::shared_ptr<Mutex> mutex = known.lock();
        created = false;
        if (!mutex) {
            auto file = MutexFile::Open(path, mode, created);
            if (!file) {
                return nullptr;
            }
            mutex = std::make_shared<Mutex>(std::move(file));
            known = mutex;
        }
        return AddMutex(mutex);
    }

    HANDLE AddUnnamed() {
        const std::lock_guard guard(m_mutex);
        Sweep();
        const auto mutex = std::make_shared<Mutex>();
        m_known["unnamed " + std::to_string(++m_unnamed)] = mutex;
        return AddMutex(mutex);
    }

private:
    static HANDLE AddMutex(const std::shared_ptr<Mutex>& mutex) {
        mutex->OnOpen();
        const HANDLE handle = AddHandle(mutex);
        if (handle == nullptr) {
            mutex->OnClose();
        }
        return handle;
    }

    // Forgets what is gone, and lets go of mutexes whose handles were closed while a thread held them that has ended.
    void Sweep() {
        for (auto entry = m_known.begin(); entry != m_known.end();) {
            if (const auto mutex = entry->second.lock(); mutex && !mutex->HasHandles()) {
                const DWORD result = mutex->BlockingWait(0);
                if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
                    mutex->Release();
                }
            }
            entry = entry->second.expired() ? m_known.erase(entry) : std::next(entry);
        }
    }

    std::mutex m_mutex;
    std::map<std::string, std::weak_ptr<Mutex>> m_known; // by path; guarded by m_mutex
    std::uint64_t m_unnamed = 0;                         // guarded by m_mutex
};

Registry& Mutexes() {
    static auto* const registry = new Registry; // never destroyed: threads may run while the process exits
    return *registry;
}

// The prefixes choose a session's names; here is only one session.
std::wstring_view WithoutSession(std::wstring_view name) {
    for (const std::wstring_view prefix : {std::wstring_view(L"Global\\"), std::wstring_view(L"Local\\")}) {
        if (name.substr(0, prefix.size()) == prefix) {
            return name.substr(prefix.size());
        }
    }
    return name;
}

HANDLE OpenNamed(LPCWSTR name, MutexFile::Mode mode, bool& created) {
    std::string utf8;
    const std::wstring_view bare = WithoutSession(name);
    if (!WideToUtf8(bare, utf8)) {
        return nullptr;
    }
    if (bare.find(L'\\') != std::wstring_view::npos) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return nullptr;
    }
    return Mutexes().Open(MutexFile::PathFor(utf8), mode, created);
}

} // namespace

HANDLE CreateMutexW(SECURITY_ATTRIBUTES* /*attributes*/, BOOL initialOwner, LPCWSTR name) {
    bool created = true;
    const bool named = name != nullptr && *name != L'\0';
    const HANDLE handle = IfMemoryLasts(HANDLE{}, [&] {
        return named ? OpenNamed(name, MutexFile::Mode::kCreateOrOpen, created) : Mutexes().AddUnnamed();
    });
    if (handle == nullptr) {
        return nullptr;
    }
    if (created && initialOwner != FALSE) {
        Find<Mutex>(handle)->BlockingWait(INFINITE);
    }
    SetLastError(created ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
    return handle;
}

HANDLE OpenMutexW(DWORD /*access*/, BOOL /*inheritHandle*/, LPCWSTR name) {
    if (name == nullptr || *name == L'\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    bool created = false;
    return IfMemoryLasts(HANDLE{}, [&] { return OpenNamed(name, MutexFile::Mode::kOpenOnly, created); });
}

BOOL ReleaseMutex(HANDLE handle) {
    const auto mutex = Find<Mutex>(handle);
    return mutex ? mutex->Release() : FALSE;
}

} // namespace Vantor::Sentrix::Platform
