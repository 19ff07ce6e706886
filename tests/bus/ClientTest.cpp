// The client API over the engine: a host and an echo module in processes of their own, clients and raw peers in this.
#include "tests/support/BusProgram.h"
#include "tests/support/LogCapture.h"
#include "veyrasvc/bus/BasePacket.h"

#include <random>
#include <stdexcept>

namespace Vantor::Sentrix {
namespace {

constexpr int kNobody = 0x7DEAD;
constexpr std::uint32_t kPeerPid = 0x7F000001;

struct Received {
    Mailbox<std::string> bodies;
    Mailbox<std::string> publications;
};

// A client that keeps what it receives, longer than itself because callbacks may be running, and that opens what is for
// classes derived from it.
struct Client : Received, IPCMessageClient {
    explicit Client(int id, bool forwardPosts = false) : IPCMessageClient(id, false, forwardPosts) {
        RegisterPublishMessageCallback([this](TagIPCMessageItem& item) {
            publications.Put(std::to_string(item.fromModuleId) + ":" + std::to_string(item.msgId));
        });
    }
    using IPCMessageClient::Bregister;
    using IPCMessageClient::OnRecvIPCMessage;
    using IPCMessageClient::OnRecvPublishIPCMessage;

    void Collect(int msgId) {
        RegisterMessageCallback(msgId, [this](TagIPCMessageItem& item) { bodies.Put(BodyOf(item)); });
    }
};

class ClientTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_bus = new Bus; }
    static void TearDownTestSuite() { delete s_bus; }
    // When it returns everything this process sent before has been routed.
    static void Flush(const Client& client) { EXPECT_TRUE(Ask(client, kEchoModule)); }

    static Bus* s_bus;
};
Bus* ClientTest::s_bus = nullptr;

// A peer that serves one module more besides `alsoServes`, and sees what that one is sent.
struct Twin : RawPeer {
    explicit Twin(int alsoServes) {
        Register(kPeerPid, std::to_string(kMark) + " " + std::to_string(alsoServes) + " ");
        Seen();
    }
    // The bodies that came until all that was routed before had come, without notices.
    std::vector<std::string> Seen() {
        Send(RawPacket{.to = kMark});
        std::vector<std::string> bodies;
        while (const auto frame = NextFrame()) {
            const RawPacket packet = ParseRawFrame(*frame);
            if (packet.to == kMark) {
                break;
            }
            if (packet.from != 0x10000) {
                bodies.push_back(packet.body);
            }
        }
        return bodies;
    }
    static constexpr std::uint32_t kMark = 0xABCDE;
};

BasePacket Packet(std::uint32_t from, std::uint32_t msgId, std::uint32_t type = 0x10004, std::string body = {}) {
    BasePacket packet;
    packet.SetFrom(from);
    packet.SetMsgId(msgId);
    packet.SetMsgType(type);
    packet.SetBody(std::move(body));
    return packet;
}

TEST_F(ClientTest, AnswersComeByAllThreeForms) {
    const Client client(kMe);
    const auto ids = [](const auto& answer) { return std::tuple(answer.fromModuleId, answer.msgId, answer.uniqMsgId); };
    for (const std::size_t length : {0, 1, 5000, 10 * 1024 * 1024}) {
        for (const int msgId : {kEcho, kEchoEncrypted}) {
            const std::string body = Pattern(length);
            TagIPCMessageItem request = Item(kEchoModule, msgId, body, -1, 7);
            request.encrypt = msgId == kEchoEncrypted;

            TagIPCMessageItem answer;
            ASSERT_TRUE(client.SendIPCMessage(request, answer, kNoLimit)) << length;
            EXPECT_TRUE(BodyOf(answer) == body && (answer.data == nullptr) == (length == 0)) << length;
            ::operator delete(answer.data);
            EXPECT_EQ(ids(answer), std::tuple(kEchoModule, msgId, 7));

            request.replyMsgId = 99;
            TagIPCMessageItemRecv record;
            record.data = "old";
            ASSERT_TRUE(client.SendIPCMessage(request, 99, record, kNoLimit));
            EXPECT_TRUE(record.data == (length == 0 ? "old" : body)) << length;
            EXPECT_EQ(ids(record), std::tuple(kEchoModule, 99, 7));

            bool same = false;
            const auto onReply = [&](TagIPCMessageItem& item) { same = BodyOf(item) == body; };
            ASSERT_TRUE(client.SendIPCMessage(request, 99, kNoLimit, onReply));
            EXPECT_TRUE(same) << length;
        }
    }
}

