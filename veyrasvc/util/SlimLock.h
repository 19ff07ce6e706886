// A slim reader/writer lock and the guards that take it.
#pragma once

#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/ThreadSafety.h"

namespace Vantor::Sentrix {

// Not re-entrant: a thread that holds the lock either way must not ask for it again.
// Lifetime: destroy it only when nobody holds it or waits for it.
class VEYRA_CAPABILITY("slim lock") SlimLock {
public:
    SlimLock() : m_lock() { InitializeSRWLock(&m_lock); }
    SlimLock(const SlimLock&) = delete;
    SlimLock& operator=(const SlimLock&) = delete;

private:
    friend class SharedGuard;
    friend class ExclusiveGuard;

    SRWLOCK m_lock;
};

class VEYRA_SCOPED_CAPABILITY SharedGuard {
public:
    explicit SharedGuard(SlimLock& lock) VEYRA_ACQUIRE_SHARED(lock) : m_lock(lock) {
        AcquireSRWLockShared(&m_lock.m_lock);
    }
    ~SharedGuard() VEYRA_RELEASE_GENERIC() { ReleaseSRWLockShared(&m_lock.m_lock); }
    SharedGuard(const SharedGuard&) = delete;
    SharedGuard& operator=(const SharedGuard&) = delete;

private:
    SlimLock& m_lock;
};

class VEYRA_SCOPED_CAPABILITY ExclusiveGuard {
public:
    explicit ExclusiveGuard(SlimLock& lock) VEYRA_ACQUIRE(lock) : m_lock(lock) {
        AcquireSRWLockExclusive(&m_lock.m_lock);
    }
    ~ExclusiveGuard() VEYRA_RELEASE() { ReleaseSRWLockExclusive(&m_lock.m_lock); }
    ExclusiveGuard(const ExclusiveGuard&) = delete;
    ExclusiveGuard& operator=(const ExclusiveGuard&) = delete;

private:
    SlimLock& m_lock;
};

} // namespace Vantor::Sentrix
