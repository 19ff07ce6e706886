#include "veyrasvc/platform/posix/Event.h"

namespace Vantor::Sentrix::Platform {

void Event::Set() {
    m_signalled.store(true, std::memory_order_seq_cst);
    NotifyWaiters();
}

bool Event::TryAcquire() {
    if (!m_signalled.load(std::memory_order_seq_cst)) {
        return false;
    }
    return m_manualReset || m_signalled.exchange(false, std::memory_order_seq_cst);
}

std::shared_ptr<ProgressSource> Event::Source() {
    if (!m_hasSource.load(std::memory_order_acquire)) {
        return nullptr;
    }
    const std::lock_guard guard(m_sourceMutex);
    return m_source.lock();
}

void Event::SetSource(const std::shared_ptr<ProgressSource>& source) {
    const std::lock_guard guard(m_sourceMutex);
    m_source = source;
    m_hasSource.store(true, std::memory_order_release);
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES* /*attributes*/, BOOL manualReset, BOOL initialState, LPCWSTR name) {
    if (name != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return AddHandle(MakeObject<Event>(manualReset != FALSE, initialState != FALSE));
}

BOOL SetEvent(HANDLE handle) {
    const auto event = Find<Event>(handle);
    if (!event) {
        return FALSE;
    }
    event->Set();
    return TRUE;
}

BOOL ResetEvent(HANDLE handle) {
    const auto event = Find<Event>(handle);
    if (!event) {
        return FALSE;
    }
    event->Reset();
    return TRUE;
}

} // namespace Vantor::Sentrix::Platform
