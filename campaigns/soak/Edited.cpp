// Edited: callbacks change the bytes they were given, in the publisher, in receivers that share a process, and beside a
// sender that waits for the same packet. Nobody else may see that.
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"

#include <array>
#include <atomic>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr int kViewers = 2;                           // processes
constexpr int kReadersEach = 2;                       // in a viewer
constexpr int kReaders = 1 + kViewers * kReadersEach; // the first is the publisher itself

// A module that takes letters: it looks, gives others the time to interfere, looks again, and changes every letter.
class Reader {
public:
    Reader(Tally& tally, int module, int index) : m_client(module, false, false) {
        const auto take = [this, &tally, index](TagIPCMessageItem& item) {
            const bool before = IsIntact(item);
            std::this_thread::yield();
            tally.Add("damaged", before && IsIntact(item) ? 0 : 1);
            Edit(item);
            tally.Arrive(item.uniqMsgId * kReadersEach + index);
            Acknowledge(m_client, item);
        };
        m_client.SubscribeIPCMessage(kPublisherModule, kLetter);
        m_client.RegisterPublishMessageCallback(take);
        m_client.RegisterMessageCallback(kLetter, take);
    }
    IPCMessageClient& Client() { return m_client; }

private:
    IPCMessageClient m_client;
};

class Edited : public Scenario {
public:
    explicit Edited(Stage& stage)
        : Scenario("edited", stage), m_publisher(Join(MainBus(), "publisher")),
          m_asker(Join(MainBus(), "asker", Settings().Set("number", 1))) {
        for (int i = 0; i < kViewers; ++i) {
            m_viewers.push_back(
                &Join(MainBus(), "viewer", Settings().Set("module", kFirstViewerModule + kReadersEach * i)));
        }
    }

    void Lap() override {
        for (const auto& member : Members()) {
            member->Order("begin");
        }
        m_asker.Order("start", Settings().Set("away", 0).Set("edits", 1));
        const double sent = m_publisher.Order("run", Settings().Set("seconds", 8)).Number("sent");
        Add(m_asker.Order("stop"));
        Judge(m_publisher, sent);
        for (Member* viewer : m_viewers) {
            Judge(*viewer, kReadersEach * sent);
        }
    }

private:
    void Judge(Member& member, double due) const {
        AwaitThat(kPatienceSeconds, [&] { return member.Figure("arrived") >= due; });
        Add(member.Order("look"));
        Add("missing", due - member.Figure("arrived"));
    }

    Member& m_publisher;
    Member& m_asker;
    std::vector<Member*> m_viewers;
};

} // namespace

// Publishes letters and sends them to every module, with few on their way.
void PlayPublisher(const Settings& /*settings*/) {
    constexpr std::array<std::size_t, 5> kSizes = {100, 5'000, 40'000, 300'000, 1'000'000};
    constexpr int kAhead = 8;
    Tally tally;
    std::atomic<int> taken{0};
    Reader reader(tally, kPublisherModule, 0);
    IPCMessageClient& client = reader.Client();
    client.RegisterMessageCallback(kTaken, [&](TagIPCMessageItem&) { ++taken; });
    const auto run = [&](const Settings& order) {
        int sent = 0;
        taken = 0;
        const auto theyKeepUp = [&] { return kReaders * (sent - kAhead) < taken; };
        const double end = Now() + order.Number("seconds");
        for (; Now() < end && AwaitThat(kPatienceSeconds, theyKeepUp); ++sent) {
            const auto number = static_cast<std::uint32_t>(sent);
            const std::string body = Body(number, kSizes.at(number % kSizes.size()));
            TagIPCMessageItem letter = Item(0, kLetter, number, body);
            number / kSizes.size() % 2 == 0 ? client.PublishIPCMessage(letter) : client.PostIPCMessage(letter);
        }
        tally.Add("sent", sent);
    };
    Obey(tally, {{"run", run}});
}

void PlayViewer(const Settings& settings) {
    Tally tally;
    Reader one(tally, settings.Get<int>("module"), 0);
    Reader other(tally, settings.Get<int>("module") + 1, 1);
    Obey(tally);
}

std::unique_ptr<Scenario> MakeEdited(Stage& stage) {
    return std::make_unique<Edited>(stage);
}

} // namespace Vantor::Sentrix::Soak
