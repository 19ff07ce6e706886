// Slim reader/writer locks. A waiting writer goes before new readers, so that a steady stream of readers cannot keep
// it out; neither side may take the lock twice, as on Windows.
#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

void InitializeSRWLock(SRWLOCK* lock) {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock->lock, &attributes);
    pthread_rwlockattr_destroy(&attributes);
}

void AcquireSRWLockExclusive(SRWLOCK* lock) {
    pthread_rwlock_wrlock(&lock->lock);
}

void ReleaseSRWLockExclusive(SRWLOCK* lock) {
    pthread_rwlock_unlock(&lock->lock);
}

void AcquireSRWLockShared(SRWLOCK* lock) {
    pthread_rwlock_rdlock(&lock->lock);
}

void ReleaseSRWLockShared(SRWLOCK* lock) {
    pthread_rwlock_unlock(&lock->lock);
}

} // namespace Vantor::Sentrix::Platform
