// The processes of the floor. Settings, results and lines are those of the bus's own benchmark processes.
#pragma once

#include "tools/veyra/bench/Settings.h"

namespace Vantor::Sentrix::Floor {

using Tool::Settings;

inline constexpr unsigned int kLifeSeconds = 180; // nobody is left for ever when the benchmark itself was killed

void Say(std::string_view line);

void RunForwarder(const Settings& settings); // socket
void RunEcho(const Settings& settings);      // socket id
void RunCaller(const Settings& settings);    // socket to size seconds -> p50 p99 rate
void RunSink(const Settings& settings);      // socket id size quarter
void RunSource(const Settings& settings);    // socket id to size window seconds -> rate

} // namespace Vantor::Sentrix::Floor
