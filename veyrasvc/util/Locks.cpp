#include "veyrasvc/util/Locks.h"

#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

namespace {

constexpr DWORD kTryLockMs = 1;

// Guests and anonymous logons denied; authenticated users and administrators allowed everything.
constexpr wchar_t kMutexAccess[] = L"D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;AU)(A;OICI;GA;;;BA)";

HANDLE MakeMutex(const wchar_t* name) {
    SECURITY_ATTRIBUTES attributes{};
    attributes.nLength = sizeof attributes;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kMutexAccess, SDDL_REVISION_1,
                                                             &attributes.lpSecurityDescriptor, nullptr) == FALSE) {
        attributes.lpSecurityDescriptor = nullptr;
    }
    HANDLE mutex = CreateMutexW(&attributes, FALSE, name);
    const DWORD error = GetLastError();
    if (attributes.lpSecurityDescriptor != nullptr) {
        LocalFree(attributes.lpSecurityDescriptor);
    }
    if (mutex == nullptr && error == ERROR_ALREADY_EXISTS) {
        mutex = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name);
    }
    return mutex;
}

} // namespace

// The attributes describe what the bodies do through the system's calls, which the analysis cannot see into.

BaseLock::~BaseLock() = default;

void BaseLock::Lock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {}

void BaseLock::Unlock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {}

bool BaseLock::TryLock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    return false;
}

CommonLock::CommonLock() : m_section() {
    InitializeCriticalSection(&m_section);
}

CommonLock::~CommonLock() {
    DeleteCriticalSection(&m_section);
}

void CommonLock::Lock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    EnterCriticalSection(&m_section);
}

void CommonLock::Unlock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    LeaveCriticalSection(&m_section);
}

bool CommonLock::TryLock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    return TryEnterCriticalSection(&m_section) != FALSE;
}

NamedMutexLock::NamedMutexLock(const wchar_t* name) : m_mutex(MakeMutex(name)) {
    if (m_mutex == nullptr) {
        LOG_ERROR("NamedMutexLock Init Failed!");
    }
}

NamedMutexLock::~NamedMutexLock() {
    if (m_mutex != nullptr) {
        ReleaseMutex(m_mutex);
        CloseHandle(m_mutex);
    }
}

void NamedMutexLock::Lock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    if (WaitForSingleObject(m_mutex, INFINITE) != WAIT_OBJECT_0) {
        LOG_ERROR("NamedMutexLock Lock Failed!");
    }
}

void NamedMutexLock::Unlock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    if (m_mutex != nullptr) {
        ReleaseMutex(m_mutex);
    }
}

bool NamedMutexLock::TryLock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    return TryLock(kTryLockMs);
}

bool NamedMutexLock::TryLock(DWORD timeoutMs) VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    const DWORD result = WaitForSingleObject(m_mutex, timeoutMs);
    if (result == WAIT_ABANDONED) {
        ReleaseMutex(m_mutex);
    }
    return result == WAIT_OBJECT_0;
}

AutoLock::AutoLock(BaseLock* lock) VEYRA_NO_THREAD_SAFETY_ANALYSIS : m_lock(lock) {
    if (m_lock != nullptr) {
        m_lock->Lock();
    }
}

AutoLock::AutoLock(BaseLock* lock, bool locked) VEYRA_NO_THREAD_SAFETY_ANALYSIS : m_lock(lock) {
    if (m_lock != nullptr && !locked) {
        m_lock->Lock();
    }
}

AutoLock::~AutoLock() VEYRA_NO_THREAD_SAFETY_ANALYSIS {
    if (m_lock != nullptr) {
        m_lock->Unlock();
    }
}

} // namespace Vantor::Sentrix
