#include "bench/compare/Workloads.h"

#include "bench/compare/Roles.h"
#include "bench/compare/Session.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <thread>

namespace Vantor::Sentrix::Compare {

namespace {

constexpr double kMicroseconds = 1e6;
constexpr double kMillion = 1e6;

struct Placement {
    int client = kAnyCpu;
    int broker = kAnyCpu;
    int server = kAnyCpu;
};

Settings SizeAnd(std::size_t size, double seconds) {
    return Settings().Set("size", static_cast<double>(size)).Set("seconds", seconds);
}

// ---- Round trips ---------------------------------------------------------------------------------------------------

Samples MeasureRoundTrips(const Backend& backend, std::size_t size, double seconds, Placement placement) {
    Session session(backend, placement.broker);
    const RoleProcess& server = session.Add("echo", {}, placement.server);
    RoleProcess& client = session.Add("caller", SizeAnd(size, seconds), placement.client);
    session.BeginCounting();
    client.Begin();
    const Settings result = client.AwaitResult();
    session.EndCounting();

    const double total = result.Number("total");
    const Usage ofClient = session.Of(client);
    const Usage ofServer = session.Of(server);
    const Usage ofBroker = session.OfBroker();
    const double cpu = ofClient.cpuSeconds + ofServer.cpuSeconds + ofBroker.cpuSeconds;
    return {{"p50", "us", result.Number("p50")},
            {"p99", "us", result.Number("p99")},
            {"min", "us", result.Number("min")},
            {"requests", "1/s", result.Number("rate")},
            {"switches-client", "1", ofClient.switches / total},
            {"switches-server", "1", ofServer.switches / total},
            {"switches-broker", "1", ofBroker.switches / total},
            {"cpu", "us", cpu / total * kMicroseconds},
            {"cpu-broker", "us", ofBroker.cpuSeconds / total * kMicroseconds},
            {"threads-client", "1", ofClient.threads},
            {"threads-server", "1", ofServer.threads},
            {"threads-broker", "1", ofBroker.threads}};
}

Samples MeasurePipeline(const Backend& backend, std::size_t size, double seconds, double outstanding) {
    Session session(backend);
    session.Add("echo", {});
    RoleProcess& client = session.Add("pipeline", SizeAnd(size, seconds).Set("outstanding", outstanding));
    client.Begin();
    return {{"requests", "1/s", client.AwaitResult().Number("rate")}};
}

// ---- Streams -------------------------------------------------------------------------------------------------------

Samples MeasureOneWay(const Backend& backend, std::size_t size, double seconds, double window) {
    Session session(backend);
    RoleProcess& sink = session.Add("sink", SizeAnd(size, seconds).Set("window", window));
    RoleProcess& source = session.Add("source", SizeAnd(size, seconds).Set("window", window));
    session.BeginCounting();
    sink.Begin();
    source.Begin();
    const Settings result = sink.AwaitResult();
    source.AwaitResult();
    session.EndCounting();

    const double rate = (result.Number("count") - 1) / (result.Number("end") - result.Number("begin"));
    Samples samples = {{"messages", "1/s", rate}, {"bytes", "B/s", rate * static_cast<double>(size)}};
    if (backend.hasBroker) {
        samples.push_back({"broker-cpu", "s", session.OfBroker().cpuSeconds / result.Number("total") * kMillion});
    }
    return samples;
}

Samples MeasureFanOut(const Backend& backend, std::size_t size, double seconds, double window, int subscribers) {
    Session session(backend);
    std::vector<RoleProcess*> sinks;
    for (int i = 0; i < subscribers; ++i) {
        sinks.push_back(&session.Add("subscriber", SizeAnd(size, seconds).Set("window", window).Set("index", i)));
    }
    RoleProcess& source =
        session.Add("publisher", SizeAnd(size, seconds).Set("window", window).Set("receivers", subscribers));
    for (RoleProcess* sink : sinks) {
        sink->Begin();
    }
    source.Begin();
    double count = 0;
    double begin = std::numeric_limits<double>::max();
    double end = 0;
    for (RoleProcess* sink : sinks) {
        const Settings result = sink->AwaitResult();
        count += result.Number("count");
        begin = std::min(begin, result.Number("begin"));
        end = std::max(end, result.Number("end"));
    }
    source.AwaitResult();
    return {{"deliveries", "1/s", count / (end - begin)}};
}

// ---- Memory --------------------------------------------------------------------------------------------------------

constexpr int kFewClients = 20;
constexpr int kManyClients = 90; // our own bus has 100 places, one of them for its host

Settings Idle(int first, int count) {
    constexpr int kFirstIdle = 1000;
    return Settings().Set("first", kFirstIdle + first).Set("count", count);
}

// Adds idle clients with the numbers from `first` to before `end`.
void AddIdle(Session& session, const Backend& backend, int first, int end) {
    if (!backend.connectionPerProcess) {
        session.Add("idle", Idle(first, end - first));
        return;
    }
    // Our host listens for 20 clients, and for 20 again only when one has left: so now and then one comes and goes.
    constexpr int kBatch = 10;
    for (int i = first; i < end; ++i) {
        session.Add("idle", Idle(i, 1));
        if (i % kBatch == kBatch - 1) {
            session.Visit("idle", Idle(kManyClients, 1));
        }
    }
}

// When the broker has done what the last client made it do.
Memory SettledMemory(const Session& session) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return session.MemoryOfBroker();
}

Samples MeasureMemory(const Backend& backend) {
    Session session(backend);
    const double none = SettledMemory(session).residentMiB;
    AddIdle(session, backend, 0, kFewClients);
    const double few = SettledMemory(session).residentMiB;
    AddIdle(session, backend, kFewClients, kManyClients);
    const Memory many = SettledMemory(session);
    return {{"broker-0", "MiB", none},
            {"broker-20", "MiB", few},
            {"broker-90", "MiB", many.residentMiB},
            {"broker-90-anonymous", "MiB", many.anonymousMiB}};
}

// ---- All of them ---------------------------------------------------------------------------------------------------

bool ForAll(const Backend& /*backend*/) {
    return true;
}

bool ForStreams(const Backend& backend) {
    return !backend.onlyLatency;
}

bool ForBrokers(const Backend& backend) {
    return backend.hasBroker && !backend.onlyLatency;
}

bool ForLimits(const Backend& backend) {
    return backend.kind == Kind::Limit && sysconf(_SC_NPROCESSORS_ONLN) > 1;
}

Workload RoundTrips(const char* name, std::size_t size, Placement placement) {
    return {
        name,
        [=](const Backend& backend, double seconds) { return MeasureRoundTrips(backend, size, seconds, placement); },
        ForAll};
}

// The windows are what every bus can hold without losing any.
Workload OneWay(const char* name, std::size_t size, double window) {
    return {name, [=](const Backend& backend, double seconds) { return MeasureOneWay(backend, size, seconds, window); },
            ForStreams};
}

Samples MeasureApart(const Backend& backend, double seconds) {
    const Placement apart = backend.hasBroker ? Placement{.client = 0, .broker = 1, .server = 0}
                                              : Placement{.client = 0, .broker = kAnyCpu, .server = 1};
    return MeasureRoundTrips(backend, 64, seconds, apart);
}

} // namespace

const std::vector<Workload>& Workloads() {
    static const std::vector<Workload> workloads = {
        RoundTrips("sync-64", 64, {}),
        RoundTrips("sync-16k", 16 << 10, {}),
        RoundTrips("sync-64-one-cpu", 64, {.client = 0, .broker = 0, .server = 0}),
        {"sync-64-apart", MeasureApart, ForLimits},
        OneWay("post-64", 64, 4096),
        OneWay("post-4k", 4 << 10, 512),
        OneWay("post-1m", 1 << 20, 8),
        OneWay("post-1m-x2", 1 << 20, 2),
        {"sync-64-x64",
         [](const Backend& backend, double seconds) { return MeasurePipeline(backend, 64, seconds, 64); }, ForStreams},
        {"publish-8",
         [](const Backend& backend, double seconds) { return MeasureFanOut(backend, 64, seconds, 1024, 8); },
         ForBrokers},
        {"memory", [](const Backend& backend, double /*seconds*/) { return MeasureMemory(backend); }, ForBrokers,
         false}};
    return workloads;
}

} // namespace Vantor::Sentrix::Compare
