// What must not hurt: hosts that are killed, that send rubbish, engines that are stopped and processes that exit with
// all of it under way.
#include "tests/support/BusProgram.h"
#include "veyrasvc/bus/NamedPipeIOCP.h"
#include "veyrasvc/bus/ReconnectPauses.h"

#include <cstdlib>
#include <map>

namespace Vantor::Sentrix {
namespace {

constexpr int kAnswer = 30;
constexpr int kPing = 31;
constexpr int kMarker = 32;
constexpr int kBlock = 33;

// A host in this process that answers or keeps the echo module's messages; told to, it answers one with rubbish.
class FakeHost final : public IOCPServer {
public:
    explicit FakeHost(bool answers) : m_answers(answers) { Start(); }
    ~FakeHost() { Stop(); }

    bool OnNewConnection(IOCPContext*) override {
        m_connections.Add();
        return true;
    }
    void OnRecvData(IOCPContext* context, IOCPBuffer* buffer) override {
        if (m_standsStill.exchange(false)) {
            m_goesOn.Await(1);
            m_received.erase(context);
            ClosePipe(context);
            return;
        }
        const bool isNew = m_received.count(context) == 0;
        std::string& received = m_received[context];
        received.append(buffer->m_data, buffer->m_length);
        EXPECT_TRUE(!isNew || ParseRawFrame(received).msgId == ControlMessage::kRegistration) << "a stranger speaks";
        bool corrupt = false;
        while (const auto frame = CutRawFrame(received, corrupt)) {
            const RawPacket packet = ParseRawFrame(*frame);
            if (packet.to == kEchoModule && m_answers) {
                Answer(context, packet);
            } else if (packet.to == kEchoModule) {
                m_kept.Put(packet);
            }
        }
        EXPECT_FALSE(corrupt);
    }
    std::atomic<bool> m_standsStill{false}; // at the next read, until m_goesOn; then it ends that connection
    Tally m_goesOn;
    Tally m_connections;
    Mailbox<RawPacket> m_kept;
    Mailbox<std::string> m_rubbish; // sent in place of the next answers

private:
    void Answer(IOCPContext* context, RawPacket packet) {
        std::swap(packet.to, packet.from);
        packet.msgId = packet.replyMsgId;
        std::string answer = packet.Frame();
        answer.back() ^= 1; // a client does not look at the payload's checksum
        const std::string bytes = m_rubbish.IsEmpty() ? answer : m_rubbish.Take().value();
        SendText(context, bytes.data(), static_cast<int>(bytes.size()));
    }

