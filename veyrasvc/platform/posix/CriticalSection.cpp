// Critical sections: recursive mutexes. Who finds one taken looks again a few times before it sleeps, because most are
// held for less than a sleep and a wake-up take.
#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

void InitializeCriticalSection(CRITICAL_SECTION* section) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&section->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void DeleteCriticalSection(CRITICAL_SECTION* section) {
    pthread_mutex_destroy(&section->mutex);
}

void EnterCriticalSection(CRITICAL_SECTION* section) {
    constexpr int kLooks = 60; // some two microseconds
    for (int i = 0; i < kLooks; ++i) {
        if (pthread_mutex_trylock(&section->mutex) == 0) {
            return;
        }
        __builtin_ia32_pause();
    }
    pthread_mutex_lock(&section->mutex);
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
    pthread_mutex_unlock(&section->mutex);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) {
    return pthread_mutex_trylock(&section->mutex) == 0 ? TRUE : FALSE;
}

} // namespace Vantor::Sentrix::Platform
