#include "tools/support/Stop.h"

#include "veyrasvc/platform/Win32.h"

#include <atomic>

namespace Vantor::Sentrix::Support {

namespace {

std::atomic<bool> asked{false};

// Runs on a thread of its own.
BOOL OnEvent(DWORD event) {
    asked.store(true);
    asked.notify_all();
    // When the console closes or the system goes down, the process ends as soon as this returns; left to itself it
    // ends in order.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
        Sleep(INFINITE);
    }
    return TRUE;
}

} // namespace

void CatchStopSignals() {
    SetConsoleCtrlHandler(OnEvent, TRUE);
}

bool StopAsked() {
    return asked.load();
}

void AwaitStop() {
    asked.wait(false);
}

} // namespace Vantor::Sentrix::Support