TEST_F(ClientTest, ManyThreadsGetTheirOwnAnswers) {
    const Client client(kMe);
    const Client forwarding(kOther, true);
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            constexpr std::size_t kLengths[] = {10, 5000, 40'000, 100'000};
            for (int i = 0; i < 50; ++i) {
                const int number = t * 1000 + i;
                const std::string body = Pattern(kLengths[i % 4], static_cast<std::uint32_t>(number));
                right += Ask(t % 2 == 0 ? client : forwarding, kEchoModule, body, number,
                             i % 5 == 0 ? kEchoEncrypted : kEcho) == body;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 400);
}

TEST_F(ClientTest, MessagesStayInTheProcessUnlessTheyAreForwardedOrForAll) {
    constexpr int kPost = 20; // the echo module leaves it alone
    Client sender(kMe);
    sender.Collect(kPost);
    for (const bool forward : {false, true}) {
        Client receiver(kOther, forward);
        Flush(sender);
        Twin twin(kOther);
        receiver.Collect(kPost);
        receiver.RegisterMessageCallback(2, [&](TagIPCMessageItem& item) {
            receiver.PostIPCMessage(Item(item.fromModuleId, item.replyMsgId, "answer"));
        });
        EXPECT_EQ(Ask(sender, kOther, "request", 0, 2), "answer");
        for (const bool forAll : {false, true}) {
            EXPECT_TRUE(sender.PostIPCMessage(Item(forAll ? 0 : kOther, kPost, "post")));
            EXPECT_EQ(receiver.bodies.Take(), "post");
            EXPECT_TRUE(!forAll || sender.bodies.Take() == "post");
            Flush(sender);
            EXPECT_EQ(twin.Seen(), std::vector<std::string>(forward || forAll ? 1 : 0, "post"));
            EXPECT_TRUE(receiver.bodies.IsEmpty() && sender.bodies.IsEmpty());
        }
    }
}

TEST_F(ClientTest, ModulesOfOneIdAllReceiveAndStayOnlineUntilTheLastIsGone) {
    Client client(kMe);
    for (const int status : {0x10005, 0x10006}) {
        client.RegisterMessageCallback(
            status, [&, status](TagIPCMessageItem&) { client.bodies.Put(status == 0x10006 ? "online" : "offline"); });
    }
    std::vector<std::unique_ptr<Client>> twins;
    for (const bool forward : {true, false, true}) {
        twins.push_back(std::make_unique<Client>(kOther, forward));
        twins.back()->Collect(20);
    }
    for (; !twins.empty(); twins.erase(twins.begin())) {
        client.PostIPCMessage(Item(kOther, 20, "post"));
        for (const auto& twin : twins) {
            EXPECT_EQ(twin->bodies.Take(), "post");
        }
        client.QueryModuleStatus(kOther);
        EXPECT_EQ(client.bodies.Take(), "online");
    }
    client.QueryModuleStatus(kOther);
    EXPECT_EQ(client.bodies.Take(), "offline");
}