    const bool m_answers;
    std::map<IOCPContext*, std::string> m_received; // touched by the worker only
};

TEST(FaultsTest, AHostIsKilledUnderLoadAndEveryoneComesBack) {
    auto host = std::make_unique<Role>("host");
    const Role echo("echo");
    Tally held;
    IPCMessageClient client(kMe, false, false);
    const IPCMessageClient poster(kOther, false, false);
    client.RegisterMessageCallback(kHeld, [&](TagIPCMessageItem&) { held.Add(); });
    ASSERT_TRUE(AskUntilAnswered(client));

    std::atomic<bool> stop{false};
    Tally answers;
    std::vector<std::thread> load;
    for (int t = 0; t < 4; ++t) {
        load.emplace_back([&, t] {
            for (int i = 0; !stop; ++i) {
                const std::string body = Pattern(static_cast<std::size_t>(i % 10) * 10'000, static_cast<unsigned>(i));
                const auto answer = Ask(client, kEchoModule, body, t * 1'000'000 + i, kEcho, kSoonMs);
                EXPECT_TRUE(!answer || *answer == body);
                answers.Add(answer ? 1 : 0);
            }
        });
    }
    for (int round = 1; round <= 2; ++round) {
        std::vector<std::thread> waits;
        for (int t = 0; t < 8; ++t) {
            waits.emplace_back([&, t] { EXPECT_FALSE(Ask(client, kEchoModule, "?", -1 - t, kHold)); });
        }
        EXPECT_TRUE(held.Await(8 * round));
        EXPECT_TRUE(answers.Await(answers.Value() + 50));
        host->Kill();
        for (std::thread& wait : waits) {
            wait.join(); // nobody has to come back for that
        }
        host.reset(); // is gone as a whole, and its pipe with it
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(poster.PostIPCMessage(Item(kEchoModule, kMarker, "queued", -1, i)));
        }
        auto successor = std::make_unique<FakeHost>(false);
        for (std::uint32_t i = 0; i < 20;) {
            const auto packet = successor->m_kept.Take();
            ASSERT_TRUE(packet);
            if (packet->msgId == kMarker) {
                EXPECT_EQ(packet->uniqMsgId, i++) << "what was queued comes, in order";
            }
        }
        successor.reset();
        host = std::make_unique<Role>("host");
        EXPECT_TRUE(answers.Await(answers.Value() + 50));
    }
    stop = true;
    for (std::thread& thread : load) {
        thread.join();
    }
}

TEST(FaultsTest, RequestsMadeWhileTheHostIsAwayEndWhenItIsBack) {
    constexpr int kNobody = 0x7DEAD;
    constexpr int kRequests = 8;
    const IPCMessageClient client(kMe, false, false);
    for (const bool again : {false, true}) { // before the first host, and after its end
        Tally ended;
        std::vector<std::thread> threads;
        for (int i = 0; i < kRequests; ++i) {
            threads.emplace_back([&, i] {
                EXPECT_FALSE(Ask(client, kNobody, "?", i));
                ended.Add();
            });
        }
        const auto host = std::make_unique<Role>("host");
        EXPECT_TRUE(ended.Await(kRequests)) << again;
        if (ended.Value() < kRequests) {
            StopIPCClient(); // a failure, not a hang
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST(FaultsTest, TheHostIsLookedForOftenAtFirst) {
    using std::chrono::milliseconds;
    ReconnectPauses pauses(1);
    const auto near = [](milliseconds pause, int expected) {
        return std::abs(static_cast<int>(pause.count()) - expected) <= expected / 8;
    };
    for (const int expected : {20, 50, 100, 200, 500, 1000, 1000}) {
        EXPECT_TRUE(near(pauses.Next(), expected)) << expected;
    }
    EXPECT_TRUE(near(pauses.AfterConnection(milliseconds(1)), 1000)) << "refused";
    EXPECT_EQ(pauses.AfterConnection(milliseconds(5000)), milliseconds(0));
    EXPECT_TRUE(near(pauses.Next(), 20));
}

TEST(FaultsTest, AConnectionThatEndsAmidAWriteLosesWhatWasUnderWayAndNoMore) {
    constexpr std::uint32_t kPosts = 50'000; // far more than fits the pipe
    FakeHost host(false);
    const IPCMessageClient poster(kOther, false, false);
    ASSERT_TRUE(host.m_connections.Await(1));
    host.m_standsStill = true;
    for (std::uint32_t i = 0; i < kPosts; ++i) {
        poster.PostIPCMessage(Item(kEchoModule, kMarker, "short frames are joined", -1, static_cast<int>(i)));
    }
    host.m_goesOn.Add();
    auto packet = host.m_kept.Take();
    ASSERT_TRUE(packet && packet->uniqMsgId > 0) << "nothing was under way";
    for (std::uint32_t expected = packet->uniqMsgId; expected < kPosts; ++expected) {
        ASSERT_TRUE(packet);
        ASSERT_EQ(packet->uniqMsgId, expected) << "what had not begun comes, in order";
        packet = expected + 1 < kPosts ? host.m_kept.Take() : packet;
    }
}

TEST(FaultsTest, AClientSurvivesRubbishFromItsHost) {
    IPCMessageClient client(kMe, false, false);
    client.RegisterMessageCallback(kPing,
                                   [](TagIPCMessageItem&) { ADD_FAILURE() << "called with an unreadable body"; });
    const std::string endless = RawHeader(0xFFFFFFFF, 0) + Pattern(10'000);
    const RawPacket unexpected[] = {{.to = kMe, .msgId = kPing, .encrypted = 1, .body = "no ciphertext"},
                                    {.to = kMe, .msgType = 0x10004},
                                    {.to = 1, .msgId = ControlMessage::kModuleOffline, .body = "x"}};
    std::string oddFrames = RawFrame("") + RawFrame("\1\2\3");
    for (const RawPacket& packet : unexpected) {
        oddFrames += packet.Frame();
    }
    auto host = std::make_unique<FakeHost>(true);
    EXPECT_TRUE(host->m_connections.Await(1));
    TagIPCMessageItem request = Item(kEchoModule, kEcho, "body", kAnswer);
    for (const std::string& rubbish : {Pattern(100), Pattern(100'000), std::string(16, '\0'), oddFrames}) {
        host->m_rubbish.Put(rubbish);
        TagIPCMessageItemRecv answer;
        for (int tries = 0; tries < 600 && !client.SendIPCMessage(request, kAnswer, answer, 100); ++tries) {
            ++request.uniqMsgId;
        }
        EXPECT_EQ(answer.data, "bodx") << rubbish.size();
    }
    EXPECT_EQ(host->m_connections.Value(), 1) << "the connection stays";
    host->m_rubbish.Put(endless); // makes the client deaf until this host goes
    TagIPCMessageItemRecv answer;
    EXPECT_FALSE(client.SendIPCMessage(request, kAnswer, answer, 1));
    host.reset();
    const Bus better; // which this process reaches over the same engine
}

bool SeesNotice(RawPeer& witness, std::uint32_t msgId, std::uint32_t moduleId) {
    while (const auto frame = witness.NextFrame()) {
        const RawPacket packet = ParseRawFrame(*frame);
        if (packet.msgId == msgId && packet.body == LittleEndian(moduleId)) {
            return true;
        }
    }
    return false;
}

// Role: stops the engine in the middle of traffic. It leaves the bus and nothing is delivered afterwards.
int StopInTraffic(int variant) {
    SayReady();
    RawPeer witness;
    witness.Register(0x7F000001, "1 ");
    bool isRight = SeesNotice(witness, ControlMessage::kModuleOnline, 1);
    auto* const client = new IPCMessageClient(kMe, false, variant % 2 == 0);
    isRight = isRight && SeesNotice(witness, ControlMessage::kModuleOnline, kMe);
    Tally traffic;
    std::atomic<bool> marked{false};
    client->RegisterMessageCallback(kPing, [&](TagIPCMessageItem&) {
        traffic.Add();
        client->PostIPCMessage(Item(kMe, kPing, "round and round"));
    });
    client->RegisterMessageCallback(kMarker, [&](TagIPCMessageItem&) { marked = true; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        client->PostIPCMessage(Item(kMe, kPing, "round and round"));
        threads.emplace_back([&, t] {
            while (Ask(*client, kEchoModule, Pattern(50'000), t, t == 0 ? kHold : kEcho)) {
                traffic.Add();
            }
        });
    }
    traffic.Await(500);
    std::thread second([] { StopIPCClient(); });
    StopIPCClient();
    second.join();
    for (std::thread& thread : threads) {
        thread.join(); // their waits have ended
    }
    client->PostIPCMessage(Item(kMe, kMarker));
    isRight = isRight && !Ask(*client, kEchoModule);
    IPCMessageClient(kOther, false, false).PostIPCMessage(Item(kMe, kMarker));
    delete client; // waits for callbacks that run, so there are none any more
    return isRight && !marked && SeesNotice(witness, ControlMessage::kModuleOffline, kMe) ? 0 : 1;
}

const RoleDefinition stopRole("stop", &StopInTraffic);

TEST(FaultsTest, AnEngineStopsInTheMiddleOfTraffic) {
    const Bus bus;
    for (int variant = 0; variant < 6; ++variant) {
        EXPECT_EQ(Role("stop", variant).AwaitExit(), 0) << variant;
    }
}

enum ExitVariant { kReturn, kExitInThread, kExitInCallback, kStaticObjects, kVariants };

// Role: exits by itself with a running server, clients, callbacks and waits. What callbacks and threads use lives on.
int ExitInTraffic(int variant) {
    UsePrivateBus();
    SayReady();
    static auto* const traffic = new Tally;
    static auto* const server = new IPCMessageServer;
    server->Start();
    static auto* const left = new IPCMessageClient(kMe, false, true);
    static auto* const right = new IPCMessageClient(kOther, false, true);
    for (auto [client, to] : {std::pair(left, kOther), std::pair(right, kMe)}) {
        client->RegisterMessageCallback(kPing, [client = client, to = to, variant](TagIPCMessageItem&) {
            traffic->Add();
            client->PostIPCMessage(Item(to, kPing, "to and fro"));
            static std::atomic<bool> exits{false};
            if (variant == kExitInCallback && traffic->Value() > 500 && !exits.exchange(true)) {
                std::exit(0);
            }
        });
        client->RegisterMessageCallback(kBlock, [](TagIPCMessageItem&) { Sleep(INFINITE); });
        client->SubscribeIPCMessage(ModuleId::kMsgServer, 0);
        for (int i = 0; i < 4; ++i) {
            client->PostIPCMessage(Item(to, kPing, "to and fro"));
            std::thread([client = client, to = to] { Ask(*client, to, "never answered", 0, kBlock); }).detach();
        }
    }
    traffic->Await(500);
    switch (variant) {
    case kExitInThread:
        std::thread([] { std::exit(0); }).join();
        return 1;
    case kExitInCallback:
        Sleep(INFINITE);
        return 1;
    case kStaticObjects: {
        // Destroyed while the process exits; their callbacks use nothing that is destroyed before them.
        static IPCMessageClient third(kOther + 1, false, true);
        third.RegisterMessageCallback(kPing, [](TagIPCMessageItem&) { traffic->Add(); });
        static const std::shared_ptr<IPCMessageServer> stopped(server, [](IPCMessageServer*) { server->Stop(); });
        left->PostIPCMessage(Item(kOther + 1, kPing));
        return 0;
    }
    default:
        return 0;
    }
}

const RoleDefinition exitRole("exit", &ExitInTraffic);

TEST(FaultsTest, AProcessExitsWithEverythingUnderWay) {
    for (int variant = 0; variant < kVariants; ++variant) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Role("exit", variant).AwaitExit(), 0) << variant;
        }
    }
}

} // namespace
} // namespace Vantor::Sentrix
