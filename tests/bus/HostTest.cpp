// The hosting process: clients of its own, and a worker that is held up.
#include "tests/support/BusProgram.h"
#include "veyrasvc/bus/ModuleMessageServer.h"
#include "veyrasvc/bus/Router.h"

namespace Vantor::Sentrix {
namespace {

using Notice = std::pair<int, int>; // message, and the module that it comes from

TEST(HostTest, ItsOwnClientsHearOfModulesLikeAllOthers) {
    IPCMessageServer server;
    ASSERT_TRUE(server.Start());
    Mailbox<Notice> published;
    Mailbox<Notice> posted;
    IPCMessageClient client(kMe, false, false);
    client.SubscribeIPCMessage(5, 0);
    client.RegisterPublishMessageCallback([&](TagIPCMessageItem& item) {
        published.Put({item.msgId, item.fromModuleId});
    });
    for (const int msgId : {int{ControlMessage::kModuleOnline}, int{ControlMessage::kModuleOffline}}) {
        client.RegisterMessageCallback(msgId, [&](TagIPCMessageItem& item) {
            posted.Put({item.msgId, item.fromModuleId});
        });
    }
    const Notice online{ControlMessage::kModuleOnline, ModuleId::kMsgServer};
    const Notice offline{ControlMessage::kModuleOffline, ModuleId::kMsgServer};
    const auto statusOf = [&](int moduleId) {
        client.QueryModuleStatus(moduleId);
        return posted.Take();
    };
    EXPECT_EQ(statusOf(kMe), online); // connected from here on
    EXPECT_EQ(statusOf(ModuleId::kMsgServer), online);
    EXPECT_EQ(statusOf(5), offline);
    RawPeer peer;
    peer.Register(0x7F000001, "5 ");
    EXPECT_EQ(published.Take(), Notice(ControlMessage::kModuleOnline, 5));
    EXPECT_EQ(statusOf(5), online);
    peer.Close();
    EXPECT_EQ(published.Take(), Notice(ControlMessage::kModuleOffline, 5));
    client.PostIPCMessage(Item(5, 1));
    EXPECT_EQ(posted.Take(), offline) << "the miss";
    server.Stop();
}

struct Hold {
    std::atomic<bool> wanted{true};
    Tally reached;
    Tally over;
    Tally closes;
    Tally routersGone;
};

// Its first read stands still as long as the test wants.
class HeldRouter final : public Router {
public:
    explicit HeldRouter(Hold& hold) : m_hold(hold) {}
    ~HeldRouter() override { m_hold.routersGone.Add(); }
    void OnRecvData(IOCPContext* context, IOCPBuffer* buffer) override {
        if (m_hold.wanted.exchange(false)) {
            m_hold.reached.Add();
            m_hold.over.Await(1);
        }
        Router::OnRecvData(context, buffer);
    }
    void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error) override {
        m_hold.closes.Add(buffer->m_operation == PipeOperation::Accept ? 0 : 1);
        Router::OnConnectionClose(context, buffer, error);
    }

private:
    Hold& m_hold;
};

class HeldServer : public ModuleMessageServer {
public:
    explicit HeldServer(Hold& hold) : m_hold(hold) {}

private:
    std::shared_ptr<PipeEvents> EventsOfRun() override { return std::make_shared<HeldRouter>(m_hold); }
    Hold& m_hold;
};

TEST(HostTest, AHeldUpWorkerKeepsWhatItUsesAndNobodyElseWaits) {
    Hold hold;
    auto server = std::make_unique<HeldServer>(hold);
    ASSERT_TRUE(server->Start());
    RawPeer first;
    first.Register(0x7F000001, "5 ");
    ASSERT_TRUE(hold.reached.Await(1));
    server->Stop();
    first.AwaitDrop();
    EXPECT_EQ(WaitNamedPipeW(kBusPipeName, 1), FALSE);
    ASSERT_TRUE(server->Start());
    RawPeer second;
    second.Register(0x7F000002, "6 ");
    EXPECT_TRUE(second.NextFrame().has_value()) << "served by a worker of its own";
    server->Stop();
    EXPECT_EQ(hold.routersGone.Value(), 1);
    server.reset(); // under the feet of the one that is held up
    hold.over.Add();
    EXPECT_TRUE(hold.routersGone.Await(2)) << "the last of its threads frees what a run owns";
    EXPECT_EQ(hold.closes.Value(), 1) << "nothing is told of a run that was left behind";
}

} // namespace
} // namespace Vantor::Sentrix
