// The router, with peers that write the wire by themselves.
#include "veyrasvc/bus/Router.h"
#include "tests/support/BusProgram.h"
#include "tests/support/LogCapture.h"
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/ModuleMessageServer.h"
#include "veyrasvc/util/ByteOrder.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace Vantor::Sentrix {
namespace {

constexpr std::uint32_t kServer = 0x10000;
constexpr std::uint32_t kRegistration = 0x10001;
constexpr std::uint32_t kPublished = 0x10004;
constexpr std::uint32_t kOffline = 0x10005;
constexpr std::uint32_t kOnline = 0x10006;
constexpr std::uint32_t kStatusQuery = 0x10008;

constexpr std::uint32_t kNobody = 0xDEAD;       // never registered
constexpr std::uint32_t kFirstPid = 0x7F000001; // above all process ids of the system

// A router that tells how many connections it has.
class WatchedRouter final : public Router {
public:
    bool OnNewConnection(IOCPContext* context) override {
        const bool accepted = Router::OnNewConnection(context);
        if (accepted && m_contexts.insert(context).second) {
            m_live.Add();
        }
        return accepted;
    }
    void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error) override {
        Router::OnConnectionClose(context, buffer, error);
        m_live.Add(m_contexts.erase(context) != 0 ? -1 : 0);
    }
    Tally m_live;

private:
    std::set<IOCPContext*> m_contexts;
};

struct WatchedServer : ModuleMessageServer {
    std::shared_ptr<PipeEvents> EventsOfRun() override { return router; }
    const std::shared_ptr<WatchedRouter> router = std::make_shared<WatchedRouter>();
};

struct Peer : RawPeer {
    std::uint32_t id = 0; // where it can be reached
};

using Lines = std::vector<std::string>;

// "+5", "-5": published notices; "on 5", "off 5": the same to this peer alone; else the frame's body.
std::string Describe(const std::string& frame) {
    const RawPacket packet = ParseRawFrame(frame);
    if (packet.from != kServer || packet.body.size() != 4) {
        return packet.body;
    }
    const std::string id = std::to_string(LoadLittleEndian32(packet.body.data()));
    const bool online = packet.msgId == kOnline;
    return packet.msgType == kPublished ? (online ? "+" : "-") + id : (online ? "on " : "off ") + id;
}

// One router for all tests. An observer is on the bus from the beginning of each, as module 900.
class RouterTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_server = new WatchedServer;
        s_router = s_server->router.get();
        ASSERT_TRUE(s_server->Start());
        RawPeer first;
        first.Register(kFirstPid, "");
        const auto notice = first.NextFrame(); // of the router's own module, which no test expects
        EXPECT_TRUE(notice && Describe(*notice) == "+65536");
    }
    static void TearDownTestSuite() {
        s_server->Stop();
        delete s_server;
    }
    void SetUp() override {
        m_observer = &Join(900);
        Seen(*m_observer); // also what is left of the test before
    }
    void TearDown() override {
        m_peers.clear();
        AwaitConnections();
    }

    void AwaitConnections() {
        const auto isOpen = [](const auto& peer) { return peer->IsOpen(); };
        const auto open = std::count_if(m_peers.begin(), m_peers.end(), isOpen);
        EXPECT_TRUE(s_router->m_live.AwaitExactly(static_cast<int>(open)));
    }
    Peer& Connect() {
        m_peers.push_back(std::make_unique<Peer>());
        AwaitConnections();
        return *m_peers.back();
    }
    // Connects a process that registers these ids; it is reached under the first one.
    Peer& Join(std::uint32_t id, const std::string& moreIds = "", std::uint32_t pid = 0) {
        Peer& peer = Connect();
        peer.id = id;
        pid = pid != 0 ? pid : kFirstPid + static_cast<std::uint32_t>(m_peers.size());
        peer.Register(pid, std::to_string(id) + " " + moreIds);
        return peer;
    }
    void Leave(Peer& peer) {
        peer.Close();
        AwaitConnections();
    }

    // The frames that `reader` got until everything that was sent before had been routed. It rests on the order of all
    // that the router sends to one peer.
    Lines SeenFrames(Peer& reader) {
        Lines frames;
        const auto readTo = [&](const std::string& text) {
            std::optional<std::string> frame;
            while ((frame = reader.NextFrame()) && Describe(*frame) != text) {
                frames.push_back(*frame);
            }
            EXPECT_TRUE(frame) << "the reader was dropped before " << text;
        };
        const auto mark = [&](Peer& peer) {
            if (peer.IsOpen() && peer.Send(RawPacket{.to = reader.id, .body = "mark"})) {
                readTo("mark");
            }
        };
        mark(reader); // the first, because the others' marks need it to be registered
        for (const auto& peer : m_peers) {
            mark(*peer);
        }
        reader.Send(RawPacket{.to = kNobody, .from = reader.id});
        readTo("off " + std::to_string(kNobody));
        return frames;
    }
    Lines Seen(Peer& reader) {
        Lines lines;
        for (const std::string& frame : SeenFrames(reader)) {
            lines.push_back(Describe(frame));
        }
        return lines;
    }

    static WatchedServer* s_server;
    static WatchedRouter* s_router;
    std::vector<std::unique_ptr<Peer>> m_peers;
    Peer* m_observer = nullptr;
};
WatchedServer* RouterTest::s_server = nullptr;
WatchedRouter* RouterTest::s_router = nullptr;

