// The clients of the services and their C interface, against a service in another process that answers as it is told.
#include "tests/support/BusProgram.h"
#include "tests/support/LogCapture.h"
#include "veyrasvc/diagnosis/BSODClient.h"
#include "veyrasvc/diagnosis/DFSClient.h"
#include "veyrasvc/diagnosis/DFSClientC.h"

#include <json/value.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

namespace Vantor::Sentrix {
namespace {

constexpr int kDiagnosis = 0x820000;
constexpr int kCrashDumps = 0x830000;
constexpr int kScript = 1;  // "ID ANSWER": from now on the answer under that id; "@": the request's body, "!": its end
constexpr int kRequest = 2; // "ID": asks for the oldest such request, as Request() writes it, when there is one
const std::string kNul(1, '\0');

std::string Request(int answerId, const std::string& text) {
    return std::to_string(answerId) + " " + text + kNul;
}

// ---- The service ---------------------------------------------------------------------------------------------------

class ScriptedService {
public:
    explicit ScriptedService(int module) : m_client(module, false, false) {
        for (int id = kDiagnosis + 1; id <= kDiagnosis + 0x10; ++id) {
            m_client.RegisterMessageCallback(id, [this](TagIPCMessageItem& item) { Serve(item); });
        }
        m_client.RegisterMessageCallback(kScript, [this](TagIPCMessageItem& item) {
            const std::string line = BodyOf(item);
            const std::lock_guard guard(m_mutex);
            m_answers[std::stoi(line)] = line.substr(line.find(' ') + 1);
            Answer(item, item.replyMsgId, "");
        });
        m_client.RegisterMessageCallback(kRequest, [this](TagIPCMessageItem& item) {
            Answer(item, item.replyMsgId, m_requests[std::stoi(BodyOf(item)) - kDiagnosis].Take().value_or("none"));
        });
    }

private:
    // Callbacks run at the same time.
    void Serve(const TagIPCMessageItem& item) {
        const std::lock_guard guard(m_mutex);
        m_requests[item.msgId - kDiagnosis].Put(std::to_string(item.replyMsgId) + " " + BodyOf(item));
        const auto answer = m_answers.find(item.replyMsgId);
        if (answer == m_answers.end()) {
            return;
        }
        if (answer->second == "!") {
            std::_Exit(0); // as if it had crashed
        }
        if (item.msgId == item.replyMsgId) { // somebody waits for it
            TagIPCMessageItem other = item;
            other.uniqMsgId ^= 1 << 30;
            Answer(other, item.replyMsgId, "1 of another request" + kNul);
            Answer(item, kScript, "1 of another message" + kNul);
        }
        for (int time = 0; time < 2; ++time) { // the second is one too many
            Answer(item, item.replyMsgId, answer->second == "@" ? BodyOf(item) : answer->second);
        }
    }
    void Answer(const TagIPCMessageItem& request, int msgId, const std::string& body) {
        m_client.PostIPCMessage(Item(request.fromModuleId, msgId, body, -1, request.uniqMsgId));
    }

    std::mutex m_mutex;
    std::map<int, std::string> m_answers; // guarded by m_mutex
    Mailbox<std::string> m_requests[0x11];
    IPCMessageClient m_client;
};

const RoleDefinition kService("service", [](int module) {
    const ScriptedService service(module);
    EXPECT_TRUE(AskUntilAnswered(IPCMessageClient(kOther, false, false)));
    SayReady();
    return SleepUntilKilled();
});

// ---- A client that shows its hooks ---------------------------------------------------------------------------------

struct Watching final : DFSClient {
    using DFSClient::DFSClient;
    ~Watching() { EndHooks(); }
    void OnRecvStartDetection(TagIPCMessageItem& item) override { m_outcomes.Put("detection " + BodyOf(item)); }
    void OnRecvStartRepair(TagIPCMessageItem& item) override {
        m_outcomes.Put("repair " + BodyOf(item));
        throw std::runtime_error("a hook may throw");
    }
    Mailbox<std::string> m_outcomes;
};

const RoleDefinition kTwin("twin", [](int module) {
    Watching client(module);
    EXPECT_EQ(client.GetSdkVersion(), "1.2");
    SayReady();
    return client.m_outcomes.Take() == "detection found" ? 0 : 1;
});

// ---- The test's side -----------------------------------------------------------------------------------------------

class ClientsTest : public testing::Test {
protected:
    void Script(int id, const std::string& answer, int module = kDiagnosis) {
        ASSERT_TRUE(Ask(m_test, module, std::to_string(id) + " " + answer, ++m_uniq, kScript));
    }
    std::string NextRequest(int id, int module = kDiagnosis) {
        const std::string text = std::to_string(id);
        TagIPCMessageItem ask = Item(module, kRequest, text, 100, ++m_uniq);
        TagIPCMessageItemRecv request;
        EXPECT_TRUE(m_test.SendIPCMessage(ask, 100, request, kNoLimit));
        return request.data;
    }

