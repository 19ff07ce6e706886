// Round trips: some threads, each with one request in flight.
#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/veyra/Ids.h"
#include "tools/veyra/bench/Latencies.h"
#include "tools/veyra/bench/Workers.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Tool {

namespace {

using Clock = Latencies::Clock;

struct Run {
    const IPCMessageClient& client;
    std::int32_t to;
    std::string body;
    Clock::time_point measureFrom;
    Clock::time_point end;
    std::atomic<bool> failed{false};
};

bool RoundTrip(Run& run, std::int32_t uniqMsgId) {
    TagIPCMessageItem request;
    request.toModuleId = run.to;
    request.msgId = BenchMessage::kRequest;
    request.replyMsgId = BenchMessage::kReply;
    request.uniqMsgId = uniqMsgId;
    request.dataLen = static_cast<std::int32_t>(run.body.size());
    request.data = run.body.data();
    constexpr unsigned int kPatienceMs = 10000;
    std::int32_t answered = -1;
    return run.client.SendIPCMessage(request, BenchMessage::kReply, kPatienceMs,
                                     [&answered](TagIPCMessageItem& answer) { answered = answer.dataLen; }) &&
           answered == request.dataLen;
}

void Call(Run& run, int thread, Latencies& latencies) {
    constexpr int kUniqPerThread = 1 << 24;
    std::int32_t uniq = thread * kUniqPerThread;
    for (auto begin = Clock::now(); begin < run.end && !run.failed; begin = Clock::now()) {
        if (!RoundTrip(run, ++uniq)) {
            run.failed = true;
        } else if (begin >= run.measureFrom) {
            latencies.Add(Clock::now() - begin);
        }
    }
}

} // namespace

void RunCaller(const Settings& settings) {
    const std::uint32_t id = PassingModuleId();
    IPCMessageClient client(static_cast<int>(id), false, false);
    SayReady(client, id);
    const auto seconds = settings.Number("seconds");
    const auto start = Clock::now();
    const auto measureFrom = start + kWarmUp;
    Run run{client, settings.Get<std::int32_t>("to"), std::string(settings.Get<std::size_t>("size"), 'x'), measureFrom,
            measureFrom + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))};

    std::vector<Latencies> latencies(settings.Get<std::size_t>("outstanding"));
    std::vector<std::jthread> threads; // joined even when there is no thread for the last of them
    for (std::size_t i = 0; i < latencies.size(); ++i) {
        threads.emplace_back([&, i] { Call(run, static_cast<int>(i), latencies[i]); });
    }
    for (std::jthread& thread : threads) {
        thread.join();
    }
    const std::chrono::duration<double> measured = Clock::now() - run.measureFrom;
    if (run.failed) {
        throw BenchFailure("a request was not answered");
    }
    Latencies all;
    for (const Latencies& one : latencies) {
        all.Add(one);
    }
    Support::WriteOutput(ResultLine(Settings()
                                        .Set("p50", all.Microseconds(0.50))
                                        .Set("p99", all.Microseconds(0.99))
                                        .Set("rate", static_cast<double>(all.Count()) / measured.count())) +
                         '\n');
}

} // namespace Vantor::Sentrix::Tool
