// The pipe server under a small derived class, with peers on real pipes.
#include "tests/support/BusProgram.h"
#include "tests/support/LogCapture.h"
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
    Peers Connect(int count) {
        Peers peers;
        for (int i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<RawPeer>());
        }
        return peers;
    }

    std::atomic<bool> m_refuses{false};
    bool m_sentAfterClose = false;
    Mailbox<IOCPContext*> m_connected;
    Tally m_connections;
    Tally m_closes;

private:
    std::map<IOCPContext*, int> m_ends; // addresses come back with other connections
};

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

TEST(PipeServerTest, TwentyListenAndEveryEndedConnectionIsReplaced) {
    const LogCapture log;
    EchoServer server;
    ASSERT_TRUE(server.Start());
    EXPECT_FALSE(server.Start());
    server.Connect(1);
    EXPECT_TRUE(log.Await(log4cplus::DEBUG_LOG_LEVEL, "CheckAccepting:1"));
    EXPECT_TRUE(server.m_closes.Await(1));

    Peers peers = server.Connect(20);
    ASSERT_TRUE(server.m_connections.Await(21));
    EXPECT_FALSE(WaitNamedPipeW(kBusPipeName, 1));
    EXPECT_EQ(GetLastError(), ERROR_SEM_TIMEOUT);
    peers.pop_back();
    EXPECT_TRUE(log.Await(log4cplus::DEBUG_LOG_LEVEL, "CheckAccepting:20"));
    RawPeer late;
    EXPECT_TRUE(Echoes(late, "late"));
    EXPECT_TRUE(Echoes(*peers[7], "still there"));
}

TEST(PipeServerTest, AHundredCanBeConnectedAndOneMoreIsDroppedAlone) {
    EchoServer server;
    server.Start();
    Peers peers;
    for (int i = 0; i < 5; ++i) {
        for (auto& peer : server.Connect(20)) {
            peers.push_back(std::move(peer));
        }
        ASSERT_TRUE(server.m_connections.Await(20 * (i + 1)));
        server.CheckAccepting();
    }
    RawPeer().AwaitDrop();
    for (auto& peer : peers) {
        EXPECT_TRUE(Echoes(*peer, "here"));
    }
    EXPECT_EQ(server.m_connections.Value(), 100);
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

TEST(PipeServerTest, SendTextCutsIntoPieces) {
    const LogCapture log;
    EchoServer server;
    server.Start();
    RawPeer peer;
    IOCPContext* const context = server.m_connected.Take().value();
    struct Case {
        std::size_t length;
        DWORD pieces;
        std::size_t warnings;
    };
    for (const Case& one :
         {Case{1, 1, 0}, {kPiece, 1, 0}, {kPiece + 1, 2, 0}, {0x100000, 256, 0}, {0x100001, 257, 1}}) {
        const std::string text = Pattern(one.length);
        {
            const AutoLock lock(context); // holds completions up, so that all writes are still pending
            const DWORD before = context->m_pendingWrites;
            EXPECT_TRUE(server.SendText(context, text.data(), static_cast<int>(text.size())));
            EXPECT_EQ(context->m_pendingWrites - before, one.pieces) << one.length;
            EXPECT_TRUE(context->m_sendQueue.empty());
        }
        EXPECT_TRUE(peer.Read(text.size()) == text) << one.length;
        EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, "IPC SendText Package over 1M"), one.warnings);
        EXPECT_TRUE(Echoes(peer, "in between"));
    }
    for (const int length : {0, -1}) {
        EXPECT_FALSE(server.SendText(context, "x", length));
    }
    EXPECT_FALSE(server.SendText(context, nullptr, 1));
    EXPECT_FALSE(server.SendText(nullptr, "x", 1));
    EXPECT_TRUE(Echoes(peer, "nothing else came"));
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
        Peers peers = server.Connect(3);
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
    for (std::size_t i = 0; i <= 30; i += 5) {
        ASSERT_TRUE(server.Start());
        RawPeer deaf;
        IOCPContext* const context = server.m_connected.Take().value();
        {
            const AutoLock lock(context);
            EXPECT_TRUE(server.SendText(context, text.data(), static_cast<int>(text.size())));
            EXPECT_EQ(context->m_pendingWrites, 2001U);
            EXPECT_EQ(context->m_sendQueue.size(), 999U);
        }
        RawPeer busy;
        ASSERT_TRUE(server.m_connected.Take().has_value());
        Tally exchanges;
        std::thread traffic([&] {
            while (Echoes(busy, "again")) {
                exchanges.Add();
            }
        });
        EXPECT_TRUE(exchanges.Await(10)) << "not held up by the other";
        EXPECT_TRUE(deaf.Read(i * 100 * kPiece) == text.substr(0, i * 100 * kPiece));
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
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(server.m_closes.Value(), server.m_connections.Value());
}

} // namespace
} // namespace Vantor::Sentrix