    static inline const std::string s_deviceText =
        R"({"AuthTag":"","DeviceId":"","DeviceType":"pc","OperationType":3,"PackageName":"","TrelixVersion":0})";

    Bus m_bus;
    Role m_service{"service", kDiagnosis};
    IPCMessageClient m_test{kMe, false, false};
    int m_uniq = 0;
    const std::shared_ptr<DiagnosisDeviceInfo> m_device = std::make_shared<DiagnosisDeviceInfo>("pc", 3);
};

TEST_F(ClientsTest, QueriesSendTheirRecordAndReadTheAnswer) {
    DFSClient client(kOther);
    LogCapture log;
    const std::pair<std::string, const char*> versions[] = {
        {"1.2" + kNul + "rubbish", "1.2"}, {"no end", "no end"}, {"", ""}};
    for (const auto& [answer, version] : versions) {
        Script(0x820001, answer);
        EXPECT_EQ(client.GetSdkVersion(), version);
        EXPECT_EQ(log.Errors("SendIPCMessage fail."), answer.empty());
        EXPECT_EQ(NextRequest(0x820001), Request(0x820001, ""));
    }
    Script(0x820010, R"({"Events":[]})" + kNul);
    EXPECT_EQ(client.GetFaultInfobyId(-1, 1LL << 40, -2, "", "p\"\xc3\xa9"), R"({"Events":[]})");
    const char* query = R"({"EndTime":-2,"EventId":-1,"EventProvider":"p\"\u00e9","EventType":"","StartTime":)";
    EXPECT_EQ(NextRequest(0x820010), Request(0x820010, query + std::string("1099511627776}")));
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "GetFaultInfobyId result:{\"Events\":[]}"), 1);

    for (const auto& [answer, result] : {std::pair("  0", 0), {"0x", 0}, {"5", -1}, {"-1", -1}}) {
        Script(0x820006, answer + kNul);
        Script(0x820009, answer + kNul);
        EXPECT_EQ(client.CancelDetection(m_device), result) << answer;
        EXPECT_EQ(NextRequest(0x820006), Request(0x820006, s_deviceText));
        EXPECT_EQ(client.CancelRepair(m_device), result) << answer;
    }
    Script(0x820006, "none" + kNul);
    EXPECT_THROW(client.CancelDetection(m_device), std::invalid_argument);
    Script(0x820006, "99999999999" + kNul);
    EXPECT_THROW(client.CancelDetection(m_device), std::out_of_range);
}

TEST_F(ClientsTest, CapabilitiesAreReadFromWhateverJsonComes) {
    using Names = std::list<std::string>;
    const std::pair<const char*, Names> cases[] = {
        {R"({"DetectCapability":["a","b",3]})", {"a", "b", "3"}},
        {R"({"RepairCapability":["a"]})", {}},
        {R"({"DetectCapability":"a"})", {}},
        {"null", {}},
        {"{", {}},
        {"", {}},
    };
    DFSClient client(kOther);
    for (const auto& [answer, names] : cases) {
        Script(0x820002, answer + kNul);
        EXPECT_EQ(client.GetDetectCapability(m_device), names) << answer;
        EXPECT_EQ(NextRequest(0x820002), Request(0x820002, s_deviceText));
    }
    for (const char* answer : {"[1]", R"({"DetectCapability":{"a":1}})", R"({"DetectCapability":[["a"]]})"}) {
        Script(0x820002, answer + kNul);
        EXPECT_THROW(client.GetDetectCapability(m_device), Json::LogicError) << answer;
    }
    Script(0x820003, R"({"RepairCapability":["r"]})" + kNul);
    EXPECT_EQ(client.GetRepairCapability(m_device), Names{"r"});
    Script(0x820003, std::string(3 << 20, '[') + kNul);
    EXPECT_EQ(client.GetRepairCapability(m_device), Names{}) << "megabytes of brackets";
}

