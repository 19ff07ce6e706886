// Ctrl-C, SIGINT and SIGTERM as a wish to stop, for the verbs that run until somebody ends them.
// Threads: any.
#pragma once

#include <chrono>

namespace Vantor::Sentrix::Tool {

// From now on the signals no longer end the process but set StopAsked().
void CatchStopSignals();

bool StopAsked();

// How often a wait for something else has to look at StopAsked().
inline constexpr std::chrono::milliseconds kStopCheckInterval{100};

// Returns soon after StopAsked() became true.
void AwaitStop();

} // namespace Vantor::Sentrix::Tool
