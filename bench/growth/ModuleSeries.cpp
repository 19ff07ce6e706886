// What a process has: modules, subscriptions, callbacks that take their time.
#include "bench/growth/Bus.h"
#include "bench/growth/Series.h"

#include <stdexcept>

namespace Vantor::Sentrix::Growth {

namespace {

constexpr double kBytes = 64;

} // namespace

void MeasureModules(Results& results, double seconds) {
    for (const int count : {1, 3, 10, 30, 100, 300, 1000}) {
        const auto add = [&](const char* metric, double value) {
            results.Add("modules", count, "modules", metric, "us", value);
        };
        Bus bus;
        Party& asker = bus.Join();
        Party& receiver = bus.Join(count);
        const Settings joined = receiver.Order("joined");
        add("make", joined.Number("make"));
        add("known", joined.Number("known"));
        const auto ask = [&](int module) {
            return asker.Order("ask", Asking(module, Message::kEcho, kBytes, seconds));
        };
        Settle();
        add("first", ask(receiver.Module()).Number("p50"));
        const Stopwatch watch(receiver);
        const Settings last = ask(receiver.Module(count - 1));
        add("receiver-cpu", watch.Microseconds() / last.Number("total"));
        add("last", last.Number("p50"));
    }
}

namespace {

struct Place {
    const char* name;
    int number; // for the order
};

// The processor time for a publication.
double CostOfNews(Party& publisher, Party& receiver, const Place& place, double seconds) {
    const Stopwatch watch(receiver);
    const double sent =
        publisher.Order("flood", Settings().Set("to", receiver.Module()).Set("seconds", seconds)).Number("count");
    Settle();
    const double used = watch.Microseconds();
    if (receiver.Order("heard").Number("count") != (place.number == 0 ? 0 : sent)) {
        throw std::runtime_error("publications were lost, or came without a subscription");
    }
    return used / sent;
}

} // namespace

void MeasureSubscriptions(Results& results, double seconds) {
    constexpr Place kPlaces[] = {{"none", 0}, {"first", 1}, {"last", 2}};
    Bus bus;
    Party& publisher = bus.Join();
    Party& receiver = bus.Join();
    for (const int count : {1, 10, 100, 1000, 10000}) {
        const auto add = [&](const char* metric, double value) {
            results.Add("subscriptions", count, "subscriptions", metric, "us", value);
        };
        double subscribe = 0;
        for (const Place& place : kPlaces) {
            subscribe =
                receiver
                    .Order(
                        "listen",
                        Settings().Set("to", publisher.Module()).Set("subscriptions", count).Set("place", place.number))
                    .Number("each");
            add(place.name, CostOfNews(publisher, receiver, place, seconds));
        }
        add("subscribe", subscribe);
    }
}

void MeasureCallbacks(Results& results, double seconds) {
    for (const double ms : {0.0, 0.1, 1.0, 10.0, 100.0}) {
        const auto add = [&](const char* metric, const char* unit, double value) {
            results.Add("callbacks", ms, "ms", metric, unit, value);
        };
        const double us = ms * 1000;
        Bus bus;
        const Party& slow = bus.Join(2);
        Party& sender = bus.Join();
        Party& asker = bus.Join();
        sender.Begin("volley", Settings().Set("to", slow.Module()).Set("us", us).Set("seconds", seconds));
        const Settings other = asker.Order("ask", Asking(slow.Module(1), Message::kEcho, kBytes, seconds));
        const double all = sender.AwaitResult().Number("p50");
        add("all", "us", all);
        if (ms > 0) {
            add("ratio", "1", all / us);
        }
        add("other-p50", "us", other.Number("p50"));
        add("other-p99", "us", other.Number("p99"));
    }
}

} // namespace Vantor::Sentrix::Growth