// Of this process, where the system tells; else 0.
std::size_t ThreadCount() {
    const std::filesystem::path tasks = "/proc/self/task";
    return std::filesystem::exists(tasks)
               ? static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(tasks), {}))
               : 0;
}

RawPacket Registration(const std::string& text, bool encrypted) {
    RawPacket packet = {.to = kServer, .from = kFirstPid, .msgId = kRegistration, .encrypted = encrypted, .body = text};
    EXPECT_TRUE(!encrypted || BasePacket::EncryptData(text.data(), text.size(), packet.body, packet.iv));
    return packet;
}

TEST_F(RouterTest, RegistrationsAreReadAsNumbersEachWithItsSpace) {
    const std::pair<std::string, Lines> cases[] = {
        {"5 6", {"+5"}},
        {"6 5 ", {"+5", "+6"}},
        {"5  6 ", {"+0", "+5", "+6"}},
        {"", {}},
        {" ", {"+0"}},
        {"x -5 12abc 007 ", {"+0", "+7", "+12"}},
        {"2147483648 4294967295 ", {"+2147483648", "+4294967295"}},
        {"4294967301 ", {"+5"}},
        {"99999999999999999999999999 1 ", {"+1", "+3825205247"}},
        {std::string("\0\xff 8 ", 5), {"+0", "+8"}},
    };
    bool encrypted = false;
    for (const auto& [text, online] : cases) {
        Peer& subject = Connect();
        encrypted = !encrypted && !text.empty();
        subject.Send(Registration(text, encrypted));
        EXPECT_EQ(Seen(*m_observer), online) << text;
        Leave(subject);
        Lines offline = online;
        for (std::string& line : offline) {
            line[0] = '-';
        }
        EXPECT_EQ(Seen(*m_observer), offline) << text;
    }
}

TEST_F(RouterTest, OneRegistrationAfterAnotherTellsTheDifference) {
    const std::pair<std::string, Lines> steps[] = {
        {"5 6", {"+5"}},
        {"5 67 ", {"+67"}}, // the 6 had no space yet
        {"5 67 8 5 7 7 ", {"+7", "+8"}},
        {"5 67 8 5 7 7 ", {}},
        {"5 67 8 5 7 ", {}},
        {"5 67 8 5 ", {"-7"}},
        {"67 8 5 9 ", {"+9"}},
        {"67 8", {"-5", "-8", "-9"}},
        {"67", {"-67"}},
        {"4 67 ", {"+4", "+67"}},
        {"2 3 ", {"+2", "+3", "-4", "-67"}},
        {"", {}}, // as if it had not come
    };
    Peer& peer = Connect();
    Lines all;
    std::uint32_t pid = kFirstPid;
    for (const auto& [text, notices] : steps) {
        peer.Register(pid, text);
        pid = 1; // only the first one tells the process
        EXPECT_EQ(Seen(*m_observer), notices) << text;
        all.insert(all.end(), notices.begin(), notices.end());
    }
    RawPacket undecipherable = Registration("9 ", true);
    for (const std::size_t length : {0, 15, 16}) {
        undecipherable.iv = Pattern(length);
        undecipherable.body = Pattern(31); // no whole blocks
        peer.Send(undecipherable);
    }
    EXPECT_EQ(Seen(*m_observer), Lines{});
    peer.id = 2;
    EXPECT_EQ(Seen(peer), all) << "modules hear of themselves";
    Leave(peer);
    EXPECT_EQ(Seen(*m_observer), (Lines{"-2", "-3"}));
}

TEST_F(RouterTest, StatusQueriesAreAnsweredToTheAsker) {
    Join(5);
    Seen(*m_observer);
    const auto query = [&](const std::string& body) {
        m_observer->Send(RawPacket{.to = kServer, .from = m_observer->id, .msgId = kStatusQuery, .body = body});
    };
    query("\x05");
    query(LittleEndian(5) + "x");
    for (const auto& [id, answer] : {std::pair(5U, "on 5"), {6U, "off 6"}, {kServer, "on 65536"}}) {
        query(LittleEndian(id));
        EXPECT_EQ(Describe(m_observer->NextFrame().value_or("")), answer);
    }
    EXPECT_EQ(Seen(*m_observer), Lines{});
}

