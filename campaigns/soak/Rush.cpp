// Rush: the receiver of a fast stream of small messages beside two busy loops. The clients of the comparison fail when
// a message is lost, doubled or damaged; here it matters that the receiver gets by with few threads.
#include "bench/compare/BusyLoops.h"
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"

#include <chrono>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr double kSeconds = 6;
constexpr double kMostThreads = 100;

class Rush : public Scenario {
public:
    explicit Rush(Stage& stage) : Scenario("rush", stage) {}

    void Lap() override {
        const Compare::BusyLoops loops(2);
        const Settings stream = Settings().Set("size", 64).Set("window", 4096).Set("seconds", kSeconds);
        const auto sink = MainBus().JoinBench("sink", stream);
        const auto source = MainBus().JoinBench("source", stream);
        sink->Begin("go");
        source->Begin("go");
        double most = 0;
        for (const double end = Now() + kSeconds; Now() < end;) {
            most = std::max(most, HoldingsOf(sink->Process()).threads);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        const double received = sink->AwaitResult().Number("total");
        Add(Settings().Set("arrived", received).Set("most-threads", most));
        Add("missing", source->AwaitResult().Number("sent") - received);
        if (most > kMostThreads) {
            AddFault("the receiver had %.0f threads", most);
        }
    }
};

} // namespace

std::unique_ptr<Scenario> MakeRush(Stage& stage) {
    return std::make_unique<Rush>(stage);
}

} // namespace Vantor::Sentrix::Soak
