// The client processes of a measurement. A role connects, writes "ready" to its standard output, begins at the first
// line of its standard input, and writes "result NAME=NUMBER...". It ends with its standard input, so that whoever
// started it can read its counters first.
#pragma once

#include "bench/compare/Bus.h"
#include "tools/veyra/bench/Settings.h"

#include <optional>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Compare {

using Tool::Settings;

// How long everything runs before it is measured.
inline constexpr double kWarmUpSeconds = 0.2;

// Who is who on the bus.
inline constexpr std::uint32_t kFirstClient = 1; // asks, sends or publishes
inline constexpr std::uint32_t kServerClient = 2;
inline constexpr std::uint32_t kFirstSubscriber = 100;
inline constexpr std::uint32_t kTopic = 7;

// {role, backend, address, NAME=NUMBER...}
//
//   echo                                        answers with what it was sent
//   caller      size seconds                    one request at a time -> p50 p99 min rate total
//   pipeline    size seconds outstanding        that many at a time -> rate total
//   source      size seconds window             posts -> sent
//   publisher   size seconds window receivers   publishes -> sent
//   sink        size window                     takes posts -> count begin end total
//   subscriber  size window index               takes publications -> the same
//   idle        first count                     that many clients with a subscription each
//
// Threads: called once, from main. Fails: by exception. No role lives longer than a minute.
int RunRole(const std::vector<std::string>& arguments);

// ---- What the roles share ------------------------------------------------------------------------------------------

void SayReady();
// Nothing: standard input has ended, and so should the role.
std::optional<std::string> AwaitLine();
// Then waits until standard input ends.
void SayResult(const Settings& results);

// The streams: a source or publisher, and the sinks or subscribers at the other end.
//
// At most `window` messages are on their way to the slowest receiver, which says after every quarter of a window how
// much it has. Every message carries its number among the measured ones, and a receiver fails unless each comes once:
// in order, or with Delivery::AnyThread in any.
void RunSource(Client& client, const Settings& settings, bool publish);
void RunSink(Client& client, Delivery delivery, const Settings& settings, bool subscribe);

} // namespace Vantor::Sentrix::Compare
