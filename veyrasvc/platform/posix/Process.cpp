#include "veyrasvc/platform/posix/Process.h"

#include "veyrasvc/platform/posix/Utf8.h"
#include "veyrasvc/platform/posix/Wait.h"

#include <limits.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cwchar>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr DWORD kStillActive = 259;
constexpr DWORD kSignalBase = 128;             // how a shell reports a death by signal
constexpr DWORD kUnknownExitCode = 0xFFFFFFFF; // somebody else in the process collected it

bool PollReadable(int descriptor, std::int64_t timeoutMs) {
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(std::min<std::int64_t>(timeoutMs, INT_MAX))) > 0;
}

} // namespace

Process::~Process() {
    if (!HasEnded()) {
        ReapWhenEnded(std::move(m_child));
    }
}

DWORD Process::BlockingWait(DWORD milliseconds) {
    const Deadline deadline(milliseconds);
    for (;;) {
        const std::int64_t remaining = deadline.Remaining();
        if (PollReadable(Descriptor(), remaining) && HasEnded()) {
            return WAIT_OBJECT_0;
        }
        if (remaining == 0) {
            return WAIT_TIMEOUT;
        }
    }
}

// Collects the exit status once it is there.
bool Process::HasEnded() {
    const std::lock_guard guard(m_mutex);
    if (m_exitCode) {
        return true;
    }
    siginfo_t info{};
    int result = -1;
    do {
        result = waitid(P_PIDFD, static_cast<id_t>(Descriptor()), &info, WEXITED | WNOHANG);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        m_exitCode = kUnknownExitCode;
    } else if (info.si_pid != 0) {
        const auto status = static_cast<DWORD>(info.si_status);
        const DWORD killed = status == SIGKILL ? m_terminateCode.value_or(kSignalBase + status) : kSignalBase + status;
        m_exitCode = info.si_code == CLD_EXITED ? status : killed;
    }
    return m_exitCode.has_value();
}

BOOL Process::Terminate(UINT exitCode) {
    if (HasEnded()) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    const std::lock_guard guard(m_mutex);
    if (!m_terminateCode) {
        m_terminateCode = exitCode;
    }
    if (syscall(SYS_pidfd_send_signal, Descriptor(), SIGKILL, nullptr, 0) != 0) {
        return Fail(ERROR_ACCESS_DENIED); // it has ended meanwhile
    }
    return TRUE;
}

DWORD Process::ExitCode() {
    if (!HasEnded()) {
        return kStillActive;
    }
    const std::lock_guard guard(m_mutex);
    return *m_exitCode;
}

HANDLE GetCurrentProcess() {
    return INVALID_HANDLE_VALUE; // the same number on Windows
}

BOOL TerminateProcess(HANDLE handle, UINT exitCode) {
    if (handle == GetCurrentProcess()) {
        syscall(SYS_exit_group, static_cast<int>(exitCode)); // past every exit handler and unwritten buffer
    }
    const auto process = Find<Process>(handle);
    return process ? process->Terminate(exitCode) : FALSE;
}

BOOL GetExitCodeProcess(HANDLE handle, DWORD* exitCode) {
    if (exitCode == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (handle == GetCurrentProcess()) {
        *exitCode = kStillActive;
        return TRUE;
    }
    const auto process = Find<Process>(handle);
    if (!process) {
        return FALSE;
    }
    *exitCode = process->ExitCode();
    return TRUE;
}

DWORD GetModuleFileNameW(HANDLE module, LPWSTR path, DWORD size) {
    if (module != nullptr || path == nullptr || size == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    char bytes[PATH_MAX];
    const auto length = readlink("/proc/self/exe", bytes, sizeof bytes);
    std::wstring name;
    if (length < 0 || !Utf8ToWide(std::string_view(bytes, static_cast<std::size_t>(length)), name)) {
        SetLastError(length < 0 ? ErrorFromErrno(errno) : ERROR_INVALID_NAME);
        return 0;
    }
    const std::size_t fitting = std::min<std::size_t>(name.size(), size - 1);
    std::wmemcpy(path, name.c_str(), fitting);
    path[fitting] = L'\0';
    SetLastError(fitting == name.size() ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
    return fitting == name.size() ? static_cast<DWORD>(fitting) : size;
}

} // namespace Vantor::Sentrix::Platform
