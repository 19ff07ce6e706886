// The echo module, and the one that asks it from several threads. Every request has an outcome, which is judged.
#include "campaigns/soak/Member.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

// A wait that ends so much after its limit is overdue: the machine does other work as well.
constexpr double kGraceSeconds = 3;

struct Lane {
    static constexpr double kEnded = -1;

    int to;
    unsigned int limitMs;
    double LimitSeconds() const { return limitMs / 1000.0; }

    std::atomic<double> since{0}; // when the request began that waits now; 0: none waits
    std::thread thread{};
};

class Asker {
public:
    explicit Asker(int number) : m_client(kFirstAskerModule + number, false, false) {
        m_client.RegisterMessageCallback(kAnswer, [this](TagIPCMessageItem& item) {
            m_tally.Arrive(item.uniqMsgId);
            if (m_edits) {
                Edit(item); // the waiting sender has the same answer
            }
        });
    }

    Tally& Figures() { return m_tally; }

    // With `away`, half of the lanes have no limit, and half ask a module that is not there.
    void Start(const Settings& order) {
        const bool away = order.Number("away") != 0;
        m_edits = order.Number("edits") != 0;
        m_stop = false;
        m_lanes.clear();
        for (int i = 0; i < (away ? 4 : 2); ++i) {
            m_lanes.emplace_back(i < 2 ? kEchoModule : kAbsentModule, !away ? 5000 : i % 2 == 0 ? kNoLimit : 300);
        }
        for (Lane& lane : m_lanes) {
            lane.thread = std::thread([this, &lane] { Run(lane); });
        }
    }

    // "pending" are the requests without a limit that began before that time and still wait.
    void LookForPending(const Settings& order) {
        m_tally.Set("pending", static_cast<double>(std::count_if(m_lanes.begin(), m_lanes.end(), [&](const Lane& lane) {
                        const double since = lane.since;
                        return lane.limitMs == kNoLimit && since > 0 && since < order.Number("before");
                    })));
    }

    // Requests that still have no outcome are stuck: their threads are left behind.
    void Stop() {
        m_stop = true;
        for (Lane& lane : m_lanes) {
            const double longest = kGraceSeconds + (lane.limitMs == kNoLimit ? 0 : lane.LimitSeconds());
            const bool hasEnded = AwaitThat(longest, [&] { return lane.since == Lane::kEnded; });
            m_tally.Add("stuck", hasEnded ? 0 : 1);
            hasEnded ? lane.thread.join() : lane.thread.detach();
        }
    }

private:
    void Run(Lane& lane) {
        while (!m_stop) {
            AskOnce(lane, ++m_number);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        lane.since = Lane::kEnded;
    }

    void AskOnce(Lane& lane, std::uint32_t number) {
        const std::string body = Body(number, number % 16 == 0 ? number % 100'000 : 64);
        TagIPCMessageItem request = Item(lane.to, kAsk, number, body);
        bool right = false;
        const double begin = Now();
        lane.since = begin;
        const bool answered = m_client.SendIPCMessage(request, kAnswer, lane.limitMs, [&](TagIPCMessageItem& answer) {
            right = lane.to == kEchoModule && answer.dataLen == request.dataLen && IsIntact(answer);
        });
        const double seconds = Now() - begin;
        lane.since = 0;
        const bool limited = lane.limitMs != kNoLimit;
        m_tally.Add("asked");
        m_tally.Add(answered ? "answered" : limited && seconds > 0.9 * lane.LimitSeconds() ? "timed-out" : "refused");
        m_tally.Add("wrong", answered && !right ? 1 : 0);
        m_tally.Add("overdue", limited && seconds > lane.LimitSeconds() + kGraceSeconds ? 1 : 0);
        m_tally.Add("most-answer-ms", answered ? seconds * 1000 : 0);
    }

    Tally m_tally;
    std::deque<Lane> m_lanes;
    std::atomic<std::uint32_t> m_number{0};
    std::atomic<bool> m_edits{false};
    std::atomic<bool> m_stop{false};
    IPCMessageClient m_client; // last: its callbacks use the others
};

} // namespace

void PlayEcho(const Settings& /*settings*/) {
    IPCMessageClient client(kEchoModule, false, false);
    client.RegisterMessageCallback(kAsk, [&](TagIPCMessageItem& request) {
        TagIPCMessageItem answer = request;
        answer.toModuleId = request.fromModuleId;
        answer.msgId = request.replyMsgId;
        client.PostIPCMessage(answer);
    });
    Tally none;
    Obey(none);
}

void PlayAsker(const Settings& settings) {
    Asker asker(settings.Get<int>("number"));
    Obey(asker.Figures(), {{"start", [&](const Settings& order) { asker.Start(order); }},
                           {"pending", [&](const Settings& order) { asker.LookForPending(order); }},
                           {"stop", [&](const Settings& /*order*/) { asker.Stop(); }}});
}

} // namespace Vantor::Sentrix::Soak