// Subscriptions as a list that is looked through from its beginning.
struct SubscriptionList : std::vector<std::pair<std::uint32_t, std::uint32_t>> {
    void Remove(std::uint32_t moduleId, std::uint32_t msgId) {
        std::erase_if(*this,
                      [=](const auto& one) { return one.first == moduleId && (msgId == 0 || one.second == msgId); });
    }
    void Add(std::uint32_t moduleId, std::uint32_t msgId) {
        Remove(moduleId, msgId);
        emplace_back(moduleId, msgId);
    }
    bool LetsThrough(BasePacket& packet) const {
        for (const auto& [moduleId, msgId] : *this) {
            const bool notice =
                packet.GetFrom() == 0x10000 && (packet.GetMsgId() == 0x10005 || packet.GetMsgId() == 0x10006);
            if (moduleId != packet.GetFrom() && notice && packet.GetBody().substr(0, 4) == LittleEndian(moduleId)) {
                packet.SetFrom(moduleId);
            }
            if (moduleId == packet.GetFrom() && (msgId == 0 || msgId == packet.GetMsgId())) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(ClientTest, SubscriptionsDecideWhatIsSeenAndTheEarliestOfThem) {
    constexpr std::uint32_t kModules[] = {0, 7, 8, 0x10000, 0xFFFFFFFF};
    constexpr std::uint32_t kMessages[] = {0, 5, 0x10005, 0x10006, 0xFFFFFFFF};
    std::mt19937 random(1);
    const auto any = [&](const auto& values) { return values[random() % std::size(values)]; };
    Client client(kMe);
    SubscriptionList list;
    for (int i = 0; i < 20'000; ++i) {
        const std::uint32_t moduleId = any(kModules);
        const std::uint32_t msgId = any(kMessages);
        if (random() % 2 == 0) {
            client.SubscribeIPCMessage(moduleId, msgId);
            list.Add(moduleId, msgId);
        } else {
            client.UnSubscribeIPCMessage(moduleId, msgId);
            list.Remove(moduleId, msgId);
        }
        const std::string body = LittleEndian(any(kModules)).substr(0, random() % 8 == 0 ? 3 : 4);
        BasePacket packet = Packet(random() % 2 == 0 ? 0x10000 : any(kModules), any(kMessages), 0x10004, body);
        BasePacket same = packet;
        ASSERT_EQ(client.Bregister(packet), list.LetsThrough(same)) << i;
        ASSERT_EQ(packet.GetFrom(), same.GetFrom()) << i;
        if (random() % 100 == 0) {
            client.UnRegisterMessageCallbackAll();
            list.clear();
        }
    }
}

TEST_F(ClientTest, PublicationsAndPresenceComeFromOtherProcessesAndThisOne) {
    Client client(kMe);
    Client local(kOther);
    for (Client* each : {&client, &local}) {
        each->SubscribeIPCMessage(kMe, 3);
        each->SubscribeIPCMessage(0x900, 0);
    }
    TagIPCMessageItem item = Item(kNobody, 3);
    EXPECT_TRUE(client.PublishIPCMessage(item));
    EXPECT_EQ(item.msgType, 0x10004);
    EXPECT_EQ(client.publications.Take(), "393216:3");
    EXPECT_EQ(local.publications.Take(), "393216:3");
    Flush(client);
    client.Collect(0x10006);
    client.Collect(0x10005);
    for (const int moduleId : {kEchoModule, kNobody}) {
        EXPECT_TRUE(client.QueryModuleStatus(moduleId));
        EXPECT_EQ(client.bodies.Take(), LittleEndian(static_cast<std::uint32_t>(moduleId)));
    }
    {
        RawPeer peer;
        peer.Register(kPeerPid, "2304 ");
        EXPECT_EQ(client.publications.Take(), "2304:65542");
        for (const std::uint32_t from : {0x901U, 0x900U}) {
            peer.Send(RawPacket{.to = 1, .from = from, .msgId = 4, .msgType = 0x10004});
        }
        EXPECT_EQ(client.publications.Take(), "2304:4");
    }
    for (Client* each : {&client, &local}) {
        while (each->publications.Take() != "2304:65541") {
        }
    }
    EXPECT_TRUE(client.publications.IsEmpty());
}

// Receivers of one message that change its bytes, each in its own way, and then look whether they stay so.
struct Editors {
    void Edit(TagIPCMessageItem& item, char mark) {
        EXPECT_TRUE(BodyOf(item) == body);
        EXPECT_EQ(item.data[item.dataLen], '\0') << "behind the body";
        std::fill_n(item.data, item.dataLen, mark);
        inside.Add();
        EXPECT_TRUE(inside.Await(all));
        EXPECT_TRUE(BodyOf(item) == std::string(body.size(), mark));
        done.Add();
    }
    const std::string body;
    const int all;
    Tally inside{};
    Tally done{};
};

TEST_F(ClientTest, WhatACallbackDoesToItsBytesNobodyElseSees) {
    constexpr int kPublished = 21;
    Client first(kMe, true);
    Client second(kMe, true);
    for (const std::size_t length : {10U, 1000U, 4U << 20}) {
        for (const bool encrypt : {false, true}) {
            Editors editors{Pattern(length), 3};
            char mark = 'a';
            for (Client* each : {&first, &second}) {
                const auto edit = [&editors, mark = mark++](TagIPCMessageItem& item) { editors.Edit(item, mark); };
                each->RegisterMessageCallback(kEcho, edit);
                each->RegisterPublishMessageCallback(edit);
                each->SubscribeIPCMessage(kMe, kPublished);
            }
            TagIPCMessageItem request = Item(kEchoModule, encrypt ? kEchoEncrypted : kEcho, editors.body, kEcho, 5);
            EXPECT_TRUE(first.SendIPCMessage(request, kEcho, kNoLimit,
                                             [&](TagIPCMessageItem& answer) { editors.Edit(answer, 'x'); }));
            EXPECT_TRUE(editors.done.Await(3)) << "two callbacks and the sender that waits";

            Twin twin(kOther);
            Editors others{Pattern(length, 1), 2 * 5};
            for (Client* each : {&first, &second}) {
                each->RegisterPublishMessageCallback(
                    [&, each](TagIPCMessageItem& item) { others.Edit(item, each == &first ? 'a' : 'b'); });
            }
            for (int i = 0; i < 5; ++i) {
                TagIPCMessageItem publication = Item(-1, kPublished, others.body);
                EXPECT_TRUE(first.PublishIPCMessage(publication));
            }
            EXPECT_TRUE(others.done.Await(2 * 5));
            Flush(first);
            EXPECT_TRUE(twin.Seen() == std::vector<std::string>(5, others.body)) << "another process sees them whole";
        }
    }
}

TEST_F(ClientTest, MessagesFindTheirCallback) {
    Client client(kMe);
    std::string called;
    for (const int msgId : {1, 2, 0, -1}) {
        client.RegisterMessageCallback(msgId, [&](TagIPCMessageItem&) { called += "first "; });
    }
    client.RegisterMessageCallback(1, [&](TagIPCMessageItem&) { called += "second "; });
    client.RegisterMessageCallback(3, nullptr);
    client.UnRegisterMessageCallback(2);
    client.RegisterPublishMessageCallback([&](TagIPCMessageItem&) { called += "published "; });
    client.SubscribeIPCMessage(8, 0);
    for (const std::uint32_t msgId : {0U, 0xFFFFFFFFU, 1U, 2U, 3U}) {
        client.OnRecvIPCMessage(std::make_shared<BasePacket>(Packet(8, msgId, 0)));
    }
    client.OnRecvPublishIPCMessage(std::make_shared<BasePacket>(Packet(8, 1, 0))); // not a publication
    client.OnRecvPublishIPCMessage(std::make_shared<BasePacket>(Packet(8, 1)));
    EXPECT_EQ(called, "second published ");
}

TEST_F(ClientTest, ACallbackThatThrowsIsLoggedAndTheProcessLives) {
    const LogCapture log;
    Tally thrown;
    {
        Client client(kMe);
        client.RegisterMessageCallback(1, [&](TagIPCMessageItem&) {
            thrown.Add();
            throw std::runtime_error("out of luck");
        });
        client.RegisterMessageCallback(2, [&](TagIPCMessageItem&) {
            thrown.Add();
            throw 7;
        });
        client.PostIPCMessage(Item(kMe, 1));
        client.PostIPCMessage(Item(kMe, 2));
        EXPECT_TRUE(thrown.Await(2));
    } // when the client is gone its callbacks have ended
    EXPECT_EQ(log.Errors("ipc message callback threw. messageid=1, what=out of luck"), 1);
    EXPECT_EQ(log.Errors("ipc message callback threw. messageid=2"), 1);
}

TEST_F(ClientTest, ACallbackMayUseTheBusAndChangeItsClient) {
    Client client(kMe);
    client.RegisterMessageCallback(1, [&](TagIPCMessageItem&) {
        client.bodies.Put(Ask(client, kEchoModule, "from inside").value_or("none"));
        client.UnRegisterMessageCallback(1);
        client.Collect(2);
        Client shortLived(kOther);
        shortLived.Collect(3);
        client.PostIPCMessage(Item(kOther, 3, "to a new client"));
        client.bodies.Put(shortLived.bodies.Take().value_or("none"));
        client.PostIPCMessage(Item(kMe, 2, "to the new callback"));
    });
    client.PostIPCMessage(Item(kMe, 1));
    for (const char* body : {"from inside", "to a new client", "to the new callback"}) {
        EXPECT_EQ(client.bodies.Take(), body);
    }
}

TEST_F(ClientTest, ASlowCallbackHoldsUpNobody) {
    Tally released;
    Client client(kMe);
    client.RegisterMessageCallback(1, [&](TagIPCMessageItem&) { EXPECT_TRUE(released.Await(1)); });
    client.Collect(2);
    for (int i = 0; i < 20; ++i) {
        client.PostIPCMessage(Item(kMe, 1));
    }
    client.PostIPCMessage(Item(kMe, 2, "past them"));
    EXPECT_EQ(client.bodies.Take(), "past them");
    EXPECT_TRUE(Ask(client, kEchoModule));
    released.Add();
}

TEST_F(ClientTest, ACallbackMayDestroyItsClient) {
    const Client sender(kOther);
    for (int i = 0; i < 50; ++i) {
        auto client = std::make_unique<Client>(kMe);
        Tally destroyed;
        std::atomic<bool> first{true};
        client->RegisterMessageCallback(1, [&](TagIPCMessageItem& item) {
            if (first.exchange(false)) {
                client.reset();
                EXPECT_EQ(BodyOf(item), "still readable");
                destroyed.Add();
            }
        });
        for (int n = 0; n < 5; ++n) {
            sender.PostIPCMessage(Item(kMe, 1, "still readable"));
        }
        EXPECT_TRUE(destroyed.Await(1));
    }
}

TEST_F(ClientTest, AClientIsDestroyedWithMessagesOnTheirWay) {
    const Client sender(kOther);
    for (int i = 0; i < 100; ++i) {
        std::atomic<bool> alive{true};
        Tally received;
        auto client = std::make_unique<Client>(kMe, i % 2 == 0); // by way of the server, or within the process
        client->RegisterMessageCallback(1, [&](TagIPCMessageItem&) {
            EXPECT_TRUE(alive);
            received.Add();
        });
        for (int n = 0; n < 100; ++n) {
            sender.PostIPCMessage(Item(kMe, 1, "x"));
        }
        EXPECT_TRUE(received.Await(1));
        client.reset();
        alive = false;
    }
}

} // namespace
} // namespace Vantor::Sentrix
