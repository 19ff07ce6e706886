// What happens when memory or threads run out. A program of its own, because it replaces operator new.
#include "tests/support/BusProgram.h"
#include "tests/support/Starvation.h"
#include "veyrasvc/bus/NamedPipeIOCP.h"

#include <set>

namespace Vantor::Sentrix {
namespace {

constexpr std::uint32_t kServer = 0x10000;

// Two peers that are there before the shortage and must not notice it.
struct InnocentPair {
    InnocentPair() {
        asker.Register(0x7F000001, "100 ");
        answerer.Register(0x7F000002, "200 ");
        Passes(answerer, 200); // which is registered then
    }
    // True when a frame still travels between them.
    bool IsServed() { return Passes(asker, 100); }

    bool Passes(RawPeer& sender, std::uint32_t from) {
        const std::string frame = RawPacket{.to = 200, .from = from, .msgId = 1, .body = "served"}.Frame();
        sender.Send(frame);
        std::optional<std::string> got;
        while ((got = answerer.NextFrame()) && *got != frame) {
        }
        return got.has_value();
    }
    RawPeer asker;
    RawPeer answerer;
};

const std::string kRegisterAndAsk =
    RawPacket{.to = kServer, .from = 7, .msgId = 0x10001, .body = "300 301 "}.Frame() +
    RawPacket{.to = kServer, .from = 300, .msgId = 0x10008, .body = LittleEndian(200)}.Frame();

// While the host has one place at a time, Windows may open it to a client before the host listens on it. The host drops
// that client, who comes again.
bool IsAnswered() {
    const auto end = std::chrono::steady_clock::now() + kAwaitLimit;
    bool isAnswered = false;
    while (!isAnswered && std::chrono::steady_clock::now() < end) {
        RawPeer visitor(RawPeer::Place::Tried);
        isAnswered = visitor.Send(kRegisterAndAsk) && visitor.NextFrame();
    }
    return isAnswered;
}

TEST(MemoryTest, AHostWithoutMemoryRefusesOrServes) {
    std::set<bool> outcomes;
    bool struck = true;
    for (std::size_t first = 1; struck; ++first) {
        IPCMessageServer server;
        {
            const Starvation starvation(Starvation::Threads::Every, first);
            server.Start();
            struck = starvation.HasStruck();
        }
        const bool serves = IsIPCServerPresent(1);
        outcomes.insert(serves);
        if (serves) {
            EXPECT_TRUE(IsAnswered()) << first;
        }
        server.Stop();
        EXPECT_TRUE(server.Start()) << first;
        EXPECT_TRUE(InnocentPair().IsServed()) << "memory is back: " << first;
        server.Stop();
    }
    EXPECT_EQ(outcomes.size(), 2U) << "some allocations are needed and some are not";
}

// One visitor registers, asks, sends a long frame and leaves while the host's n-th allocation fails.
TEST(MemoryTest, AFailingAllocationCostsOneConnectionAtMost) {
    IPCMessageServer server;
    ASSERT_TRUE(server.Start());
    InnocentPair pair;
    ASSERT_TRUE(pair.IsServed());
    const std::string visit = kRegisterAndAsk + RawPacket{.to = 300, .from = 300, .body = Pattern(100'000)}.Frame();
    bool struck = true;
    for (std::size_t first = 1; struck; ++first) {
        const Starvation starvation(Starvation::Threads::Others, first);
        RawPeer visitor;
        visitor.Send(visit);
        visitor.Send(RawPacket{.to = 300, .from = 300, .body = "last"});
        for (std::optional<std::string> frame; (frame = visitor.NextFrame()) && ParseRawFrame(*frame).body != "last";) {
        }
        visitor.Close();
        EXPECT_TRUE(pair.IsServed()) << first;
        struck = starvation.HasStruck();
    }
    EXPECT_TRUE(pair.IsServed());
}

class SendingServer : public IOCPServer {
public:
    ~SendingServer() { Stop(); }
    bool OnNewConnection(IOCPContext* /*context*/) override { return true; }
    void OnRecvData(IOCPContext* context, IOCPBuffer* /*buffer*/) override { m_speaking.Put(context); }
    Mailbox<IOCPContext*> m_speaking; // not who connects: to ask whether there is a place may be to connect and leave
};

// A text is sent whole or not at all, or its connection ends; none stays open and mute.
TEST(MemoryTest, ATextThatCannotBeSentLeavesItsConnectionUsable) {
    const std::string text = Pattern(50'000);
    bool struck = true;
    for (std::size_t first = 1; struck; ++first) {
        SendingServer server;
        ASSERT_TRUE(server.Start());
        RawPeer peer;
        ASSERT_TRUE(peer.Send("here"));
        IOCPContext* const context = server.m_speaking.Take().value();
        bool sent = false;
        {
            const Starvation starvation(Starvation::Threads::Own, first);
            sent = SendingServer::SendText(context, text.data(), static_cast<int>(text.size()));
            struck = starvation.HasStruck();
        }
        const std::string all = (sent ? text : "") + "after";
        if (SendingServer::SendText(context, "after", 5)) {
            EXPECT_TRUE(peer.Read(all.size()) == all) << first;
        } else {
            EXPECT_FALSE(sent) << first;
            peer.AwaitDrop();
        }
    }
}

TEST(MemoryTest, AHostWithoutThreadsRefusesAndCanBeStartedAgain) {
    if (!ThreadShortage::IsSupported()) {
        GTEST_SKIP() << "thread starts cannot be intercepted here";
    }
    IPCMessageServer server;
    {
        const ThreadShortage shortage;
        EXPECT_TRUE(server.Start());
        EXPECT_FALSE(IsIPCServerPresent(1)) << "nobody may wait for a worker that does not exist";
        EXPECT_FALSE(server.Start());
        server.Stop();
    }
    EXPECT_TRUE(server.Start());
    EXPECT_TRUE(InnocentPair().IsServed());
    server.Stop();
}

} // namespace
} // namespace Vantor::Sentrix