TEST_F(ClientsTest, StartsArePostedAndTheirOutcomeReachesTheHooks) {
    Script(0x820001, "1.2" + kNul);
    Script(0x820005, "found");
    Script(0x820008, "mended");
    Role twin("twin", kOther); // the same module in another process
    Watching client(kOther);
    const Watching second(kMe + 2);
    auto& outcomes = client.m_outcomes;
    const std::string device = R"({"DeviceInfo":)" + s_deviceText;
    EXPECT_EQ(client.StartDetection({"x", "y"}, 2, m_device), 0);
    EXPECT_EQ(NextRequest(0x820004), Request(0x820005, device + R"(,"OperationItems":["x","y"],"OperationScene":2})"));
    EXPECT_EQ(outcomes.Take(), "detection found");
    EXPECT_EQ(outcomes.Take(), "detection found") << "twice answered, twice told";
    EXPECT_EQ(twin.AwaitExit(), 0) << "an outcome comes to every process of the module";
    EXPECT_EQ(client.StartRepair({}, 0, m_device), 0);
    EXPECT_EQ(NextRequest(0x820007), Request(0x820008, device + R"(,"OperationScene":0})"));
    EXPECT_EQ(outcomes.Take(), "repair mended");
    EXPECT_EQ(outcomes.Take(), "repair mended") << "although the hook threw";
    EXPECT_EQ(client.CancelNotify(""), 0);
    EXPECT_EQ(NextRequest(0x82000b), Request(0x82000b, ""));
    EXPECT_EQ(client.GetSdkVersion(), "1.2") << "the module lives on in this process";
    EXPECT_TRUE(second.m_outcomes.IsEmpty());
}

struct Busy final : BSODClient {
    using BSODClient::BSODClient;
    ~Busy() {
        m_ending.Put(true);
        EndHooks();
        EXPECT_FALSE(m_inside) << "a hook uses what is about to go";
    }
    void OnRecvBsodAnalysis(TagIPCMessageItem& /*item*/) override {
        m_inside = true;
        m_entered.Put(true);
        m_ending.Take();
        EXPECT_EQ(CancelAnalysis(), 0) << "operations still work";
        m_inside = false;
    }
    std::atomic<bool> m_inside{false};
    Mailbox<bool> m_entered, m_ending;
};

struct Leaving final : BSODClient {
    using BSODClient::BSODClient;
    ~Leaving() { EndHooks(); }
    void OnRecvBsodAnalysis(TagIPCMessageItem& /*item*/) override {
        delete this;
        s_left.Put(true);
    }
    static inline Mailbox<bool> s_left;
};

TEST_F(ClientsTest, ASubclassIsDestroyedBesideAndInsideItsHooks) {
    const Role service("service", kCrashDumps);
    Script(0x82000e, "found", kCrashDumps);
    Script(0x82000f, "0" + kNul, kCrashDumps);
    {
        Busy busy(kOther);
        EXPECT_EQ(busy.StartBsodAnalysis(), 0);
        busy.m_entered.Take();
    }
    EXPECT_EQ((new Leaving(kOther))->StartBsodAnalysis(), 0); // twice answered, but told once
    EXPECT_TRUE(Leaving::s_left.Take());
}

