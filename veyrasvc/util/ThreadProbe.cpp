#include "veyrasvc/util/ThreadProbe.h"

namespace Vantor::Sentrix {

ThreadProbe::ThreadProbe() : m_thread(OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, GetCurrentThreadId())) {}

ThreadProbe::~ThreadProbe() {
    if (m_thread != nullptr) {
        CloseHandle(m_thread);
    }
}

bool ThreadProbe::IsRunnable() const {
    SYSTEM_THREAD_INFORMATION information{};
    return NtQueryInformationThread(m_thread, ThreadSystemThreadInformation, &information, sizeof information,
                                    nullptr) >= 0 &&
           information.ThreadState != StateWait;
}

} // namespace Vantor::Sentrix
