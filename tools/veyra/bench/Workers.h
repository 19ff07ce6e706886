// The processes of the benchmark on the bus. Each is a role of `veyra bench-worker`, runs until it is killed, and at
// most for kWorkerLife, so that none is left for ever when the benchmark itself was killed.
#pragma once

#include "tools/veyra/bench/Settings.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <chrono>
#include <cstdint>
#include <stdexcept>

namespace Vantor::Sentrix::Tool {

inline constexpr std::chrono::minutes kWorkerLife{3};

// The messages of the benchmark.
namespace BenchMessage {
inline constexpr int kRequest = 1;
inline constexpr int kReply = 2;
inline constexpr int kData = 3;      // counted, not answered
inline constexpr int kAck = 4;       // from sink to source: another quarter of the window has arrived
inline constexpr int kMark = 5;      // from source to sink: answer when that many messages have arrived
inline constexpr int kMarkReply = 6; // and tell when that was
} // namespace BenchMessage

// When the sink of a kMark had what it was asked for. Both ends are the same program on one machine.
struct MarkReply {
    std::int64_t nanoseconds; // of the steady clock, which all processes share
};

struct BenchFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Registers the client with the bus for certain, then says that the process can be used.
void SayReady(IPCMessageClient& client, std::uint32_t moduleId);
// Returns after kWorkerLife; usually the process is killed before.
void Linger();

void RunCaller(const Settings& settings); // to size outstanding seconds -> p50 p99 rate
void RunSink(const Settings& settings);   // id size quarter publisher (0: gets posts)
void RunSource(const Settings& settings); // id to sinks (ids from `to` on) size window publish seconds -> rate

} // namespace Vantor::Sentrix::Tool
