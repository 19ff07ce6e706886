// The pipe server under a small derived class, with peers on real pipes.
#include "tests/support/BusProgram.h"
#include "veyrasvc/bus/NamedPipeIOCP.h"

#include <filesystem>
#include <map>

namespace Vantor::Sentrix {
namespace {

constexpr std::size_t kPiece = 4096;
using Peers = std::vector<std::unique_ptr<RawPeer>>;

// Sends back what it receives.
class EchoServer : public IOCPServer {
public:
    ~EchoServer() { Stop(); }

    bool OnNewConnection(IOCPContext* context) override {
        m_ends[context] = 0;
        m_connected.Put(context);
        m_connections.Add();
        return !m_refuses;
    }
    void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error) override {
        if (buffer->m_operation == PipeOperation::Accept) {
            m_closes.Add(error == 0 ? 1 : 0); // refused, or an instance that nobody had connected to
            return;
        }
        EXPECT_EQ(++m_ends[context], 1);
        m_closes.Add();
    }
    void OnRecvData(IOCPContext* context, IOCPBuffer* buffer) override {
        const std::string data(buffer->m_data, buffer->m_length);
        if (data == "close") {
            ClosePipe(context);
            m_sentAfterClose = SendText(context, "late", 4) || !context->m_sendQueue.empty();
        } else {
            SendText(context, data.data(), static_cast<int>(data.size()));
        }
    }
    std::atomic<bool> m_refuses{false};
    bool m_sentAfterClose = false;
    Mailbox<IOCPContext*> m_connected;
    Tally m_connections;
    Tally m_closes;

private:
    std::map<IOCPContext*, int> m_ends; // addresses come back with other connections
};

void Connect(Peers& peers, int count) {
    for (int i = 0; i < count; ++i) {
        peers.push_back(std::make_unique<RawPeer>());
    }
}

bool Echoes(RawPeer& peer, const std::string& text) {
    return peer.Send(text) && peer.Read(text.size()) == text;
}

// Where the system tells; else 0.
std::size_t OpenDescriptors() {
    const std::filesystem::path table = "/proc/self/fd";
    return std::filesystem::exists(table)
               ? static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(table), {}))
               : 0;
}

TEST(PipeServerTest, TwentyListenAndAHundredCanBeConnected) {
    EchoServer server;
    ASSERT_TRUE(server.Start());
    EXPECT_FALSE(server.Start());
    Peers peers;
    for (int i = 1; i <= 5; ++i) {
        Connect(peers, 20);
        ASSERT_TRUE(server.m_connections.Await(20 * i));
        EXPECT_FALSE(WaitNamedPipeW(kBusPipeName, 1));
        EXPECT_EQ(GetLastError(), ERROR_SEM_TIMEOUT);
        server.CheckAccepting();
    }
    RawPeer().AwaitDrop();
    for (auto& peer : peers) {
        EXPECT_TRUE(Echoes(*peer, "here"));
    }
    EXPECT_EQ(server.m_connections.Value(), 100) << "the one more was dropped alone";
    peers.pop_back();
    ASSERT_TRUE(server.m_closes.Await(2));
    RawPeer successor;
    EXPECT_TRUE(Echoes(successor, "in its place"));
    peers.pop_back();
    ASSERT_TRUE(server.m_closes.Await(3));
    server.m_refuses = true;
    RawPeer().AwaitDrop();
    EXPECT_TRUE(server.m_closes.Await(4));
    EXPECT_TRUE(Echoes(successor, "still there"));
}

TEST(PipeServerTest, SendTextSendsTextsOfEveryLength) {
    EchoServer server;
    server.Start();
    RawPeer peer;
    IOCPContext* const context = server.m_connected.Take().value();
    for (const int length : {0, -1}) {
        EXPECT_FALSE(server.SendText(context, "x", length));
    }
    EXPECT_FALSE(server.SendText(context, nullptr, 1));
    EXPECT_FALSE(server.SendText(nullptr, "x", 1));
    for (const std::size_t length : {std::size_t{1}, kPiece, kPiece + 1, 300 * kPiece + 1}) {
        const std::string text = Pattern(length);
        EXPECT_TRUE(server.SendText(context, text.data(), static_cast<int>(length)));
        EXPECT_TRUE(peer.Read(length) == text) << length;
    }
    peer.Send("close");
    peer.AwaitDrop();
    server.Stop();
    EXPECT_FALSE(server.m_sentAfterClose);
}

TEST(PipeServerTest, AnEndIsToldOnceHoweverMuchIsUnderWay) {
    EchoServer server;
    server.Start();
    const std::string text = Pattern(500 * kPiece);
    for (int i = 0; i < 10; ++i) {
        Peers peers;
        Connect(peers, 3);
        peers[0]->Send(text); // its echo is not read
        peers[1]->Send("some");
        peers[2]->Send("close"); // this one is ended by the server
    }
    ASSERT_TRUE(server.m_closes.Await(30));
    RawPeer last;
    EXPECT_TRUE(Echoes(last, "alive"));
    server.Stop();
    EXPECT_EQ(server.m_closes.Value(), 31);
    EXPECT_EQ(server.m_connections.Value(), 31);
}

TEST(PipeServerTest, WhatIsNotReadWaitsAndStopEndsWhatIsUnderWay) {
    EchoServer server;
    const std::string text = Pattern(3000 * kPiece);
    for (std::size_t read = 0; read <= text.size(); read += text.size() / 6) {
        ASSERT_TRUE(server.Start());
        RawPeer deaf;
        IOCPContext* const context = server.m_connected.Take().value();
        EXPECT_TRUE(server.SendText(context, text.data(), static_cast<int>(text.size())));
        RawPeer busy;
        ASSERT_TRUE(server.m_connected.Take().has_value());
        Tally exchanges;
        std::thread traffic([&] {
            while (Echoes(busy, "again")) {
                exchanges.Add();
            }
        });
        EXPECT_TRUE(exchanges.Await(10)) << "not held up by the other";
        EXPECT_TRUE(deaf.Read(read) == text.substr(0, read));
        server.Stop();
        traffic.join();
        deaf.AwaitDrop();
        EXPECT_EQ(server.m_closes.Value(), server.m_connections.Value());
    }
}

TEST(PipeServerTest, StartAndStopManyTimesLeaveNothingBehind) {
    EchoServer server;
    server.Stop(); // nothing to stop
    std::size_t before = 0;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(server.Start());
        if (i % 10 == 0) {
            RawPeer peer;
            EXPECT_TRUE(Echoes(peer, "hello"));
        }
        server.Stop();
        EXPECT_EQ(WaitNamedPipeW(kBusPipeName, 1), FALSE);
        EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
        if (i == 2) {
            before = OpenDescriptors(); // what is set up once is set up
        }
    }
    EXPECT_LE(OpenDescriptors(), before);
    EXPECT_EQ(server.m_closes.Value(), server.m_connections.Value());
}

} // namespace
} // namespace Vantor::Sentrix