TEST_F(ClientsTest, SeveralClientsAndThreadsGetTheirOwnAnswers) {
    Script(0x820010, "@");
    DFSClient clients[] = {DFSClient(kOther), DFSClient(kMe + 2)};
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int t = 0; t < 8; ++t) { // requests that differ in nothing but their body
        threads.emplace_back([&, t] {
            for (int id = 1000 + t * 100; id < 1020 + t * 100; ++id) {
                const std::string answer = clients[t % 2].GetFaultInfobyId(id, 0, 0, "", "");
                right += answer.find(std::to_string(id)) != std::string::npos;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 160);
}

TEST_F(ClientsTest, AServiceThatDiesEndsTheCallAtOnceAndOneThatIsSilentDoesNot) {
    Role silent("service", kCrashDumps); // it was told no answer
    BSODClient unanswered(kMe + 2);
    std::atomic<bool> waits{true};
    std::thread waiting([&] {
        EXPECT_EQ(unanswered.CancelAnalysis(), -1);
        waits = false;
    });
    EXPECT_EQ(NextRequest(0x82000f, kCrashDumps), Request(0x82000f, ""));
    DFSClient client(kOther);
    Script(0x820001, "!");
    EXPECT_EQ(client.GetSdkVersion(), "");
    EXPECT_EQ(client.GetSdkVersion(), "") << "and when nobody is there";
    EXPECT_TRUE(waits) << "it began before and may take as long, so the others have not come to their time";
    silent.Kill();
    waiting.join();
}

TEST_F(ClientsTest, CrashDumpHistory) {
    const Role service("service", kCrashDumps);
    BSODClient client(kOther);
    std::list<std::string> dumps = {"x"};
    double status = 7;
    for (const char* answer : {R"({"result_status":1,"minidump":["a","b"]})", "null"}) { // which changes nothing
        Script(0x82000c, answer + kNul, kCrashDumps);
        client.GetBsodHistory(dumps, status);
        EXPECT_EQ(NextRequest(0x82000c, kCrashDumps), Request(0x82000c, ""));
        EXPECT_EQ(dumps, (std::list<std::string>{"x", "a", "b"}));
        EXPECT_EQ(status, 1);
    }
    EXPECT_EQ(client.StartBsodAnalysis(), 0);
    EXPECT_EQ(NextRequest(0x82000d, kCrashDumps), Request(0x82000e, ""));
}

// ---- The C interface -----------------------------------------------------------------------------------------------

TEST_F(ClientsTest, TheCInterfaceCutsAtItsLimitsAndRefusesNull) {
    DFSClientHandle client = DFSClientCreate(kOther);
    ASSERT_NE(client, nullptr);
    CDiagnosisDeviceInfo device{};
    std::memset(device.deviceType, 'd', sizeof device.deviceType); // no NUL: it ends with its field
    const auto list = std::make_unique<CStringList>();
    std::memset(list.get(), '#', sizeof *list);
    std::string many = R"({"DetectCapability":[)" + ('"' + std::string(198, 'a') + '"');
    for (int i = 0; i < 60; ++i) {
        many += ",\"" + std::string(197, 'a') + "\u00e9\"";
    }
    Script(0x820002, many + "]}" + kNul);
    ASSERT_EQ(CGetDetectCapability(client, &device, list.get()), 0);
    EXPECT_EQ(list->count, 50);
    EXPECT_EQ(list->items[0], std::string(198, 'a')) << "it just fits";
    EXPECT_EQ(list->items[49], std::string(197, 'a')) << "cut at a whole character";
    EXPECT_EQ(list->items[49][199], '\0') << "cleared to its end";
    EXPECT_NE(NextRequest(0x820002).find(std::string(200, 'd') + "\""), std::string::npos);

    std::vector<char> text(DFS_FAULT_INFO_SIZE + 1, '#');
    Script(0x820010, std::string(300'000, 'f') + kNul);
    EXPECT_EQ(CGetFaultInfobyId(client, 1, 2, 3, "", "", text.data()), 0);
    EXPECT_EQ(std::strlen(text.data()), 199'998U);
    Script(0x820001, std::string(300, 'v') + kNul);
    EXPECT_EQ(CGetSdkVersion(client, text.data()), 0);
    EXPECT_EQ(std::strlen(text.data()), 198U);
    Script(0x820010, "f" + kNul);
    EXPECT_EQ(CGetFaultInfobyId(client, 1, 2, 3, "", "", text.data()), 0);
    EXPECT_EQ(std::string(text.data(), DFS_FAULT_INFO_SIZE), "f" + std::string(DFS_FAULT_INFO_SIZE - 1, '\0'))
        << "nothing of the text before is left";
    EXPECT_EQ(text.back(), '#');

    for (const auto& [count, passed] : {std::pair(-1, 0), {2, 2}, {80, 50}}) {
        list->count = count;
        EXPECT_EQ(CStartDetection(client, list.get(), 1, &device), 0);
        const std::string request = NextRequest(0x820004);
        EXPECT_EQ(std::count(request.begin(), request.end(), 'a') / 197, passed) << count;
    }

    char* const out = text.data();
    EXPECT_EQ(CGetSdkVersion(nullptr, out) + CGetSdkVersion(client, nullptr), -2);
    EXPECT_EQ(CGetDetectCapability(client, nullptr, list.get()) + CGetDetectCapability(client, &device, nullptr), -2);
    EXPECT_EQ(CGetRepairCapability(client, nullptr, list.get()) + CGetRepairCapability(client, &device, nullptr), -2);
    EXPECT_EQ(CStartDetection(client, nullptr, 0, &device) + CStartDetection(client, list.get(), 0, nullptr), -2);
    EXPECT_EQ(CStartRepair(client, nullptr, 0, &device) + CStartRepair(client, list.get(), 0, nullptr), -2);
    EXPECT_EQ(CCancelDetection(client, nullptr) + CCancelRepair(client, nullptr) + CCancelNotify(nullptr, ""), -3);
    EXPECT_EQ(CGetFaultInfobyId(client, 0, 0, 0, nullptr, "", out), -1);
    EXPECT_EQ(CGetFaultInfobyId(client, 0, 0, 0, "", "", nullptr), -1);
    DFSClientDestroy(client);
    DFSClientDestroy(nullptr);
}

} // namespace
} // namespace Vantor::Sentrix
