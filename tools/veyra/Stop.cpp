#include "tools/veyra/Stop.h"

#include <atomic>
#include <csignal>
#include <thread>

namespace Vantor::Sentrix::Tool {

namespace {

// A signal handler may do no more than this: it has no way of waking a thread that every system allows it.
std::atomic<bool> asked{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnSignal(int /*signal*/) {
    asked.store(true);
}

} // namespace

void CatchStopSignals() {
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
}

bool StopAsked() {
    return asked.load();
}

void AwaitStop() {
    while (!StopAsked()) {
        std::this_thread::sleep_for(kStopCheckInterval);
    }
}

} // namespace Vantor::Sentrix::Tool
