// The lock interface, its two locks, and the guard through which they are taken.
#pragma once

#include "veyrasvc/platform/Export.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/ThreadSafety.h"

namespace Vantor::Sentrix {

// A lock that does nothing, and the interface of those that do.
class VEYRASVC_API VEYRA_CAPABILITY("lock") BaseLock {
public:
    BaseLock() = default;
    virtual ~BaseLock();
    BaseLock(const BaseLock&) = delete;
    BaseLock& operator=(const BaseLock&) = delete;

    virtual void Lock() VEYRA_ACQUIRE();
    virtual void Unlock() VEYRA_RELEASE();
    // Takes the lock if that needs no wait. BaseLock has nothing to take: false.
    virtual bool TryLock() VEYRA_TRY_ACQUIRE(true);
};

// A re-entrant lock of one process: its owner may lock again and unlocks as many times.
// Threads: any; Unlock by the owning thread only.
// Fails: never.
// Lifetime: destroy it only when nobody holds it or waits for it.
class VEYRASVC_API VEYRA_CAPABILITY("lock") CommonLock : public BaseLock {
public:
    CommonLock();
    ~CommonLock() override;

    void Lock() override VEYRA_ACQUIRE();
    void Unlock() override VEYRA_RELEASE();
    bool TryLock() override VEYRA_TRY_ACQUIRE(true);

private:
    CRITICAL_SECTION m_section;
};

// A re-entrant lock shared by everyone on the machine who gives the same name.
//
// An owner that ends without unlocking leaves the mutex abandoned. The next Lock() takes it over, logs that it did and
// returns owning it: what the lock protects may be half changed. TryLock() reports false for an abandoned mutex and
// gives it up again, so that nothing stays owned by a caller who was told that he does not own it; the next attempt
// finds an ordinary free mutex.
// Threads: any; Unlock by the owning thread only.
// Fails: when no mutex could be had the object stays usable and excludes nobody: Lock() logs and returns, TryLock()
// is false, Unlock() does nothing.
// Lifetime: the mutex lives as long as any process has an object for it. The destructor unlocks once if the calling
// thread is the owner.
class VEYRASVC_API VEYRA_CAPABILITY("lock") NamedMutexLock : public BaseLock {
public:
    // `name` follows the system's rules for mutex names. The first creator decides the access: authenticated users
    // and administrators, but no guests and no anonymous logons.
    explicit NamedMutexLock(const wchar_t* name);
    ~NamedMutexLock() override;

    void Lock() override VEYRA_ACQUIRE();
    void Unlock() override VEYRA_RELEASE();
    // Waits one millisecond at most.
    bool TryLock() override VEYRA_TRY_ACQUIRE(true);
    // True when the mutex could be taken within that many milliseconds (INFINITE: without limit).
    bool TryLock(DWORD timeoutMs) VEYRA_TRY_ACQUIRE(true);

private:
    HANDLE m_mutex; // null when none could be had; constant after construction
};

// Holds a lock for one scope. Null is allowed and does nothing.
// Lifetime: the lock must outlive the guard.
class VEYRASVC_API VEYRA_SCOPED_CAPABILITY AutoLock {
public:
    explicit AutoLock(BaseLock* lock) VEYRA_ACQUIRE(lock);
    // With `locked` true the guard adopts a lock that the caller already holds.
    AutoLock(BaseLock* lock, bool locked) VEYRA_ACQUIRE(lock);
    virtual ~AutoLock() VEYRA_RELEASE();
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;

private:
    BaseLock* m_lock;
};

// Frees a lock that the calling thread holds once, for one scope within the guard's.
class VEYRA_SCOPED_CAPABILITY AutoUnlock {
public:
    explicit AutoUnlock(BaseLock& lock) VEYRA_RELEASE(lock) : m_lock(lock) { m_lock.Unlock(); }
    ~AutoUnlock() VEYRA_RELEASE() { m_lock.Lock(); } // the analysis calls it releasing the guard
    AutoUnlock(const AutoUnlock&) = delete;
    AutoUnlock& operator=(const AutoUnlock&) = delete;

private:
    BaseLock& m_lock;
};

} // namespace Vantor::Sentrix
