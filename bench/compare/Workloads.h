// What is measured of every bus.
#pragma once

#include "bench/compare/Bus.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Compare {

// One number. Workloads and metrics keep their names, for scripts that compare runs.
struct Sample {
    std::string metric;
    std::string unit;
    double value;
};

using Samples = std::vector<Sample>;

struct Workload {
    std::string name;
    // Measures for that many seconds, warm-up not counted.
    // Fails: by exception, with what went wrong in one text.
    std::function<Samples(const Backend&, double seconds)> measure;
    std::function<bool(const Backend&)> applies;
    bool timed = true; // else what others do meanwhile changes nothing
};

// In the order in which they are run.
//
//   sync-64, sync-16k   request and reply, one at a time: p50, p99 and min in us, requests in 1/s; what one costs all
//                       processes: switches-client, -server, -broker, cpu and cpu-broker in us; threads-client, ...
//   sync-64-one-cpu     the same with all processes on one processor: no wake-up of a sleeping one, so it repeats best
//   sync-64-apart       the same with the broker on the other processor (limits only)
//   post-64, -4k, -1m   one way: messages in 1/s, bytes in B/s, broker-cpu in s for a million messages
//   post-1m-x2          the same with two messages on their way instead of eight
//   sync-64-x64         64 requests at a time: requests in 1/s
//   publish-8           one publisher, eight subscribers, 64 B: deliveries in 1/s
//   memory              of the broker with 0, 20, 90 idle clients: broker-0, broker-20, broker-90 in MiB
const std::vector<Workload>& Workloads();

} // namespace Vantor::Sentrix::Compare
