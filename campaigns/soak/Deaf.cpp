// Deaf: a service whose callbacks ask others between rows of plain messages must go on hearing every message.
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"

#include <atomic>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr std::uint32_t kRow = 20; // plain messages before one whose callback asks

// Mostly without waiting: that the callback asks at all is what matters.
void AskNow(const IPCMessageClient& client, std::uint32_t number, Tally& tally) {
    const unsigned int limitMs = number / kRow % 8 == 0 ? 2000 : 0;
    const std::string body = Body(number, 64);
    TagIPCMessageItem request = Item(kEchoModule, kAsk, number, body);
    client.SendIPCMessage(request, kAnswer, limitMs, [&](TagIPCMessageItem& answer) {
        tally.Add("answered");
        tally.Add("wrong", IsIntact(answer) ? 0 : 1);
    });
}

class Deaf : public Scenario {
public:
    explicit Deaf(Stage& stage)
        : Scenario("deaf", stage), m_service(Join(MainBus(), "service")), m_rows(Join(MainBus(), "rows")) {}

    void Lap() override {
        m_service.Order("begin");
        m_rows.Order("begin");
        const Settings posted = m_rows.Order("run", Settings().Set("seconds", 8));
        const double sent = posted.Number("sent");
        AwaitThat(kPatienceSeconds, [&] { return m_service.Figure("arrived") >= sent; });
        Add(posted);
        Add(m_service.Order("look"));
        Add("missing", sent - m_service.Figure("arrived"));
    }

private:
    Member& m_service;
    Member& m_rows;
};

} // namespace

void PlayService(const Settings& /*settings*/) {
    Tally tally;
    IPCMessageClient client(kServiceModule, false, false);
    client.RegisterMessageCallback(kPlain, [&](TagIPCMessageItem& item) { tally.Arrive(item.uniqMsgId); });
    client.RegisterMessageCallback(kAsking, [&](TagIPCMessageItem& item) {
        AskNow(client, static_cast<std::uint32_t>(item.uniqMsgId), tally);
        tally.Arrive(item.uniqMsgId);
        Acknowledge(client, item);
    });
    Obey(tally);
}

// Posts rows while the service keeps up. What comes back "bounced" because the service was taken for offline.
void PlayRows(const Settings& /*settings*/) {
    constexpr std::uint32_t kRowsAhead = 50;
    Tally tally;
    std::atomic<std::uint32_t> taken{0};
    IPCMessageClient client(kRowsModule, false, false);
    client.RegisterMessageCallback(kTaken, [&](TagIPCMessageItem&) { ++taken; });
    client.RegisterMessageCallback(static_cast<int>(ControlMessage::kModuleOffline),
                                   [&](TagIPCMessageItem&) { tally.Add("bounced"); });
    const auto run = [&](const Settings& order) {
        std::uint32_t sent = 0;
        std::uint32_t rows = taken = 0;
        const auto keepsUp = [&] { return rows - taken < kRowsAhead; };
        const double end = Now() + order.Number("seconds");
        for (; Now() < end && sent + kRow < Tally::kMostNumbers && AwaitThat(kPatienceSeconds, keepsUp); ++rows) {
            for (std::uint32_t i = 0; i < kRow; ++i) {
                client.PostIPCMessage(Item(kServiceModule, kPlain, sent++));
            }
            client.PostIPCMessage(Item(kServiceModule, kAsking, sent++));
        }
        tally.Add("sent", sent);
    };
    Obey(tally, {{"run", run}});
}

std::unique_ptr<Scenario> MakeDeaf(Stage& stage) {
    return std::make_unique<Deaf>(stage);
}

} // namespace Vantor::Sentrix::Soak
