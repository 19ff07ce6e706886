// The length of a body, and what a round trip costs in numbers that no clock disturbs.
#include "bench/growth/Bus.h"
#include "bench/growth/PlainCarriage.h"
#include "bench/growth/Series.h"

#include <deque>

namespace Vantor::Sentrix::Growth {

namespace {

constexpr double kKi = 1024;
constexpr double kMi = 1024 * kKi;

} // namespace

// A host for each length, because its peak stays.
void MeasureBodies(Results& results, double seconds) {
    for (const double bytes :
         {0.0, 64.0, kKi, 4 * kKi, 16 * kKi, 64 * kKi, 256 * kKi, kMi, 4 * kMi, 16 * kMi, 64 * kMi}) {
        const auto add = [&](const char* metric, const char* unit, double value) {
            results.Add("bodies", bytes, "B", metric, unit, value);
        };
        Bus bus;
        const Party& answerer = bus.Join();
        Party& asker = bus.Join();
        const double p50 =
            asker.Order("ask", Asking(answerer.Module(), Message::kSwallow, bytes, seconds)).Number("p50");
        add("p50", "us", p50);
        if (bytes > 0) {
            add("plain", "us", CarryPlainly(static_cast<std::size_t>(bytes), seconds));
            add("rate", "MB/s", bytes / p50);
        }
        add("host-peak", "MiB", bus.Host().Memory().peakMiB);
    }
}

void MeasureCounts(Results& results, double seconds) {
    for (const double bytes : {64.0, kKi, 16 * kKi, 256 * kKi}) {
        Bus bus;
        Party& answerer = bus.Join();
        Party& asker = bus.Join();
        struct Counted {
            std::string name;
            Party& party;
        };
        const std::vector<Counted> parties = {{"asker", asker}, {"host", bus.Host()}, {"answerer", answerer}};
        std::vector<double> allocations;
        std::deque<Stopwatch> watches;
        Settle();
        for (const Counted& one : parties) {
            allocations.push_back(one.party.Allocations());
        }
        for (const Counted& one : parties) {
            watches.emplace_back(one.party);
        }
        const double trips =
            asker.Order("ask", Asking(answerer.Module(), Message::kEcho, bytes, seconds)).Number("total");
        for (std::size_t i = 0; i < parties.size(); ++i) {
            results.Add("counted", bytes, "B", "switches-" + parties[i].name, "1", watches[i].Switches() / trips);
        }
        for (std::size_t i = 0; i < parties.size(); ++i) {
            const double made = parties[i].party.Allocations() - allocations[i];
            results.Add("counted", bytes, "B", "allocs-" + parties[i].name, "1", made / trips);
        }
    }
}

} // namespace Vantor::Sentrix::Growth
