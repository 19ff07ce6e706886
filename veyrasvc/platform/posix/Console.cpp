// What a console tells its programs: the wish that they end, and which characters it reads.
#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/StartThread.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

struct Signal {
    int number;
    DWORD event;
};
constexpr Signal kSignals[] = {{SIGINT, CTRL_C_EVENT}, {SIGTERM, CTRL_SHUTDOWN_EVENT}};

// A signal handler may do little more than write: the routine runs on the thread that reads these.
int wishes[2] = {-1, -1};

void OnSignal(int number) {
    const int before = errno;
    const auto byte = static_cast<char>(number);
    [[maybe_unused]] const ssize_t written = write(wishes[1], &byte, 1); // full of wishes: one more changes nothing
    errno = before;
}

DWORD EventOf(int number) {
    for (const Signal& signal : kSignals) {
        if (signal.number == number) {
            return signal.event;
        }
    }
    return CTRL_C_EVENT;
}

void* PassOn(void* parameter) {
    const auto routine = reinterpret_cast<PHANDLER_ROUTINE>(parameter);
    char number = 0;
    for (;;) {
        if (read(wishes[0], &number, 1) != 1) {
            continue; // interrupted
        }
        const DWORD event = EventOf(number);
        if (routine(event) == FALSE || event == CTRL_SHUTDOWN_EVENT) {
            std::signal(number, SIG_DFL);
            kill(getpid(), number);
        }
    }
}

} // namespace

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE routine, BOOL add) {
    static std::mutex mutex;
    const std::lock_guard guard(mutex);
    if (routine == nullptr || add == FALSE || wishes[0] >= 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (pipe2(wishes, O_CLOEXEC) != 0) {
        return Fail(ErrorFromErrno(errno));
    }
    fcntl(wishes[1], F_SETFL, O_NONBLOCK);
    if (!StartThread(&PassOn, reinterpret_cast<void*>(routine))) {
        for (int& end : wishes) {
            close(std::exchange(end, -1));
        }
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    for (const Signal& signal : kSignals) {
        sigaction(signal.number, &action, nullptr);
    }
    return TRUE;
}

UINT GetConsoleOutputCP() {
    return CP_UTF8;
}

BOOL SetConsoleOutputCP(UINT codePage) {
    return codePage == CP_UTF8 ? TRUE : Fail(ERROR_INVALID_PARAMETER);
}

} // namespace Vantor::Sentrix::Platform
