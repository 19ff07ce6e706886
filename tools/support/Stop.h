// Ctrl-C, Ctrl-Break, SIGTERM, a console that closes: a wish to stop, for the verbs that run until somebody ends them.
// Threads: any.
#pragma once

#include <chrono>

namespace Vantor::Sentrix::Support {

// From now on these no longer end the process but set StopAsked(). Requires: called once.
void CatchStopSignals();

bool StopAsked();

// How often a wait for something else has to look at StopAsked().
inline constexpr std::chrono::milliseconds kStopCheckInterval{100};

// Returns when StopAsked() has become true.
void AwaitStop();

} // namespace Vantor::Sentrix::Support