// What is addressed to the router costs it a turn of its worker: no thread, no queue, no line for each.
TEST_F(RouterTest, BurstsToTheRouterDrownNobody) {
    constexpr std::size_t kMany = 20'000;
    const std::string query =
        RawPacket{.to = kServer, .from = 80, .msgId = kStatusQuery, .body = LittleEndian(900)}.Frame();
    struct Case {
        std::string frame;
        Lines seen; // by the sender, for each
    };
    const Case cases[] = {
        {query, {"on 900"}},
        {RawPacket{.to = kServer, .from = 80, .msgId = 7, .body = "?"}.Frame(), {}},
        {RawPacket{.to = 0, .from = 80, .msgId = 0, .body = ""}.Frame(), {}},
        {RawFrame(""), {}},
    };
    const std::size_t threads = ThreadCount();
    Peer& sender = Join(80);
    Seen(sender);
    LogCapture log;
    GetLogger().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    for (const Case& one : cases) {
        std::string burst;
        Lines expected;
        for (std::size_t i = 0; i < kMany; ++i) {
            burst += one.frame;
            expected.insert(expected.end(), one.seen.begin(), one.seen.end());
        }
        sender.Send(burst);
        EXPECT_TRUE(Seen(sender) == expected) << &one - cases;
        Peer& newcomer = Join(81);
        EXPECT_EQ(Seen(newcomer), Lines{"+81"}) << &one - cases;
        Leave(newcomer);
        Seen(sender);
        Seen(*m_observer);
    }
    EXPECT_EQ(ThreadCount(), threads);
    const auto unhandled = [](const std::string& from) { return "fail to find async ipc message callback" + from; };
    EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, unhandled(". messageid=7, m_moduleId=65536")), 10);
    EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL,
                        "frames without a whole head are dropped. pid=" + std::to_string(kFirstPid + 2)),
              1);
    // The rest is summed up, in the end by a worker that has nothing else to do.
    const auto isSum = [](const LogCapture::Line& line) {
        return line.second.find("more messages") != std::string::npos;
    };
    log.Take();
    sender.Send(cases[1].frame);
    const auto end = std::chrono::steady_clock::now() + kAwaitLimit;
    bool summed = false;
    while (!summed && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
        const auto lines = log.Take();
        summed = std::any_of(lines.begin(), lines.end(), isSum);
    }
    EXPECT_TRUE(summed);
}

TEST_F(RouterTest, FramesGoWhereTheTableSendsThem) {
    enum { A, A2, B, C };
    Peer* const peers[] = {&Join(10, "", 0x7FFFFFF0), &Join(11, "", 0x7FFFFFF0), &Join(20, "30 "), &Join(40, "30 ")};
    struct Case {
        int sender;
        std::uint32_t to;
        std::uint32_t msgId;
        std::uint32_t msgType;
        std::size_t frames[4]; // that A, A2, B and C get
    };
    const Case cases[] = {
        {A, 20, 1, 0, {0, 0, 1, 0}},          {A, 30, 1, 0xFFFFFFFF, {0, 0, 1, 1}},
        {A, 10, 1, 0, {1, 0, 0, 0}},          {A, 11, 1, 0, {0, 1, 0, 0}},
        {B, 30, 0, 0, {0, 0, 1, 1}},          {A, 0, 1, 0, {0, 0, 1, 1}},
        {C, 0, 1, 0, {1, 1, 1, 0}},           {A, 30, 1, kPublished, {0, 0, 1, 1}},
        {B, 77, 1, kPublished, {1, 1, 0, 1}}, {C, kServer, kRegistration, kPublished, {1, 1, 1, 0}},
    };
    for (const Case& one : cases) {
        for (Peer* peer : peers) {
            Seen(*peer);
        }
        const RawPacket packet = {one.to, peers[one.sender]->id, one.msgId, one.msgType, 2, 3, 0, "odd", "x"};
        const std::string frame = RawFrame(packet.Payload() + "more", 0x12345678);
        peers[one.sender]->Send(frame);
        for (const int i : {A, A2, B, C}) {
            EXPECT_EQ(SeenFrames(*peers[i]), Lines(one.frames[i], frame)) << &one - cases << " to " << i;
        }
    }
    peers[A]->Send(RawPacket{.to = 77, .from = 10});
    const RawPacket nobody = {10, kServer, kOffline, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0, "", LittleEndian(77)};
    EXPECT_EQ(SeenFrames(*peers[A]), Lines{nobody.Frame()});
}

