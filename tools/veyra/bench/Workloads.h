// What `veyra bench` measures.
// Threads: any.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Tool {

enum class WorkloadKind { RoundTrip, OneWay, Publish, Memory };

struct Workload {
    const char* name;
    const char* meaning;
    WorkloadKind kind;
    std::uint32_t size;  // bytes of a body
    std::uint32_t count; // RoundTrip: outstanding requests; OneWay, Publish: messages of the window
    bool hasFloor;
};

inline constexpr Workload kWorkloads[] = {
    {"sync-64", "round trip, 64 B", WorkloadKind::RoundTrip, 64, 1, true},
    {"sync-16k", "round trip, 16 KiB", WorkloadKind::RoundTrip, 16 << 10, 1, true},
    {"sync-64-x64", "round trips, 64 B, 64 outstanding", WorkloadKind::RoundTrip, 64, 64, false},
    {"sync-16k-x64", "round trips, 16 KiB, 64 outstanding", WorkloadKind::RoundTrip, 16 << 10, 64, false},
    {"post-64", "posts, 64 B", WorkloadKind::OneWay, 64, 4096, true},
    {"post-4k", "posts, 4 KiB", WorkloadKind::OneWay, 4 << 10, 512, true},
    {"post-1m", "posts, 1 MiB", WorkloadKind::OneWay, 1 << 20, 8, true},
    {"publish-8", "one publisher, 8 subscribers, 64 B", WorkloadKind::Publish, 64, 1024, false},
    {"memory", "resident memory of the host", WorkloadKind::Memory, 0, 0, false},
};

// One number. The workloads and metrics keep their names, for scripts that compare runs.
struct Sample {
    std::string metric; // p50, p99, requests, messages, bytes, deliveries, host-15, host-90
    std::string unit;   // us, 1/s, B/s, MiB
    double value;
};

using Samples = std::vector<Sample>;

} // namespace Vantor::Sentrix::Tool
