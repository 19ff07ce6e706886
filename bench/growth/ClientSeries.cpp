// The clients that are connected, and what they cost when nobody says anything.
#include "bench/compare/Report.h"
#include "bench/growth/Bus.h"
#include "bench/growth/Series.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace Vantor::Sentrix::Growth {

namespace {

constexpr double kBytes = 64;
constexpr double kMessagesOfRoundTrip = 2;
// One run alone differs from the next by more than what is looked for.
constexpr int kRoundTripRuns = 7;

void AddRoundTrip(Bus& bus, Results& results, double x, double seconds) {
    Party& asker = *bus.Members()[0];
    const Party& answerer = *bus.Members()[1];
    const Stopwatch host(bus.Host());
    const Settings result = asker.Order("ask", Asking(answerer.Module(), Message::kEcho, kBytes, seconds));
    const double messages = result.Number("total") * kMessagesOfRoundTrip;
    results.Add("clients", x, "clients", "p50", "us", result.Number("p50"));
    results.Add("clients", x, "clients", "host-cpu", "us", host.Microseconds() / messages);
}

// The first member publishes.
void AddPublish(Bus& bus, Results& results, double x) {
    constexpr int kCount = 11;
    constexpr double kPauseSeconds = 0.02; // longer than a publication is on its way
    Party& publisher = *bus.Members()[0];
    for (std::size_t i = 1; i < bus.Members().size(); ++i) {
        bus.Members()[i]->Order("listen",
                                Settings().Set("to", publisher.Module()).Set("subscriptions", 1).Set("place", 1));
    }
    const Settings sent = publisher.Order("publish", Settings().Set("count", kCount).Set("pause", kPauseSeconds));
    std::vector<double> times(kCount, 0);
    for (std::size_t i = 1; i < bus.Members().size(); ++i) {
        const Settings heard = bus.Members()[i]->Order("heard"); // Number() throws when one is missing
        for (int number = 0; number < kCount; ++number) {
            const std::string name = std::to_string(number);
            double& time = times[static_cast<std::size_t>(number)];
            time = std::max(time, heard.Number(name) - sent.Number(name));
        }
    }
    results.Add("clients", x, "clients", "publish", "us", Compare::Median(times) / (x - 1));
}

void AddIdle(Bus& bus, Results& results, double x) {
    std::this_thread::sleep_for(std::chrono::seconds(1)); // what the traffic has left behind is over
    const Stopwatch host(bus.Host());
    const std::vector<Stopwatch> members = [&] {
        std::vector<Stopwatch> all;
        all.reserve(bus.Members().size());
        for (const auto& member : bus.Members()) {
            all.emplace_back(*member);
        }
        return all;
    }();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    double sum = 0;
    for (const Stopwatch& member : members) {
        sum += member.Microseconds();
    }
    results.Add("idle", x, "clients", "host", "us", host.Microseconds());
    results.Add("idle", x, "clients", "clients", "us", sum);
}

} // namespace

void MeasureClients(Results& results, double seconds) {
    constexpr std::size_t kMost = 99; // the host has 100 places, and takes one for itself
    Bus bus;
    for (const std::size_t count : {std::size_t{1}, std::size_t{2}, std::size_t{5}, std::size_t{10}, std::size_t{20},
                                    std::size_t{40}, std::size_t{70}, kMost}) {
        const auto x = static_cast<double>(count);
        if (count <= 2) {
            bus.Join();
        } else {
            bus.Fill(count);
        }
        Settle();
        results.Add("clients", x, "clients", "host-memory", "MiB", bus.Host().Memory().residentMiB);
        if (count > 1) {
            for (int i = 0; i < kRoundTripRuns; ++i) {
                AddRoundTrip(bus, results, x, seconds);
            }
            AddPublish(bus, results, x);
        }
        if (count == 2 || count == kMost) {
            AddIdle(bus, results, x);
        }
    }
}

} // namespace Vantor::Sentrix::Growth