TEST_F(RouterTest, FramesThatComeTogetherGoTheirWaysInOrder) {
    Peer& sender = Join(10);
    Peer* const receivers[] = {&Join(20), &Join(30)};
    for (Peer* peer : {&sender, receivers[0], receivers[1]}) {
        Seen(*peer);
    }
    std::string together;
    Lines expected[2];
    const auto add = [&](std::uint32_t to, const std::string& body, std::uint32_t msgType = 0) {
        together += RawPacket{.to = to, .from = 10, .msgId = 1, .msgType = msgType, .body = body}.Frame();
    };
    // All longer than one read of the router, so that it cuts where it likes.
    for (const std::size_t longest : {70U, 4000U, 30'000U, 300'000U}) {
        for (std::size_t i = 0; i < 200; ++i) {
            const std::string body = std::to_string(i) + Pattern(i * 7919 % longest);
            const std::uint32_t to = i % 7 < 5 ? 20 : 30;
            const bool published = i % 11 == 0;
            add(to, body, published ? kPublished : 0);
            for (Lines& lines : expected) {
                if (published || &lines == &expected[to / 10 - 2]) {
                    lines.push_back(body);
                }
            }
            if (i % 13 == 0) {
                add(to, "damaged");
                together.back() ^= 1;
            }
        }
    }
    for (int i = 0; i < 3; ++i) {
        add(77, "nobody");
    }
    add(12, "early");
    together += RawPacket{.to = kServer, .from = sender.id, .msgId = kRegistration, .body = "10 12 "}.Frame();
    add(12, "late");
    sender.Send(together);
    EXPECT_EQ(Seen(sender), (Lines{"off 77", "off 77", "off 77", "off 12", "+12", "late"}));
    for (Lines& lines : expected) {
        lines.push_back("+12");
        EXPECT_TRUE(Seen(*receivers[&lines - expected]) == lines) << &lines - expected;
    }
}

TEST_F(RouterTest, DamageHurtsTheOneWhoSendsIt) {
    const std::string good = RawPacket{.to = 900, .body = "good"}.Frame();
    std::string badHeader = good;
    badHeader[13] ^= 1;
    std::string badPayload = good;
    badPayload.back() ^= 1;
    struct Case {
        std::string bytes;
        bool dropped;
        Lines seen; // by the observer
    };
    const Case cases[] = {
        {badHeader, true, {}},
        {good + badHeader + good, true, {"good"}},
        {Pattern(5000), true, {}},
        {badPayload + good + good, false, {"good", "good"}},
        {RawFrame("") + RawFrame(std::string(15, '\1')) + good, false, {"good"}},
        {RawFrame(std::string("\0\0\3", 3) + std::string(13, '\0')) + good, false, {"off 768", "good"}}, // 0 to 0x300
        {RawHeader(0xFFFFFFFF, 0) + good, false, {}},
        {good.substr(0, good.size() - 1), false, {}},
        {std::string(15, 'x'), false, {}},
    };
    for (const Case& one : cases) {
        for (const std::size_t piece : {one.bytes.size(), std::size_t{1}}) {
            Peer& subject = Connect();
            subject.Register(kFirstPid, "");
            for (std::size_t at = 0; at < one.bytes.size() && subject.Send(one.bytes.substr(at, piece)); at += piece) {
            }
            if (one.dropped) {
                subject.AwaitDrop();
            }
            Lines seen;
            while (!one.dropped && seen.size() < one.seen.size()) { // before it leaves with what is unread
                seen.push_back(Describe(m_observer->NextFrame().value_or("nothing came")));
            }
            Leave(subject);
            const Lines rest = Seen(*m_observer);
            seen.insert(seen.end(), rest.begin(), rest.end());
            EXPECT_EQ(seen, one.seen) << &one - cases;
        }
    }
}

TEST_F(RouterTest, AReaderThatStandsStillHoldsUpNobodyAndLosesNothing) {
    Peer& still = Join(50);
    Peer& sender = Join(60);
    for (Peer* peer : {&still, &sender, m_observer}) {
        Seen(*peer);
    }
    Lines sent;
    for (std::uint32_t i = 0; i < 100; ++i) {
        sent.push_back(RawPacket{.to = 50, .uniqMsgId = i, .body = Pattern(100'000, i)}.Frame());
        sender.Send(sent.back());
        sender.Send(RawPacket{.to = 900, .from = 60, .body = "to another"});
        m_observer->Send(RawPacket{.to = 60, .body = "and back"});
    }
    EXPECT_EQ(Seen(sender), Lines(100, "and back"));
    EXPECT_EQ(Seen(*m_observer), Lines(100, "to another"));
    EXPECT_TRUE(SeenFrames(still) == sent);
}

} // namespace
} // namespace Vantor::Sentrix
