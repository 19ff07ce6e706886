#include "tools/veyra/bench/Measure.h"

#include <deque>

namespace Vantor::Sentrix::Tool {

namespace {

constexpr double kFirstId = 0x1000; // of echo, sinks and idle clients
constexpr double kSourceId = 0x2000;
constexpr int kSubscribers = 8;

Samples RoundTripSamples(const Settings& result) {
    return {{"p50", "us", result.Number("p50")},
            {"p99", "us", result.Number("p99")},
            {"requests", "1/s", result.Number("rate")}};
}

Samples OneWaySamples(const Workload& workload, const Settings& result) {
    const double rate = result.Number("rate");
    return {{"messages", "1/s", rate}, {"bytes", "B/s", rate * workload.size}};
}

// What a sink acknowledges at a time.
std::uint32_t Quarter(const Workload& workload) {
    return workload.count / 4;
}

Settings SinkSettings(const Workload& workload, double id, double publisher) {
    return Settings()
        .Set("id", id)
        .Set("size", workload.size)
        .Set("quarter", Quarter(workload))
        .Set("publisher", publisher);
}

Settings SourceSettings(const Workload& workload, double seconds, int sinks) {
    return Settings()
        .Set("id", kSourceId)
        .Set("to", kFirstId)
        .Set("sinks", sinks)
        .Set("size", workload.size)
        .Set("window", workload.count)
        .Set("publish", workload.kind == WorkloadKind::Publish ? 1 : 0)
        .Set("seconds", seconds);
}

Settings CallerSettings(const Workload& workload, double seconds) {
    return Settings()
        .Set("to", kFirstId)
        .Set("size", workload.size)
        .Set("outstanding", workload.count)
        .Set("seconds", seconds);
}

Worker StartOnBus(const std::string& role, const Settings& settings) {
    return {Support::OwnProgramPath(), BusRole(role, settings)};
}

Samples MeasurePublishing(const Workload& workload, double seconds) {
    std::deque<Worker> sinks;
    for (int i = 0; i < kSubscribers; ++i) {
        sinks.emplace_back(Support::OwnProgramPath(), BusRole("sink", SinkSettings(workload, kFirstId + i, kSourceId)));
    }
    for (Worker& sink : sinks) {
        sink.AwaitReady();
    }
    Worker source(StartOnBus("source", SourceSettings(workload, seconds, kSubscribers)));
    return {{"deliveries", "1/s", source.AwaitReady().AwaitResult().Number("rate")}};
}

} // namespace

Samples MeasureOnBus(const Workload& workload, double seconds) {
    if (workload.kind == WorkloadKind::Publish) {
        return MeasurePublishing(workload, seconds);
    }
    if (workload.kind == WorkloadKind::RoundTrip) {
        Worker echo(StartOnBus("echo", Settings().Set("id", kFirstId)));
        echo.AwaitReady();
        Worker caller(StartOnBus("caller", CallerSettings(workload, seconds)));
        return RoundTripSamples(caller.AwaitReady().AwaitResult());
    }
    Worker sink(StartOnBus("sink", SinkSettings(workload, kFirstId, 0)));
    sink.AwaitReady();
    Worker source(StartOnBus("source", SourceSettings(workload, seconds, 1)));
    return OneWaySamples(workload, source.AwaitReady().AwaitResult());
}

Samples MeasureOnFloor(const Workload& workload, double seconds, const std::string& floorProgram) {
    static int number = 0;
    const double socket = GetCurrentProcessId() * 1000.0 + ++number % 1000;
    const auto start = [&](const std::string& role, Settings settings) {
        return Worker(floorProgram, FloorRole(role, settings.Set("socket", socket)));
    };
    Worker forwarder(start("forwarder", {}));
    forwarder.AwaitReady();
    const bool roundTrip = workload.kind == WorkloadKind::RoundTrip;
    Worker receiver(roundTrip ? start("echo", Settings().Set("id", kFirstId))
                              : start("sink", SinkSettings(workload, kFirstId, 0)));
    receiver.AwaitReady();
    Worker sender(roundTrip ? start("caller", CallerSettings(workload, seconds))
                            : start("source", SourceSettings(workload, seconds, 1)));
    const Settings result = sender.AwaitReady().AwaitResult();
    return roundTrip ? RoundTripSamples(result) : OneWaySamples(workload, result);
}

Samples MeasureMemory() {
    // The host listens for 20 clients and listens for 20 again only when one has left. One of the 20 is its own.
    constexpr int kBatch = 15;
    constexpr int kFew = 15;
    constexpr int kMany = 90;
    constexpr double kMiB = 1 << 20;
    const PrivateBus bus;
    std::deque<Worker> clients;
    Samples samples;
    while (clients.size() < kMany) {
        for (int i = 0; i < kBatch; ++i) {
            const auto id = kFirstId + static_cast<double>(clients.size());
            clients.emplace_back(Support::OwnProgramPath(), BusRole("idle", Settings().Set("id", id)));
        }
        for (auto client = clients.end() - kBatch; client != clients.end(); ++client) {
            client->AwaitReady();
        }
        if (clients.size() == kFew || clients.size() == kMany) {
            samples.push_back({"host-" + std::to_string(clients.size()), "MiB",
                               static_cast<double>(bus.Host().MemoryBytes()) / kMiB});
        }
        StartOnBus("idle", Settings().Set("id", kSourceId)).AwaitReady(); // comes and goes
    }
    return samples;
}

} // namespace Vantor::Sentrix::Tool
