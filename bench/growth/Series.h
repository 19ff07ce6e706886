// What is measured. Each function measures every point of its series once.
// Fails: std::runtime_error, which says what the processes wrote.
#pragma once

#include "bench/growth/Results.h"

#include <string>
#include <vector>

namespace Vantor::Sentrix::Growth {

// `clients`, over connected processes: p50 in us of a 64 B round trip; host-cpu in us for a message; host-memory in
// MiB; publish: us until a publication has reached all of the others, divided by their number. `idle`, over connected
// processes: host and clients, the processor time in us that the host and all the others use in a second in which
// nothing is in flight, after that traffic.
void MeasureClients(Results& results, double seconds);

// `modules`, over modules of one process: make and known, us for each until its constructor has returned and until the
// server knows it; first and last, p50 in us of a 64 B round trip to that one; receiver-cpu in us for a request and its
// answer.
void MeasureModules(Results& results, double seconds);

// `subscriptions`, over those of one client: none, first and last, the receiver's processor time in us for a 64 B
// publication that matches none, the first, the last one; subscribe: us for a subscription.
void MeasureSubscriptions(Results& results, double seconds);

// `callbacks`, over the ms that a callback takes: all, us until 64 messages to such a module are done; ratio, of that
// to the callback's time; other-p50 and other-p99 in us of a 64 B round trip to another module of that process
// meanwhile.
void MeasureCallbacks(Results& results, double seconds);

// `bodies`, over B of a request that has an empty answer: p50 in us; plain, the same of PlainCarriage.h; rate in MB/s;
// host-peak in MiB.
void MeasureBodies(Results& results, double seconds);

// `counted`, over B of a request and of its answer: switches and allocs of a round trip, of asker, host and answerer.
void MeasureCounts(Results& results, double seconds);

struct Series {
    std::string name; // the others that a function measures come with it
    void (*measure)(Results& results, double seconds);
};

inline const std::vector<Series>& AllSeries() {
    static const std::vector<Series> all = {
        {"clients", MeasureClients}, {"modules", MeasureModules},     {"subscriptions", MeasureSubscriptions},
        {"bodies", MeasureBodies},   {"callbacks", MeasureCallbacks}, {"counted", MeasureCounts}};
    return all;
}

} // namespace Vantor::Sentrix::Growth
