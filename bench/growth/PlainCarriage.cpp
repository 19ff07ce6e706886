#include "bench/growth/PlainCarriage.h"

#include "bench/compare/Sockets.h"
#include "tools/veyra/bench/Latencies.h"

#include <chrono>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace Vantor::Sentrix::Growth {

namespace {

using Compare::Descriptor;
using Clock = Tool::Latencies::Clock;

void Fill(std::string& body, const Descriptor& from) {
    for (std::size_t at = 0; at < body.size();) {
        at += Compare::ReadSome(from, body.data() + at, body.size() - at, true);
    }
}

// Until one side is closed, and then closes the other.
void Forward(Descriptor source, Descriptor sink, std::size_t bytes) try {
    std::string body(bytes, '\0');
    for (std::string answer(1, '\0');;) {
        Fill(body, source);
        Compare::WriteAll(sink, body);
        Fill(answer, sink);
        Compare::WriteAll(source, answer);
    }
} catch (const std::system_error&) {
}

void Swallow(Descriptor source, std::size_t bytes) try {
    for (std::string body(bytes, '\0');;) {
        Fill(body, source);
        Compare::WriteAll(source, "x");
    }
} catch (const std::system_error&) {
}

} // namespace

double CarryPlainly(std::size_t bytes, double seconds) {
    auto [own, fromAsker] = Compare::ConnectedPair();
    auto [toSink, sink] = Compare::ConnectedPair();
    const std::jthread swallows(Swallow, std::move(sink), bytes);
    const std::jthread forwards(Forward, std::move(fromAsker), std::move(toSink), bytes);
    const Descriptor asker(std::move(own)); // closed before the threads are waited for, which ends them
    const std::string body(bytes, 'x');
    std::string answer(1, '\0');
    Tool::Latencies latencies;
    // The first ones, which find memory that nobody has touched, are as good as the half that p50 leaves out.
    constexpr int kFewest = 5;
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (int i = 0; i < kFewest || Clock::now() < end; ++i) {
        const Clock::time_point begin = Clock::now();
        Compare::WriteAll(asker, body);
        Fill(answer, asker);
        latencies.Add(Clock::now() - begin);
    }
    return latencies.Microseconds(0.50);
}

} // namespace Vantor::Sentrix::Growth
