// The clients of the services and their C interface, against a service in another process that answers as it is told.
#include "tests/support/Await.h"
#include "tests/support/BusProgram.h"
#include "tests/support/LogCapture.h"
#include "veyrasvc/diagnosis/BSODClient.h"
#include "veyrasvc/diagnosis/DFSClient.h"
#include "veyrasvc/diagnosis/DFSClientC.h"
#include "veyrasvc/platform/Win32.h"

#include <json/value.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>

namespace Vantor::Sentrix {
namespace {

constexpr int kDiagnosis = 0x820000;
constexpr int kCrashDumps = 0x830000;
constexpr int kScript =
    1; // "ID ANSWER": from now on the answer under that id, "@": the request's body; "-ID ": the service ends at it
constexpr int kLast =
    2; // "ID": asks for "ID REPLY-ID LENGTH BODY" of the last such request, waiting until there is one
const std::string kNul(1, '\0');

// ---- The service ---------------------------------------------------------------------------------------------------

class ScriptedService {
public:
    explicit ScriptedService(int module) : m_client(module, false, false) {
        for (int id = kDiagnosis + 1; id <= kDiagnosis + 0x10; ++id) {
            m_client.RegisterMessageCallback(id, [this](TagIPCMessageItem& item) { Serve(item); });
        }
        m_client.RegisterMessageCallback(kScript, [this](TagIPCMessageItem& item) {
            const std::string line = BodyOf(item);
            std::size_t digits = 0;
            const int id = std::stoi(line, &digits);
            {
                const std::lock_guard guard(m_mutex);
                m_answers[id] = line.substr(digits + 1);
            }
            Answer(item, item.replyMsgId, "");
        });
        m_client.RegisterMessageCallback(kLast, [this](TagIPCMessageItem& item) {
            std::unique_lock guard(m_mutex);
            const int id = std::stoi(BodyOf(item));
            m_came.wait_for(guard, kAwaitLimit, [&] { return m_requests.count(id) != 0; });
            Answer(item, item.replyMsgId, m_requests[id]);
            m_requests.erase(id);
        });
    }

private:
    // Callbacks run at the same time.
    void Serve(const TagIPCMessageItem& item) {
        const std::lock_guard guard(m_mutex);
        if (m_answers.count(-item.msgId) != 0) {
            std::_Exit(0); // as if it had crashed
        }
        m_requests[item.msgId] = std::to_string(item.msgId) + " " + std::to_string(item.replyMsgId) + " " +
                                 std::to_string(item.dataLen) + " " + BodyOf(item);
        m_came.notify_all();
        if (const auto answer = m_answers.find(item.replyMsgId); answer != m_answers.end()) {
            if (item.msgId == item.replyMsgId) { // somebody waits for it
                TagIPCMessageItem other = item;
                other.uniqMsgId ^= 1 << 30;
                Answer(other, item.replyMsgId, "1 of another request" + kNul);
                Answer(item, kScript, "1 of another message" + kNul);
            }
            const std::string body = answer->second == "@" ? BodyOf(item) : answer->second;
            Answer(item, item.replyMsgId, body);
            Answer(item, item.replyMsgId, body); // a second time
        }
    }
    void Answer(const TagIPCMessageItem& request, int msgId, const std::string& body) {
        m_client.PostIPCMessage(Item(request.fromModuleId, msgId, body, -1, request.uniqMsgId));
    }

    std::mutex m_mutex;
    std::condition_variable m_came;
    // Guarded by m_mutex.
    std::map<int, std::string> m_answers;
    std::map<int, std::string> m_requests;
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
    void OnRecvStartDetection(TagIPCMessageItem& item) override { Tell("detection ", item); }
    void OnRecvStartRepair(TagIPCMessageItem& item) override {
        Tell("repair ", item);
        throw std::runtime_error("a hook may throw");
    }
    static void Tell(const char* kind, const TagIPCMessageItem& item) { s_outcomes.Put(kind + BodyOf(item)); }
    static inline Mailbox<std::string> s_outcomes; // outlives every hook
};

const RoleDefinition kTwin("twin", [](int module) {
    Watching client(module);
    EXPECT_EQ(client.GetSdkVersion(), "1.2");
    SayReady();
    return Watching::s_outcomes.Take() == "detection found" ? 0 : 1;
});

// ---- The test's side -----------------------------------------------------------------------------------------------

class ClientsTest : public testing::Test {
protected:
    void Script(int id, const std::string& answer, int module = kDiagnosis) {
        ASSERT_TRUE(Ask(m_test, module, std::to_string(id) + " " + answer, ++m_uniq, kScript));
    }
    std::string LastRequest(int id, int module = kDiagnosis) {
        const std::string text = std::to_string(id);
        TagIPCMessageItem request = Item(module, kLast, text, 100, ++m_uniq);
        TagIPCMessageItemRecv last;
        EXPECT_TRUE(m_test.SendIPCMessage(request, 100, last, kNoLimit));
        return last.data;
    }
    static std::shared_ptr<DiagnosisDeviceInfo> Device() { return std::make_shared<DiagnosisDeviceInfo>("pc", 3); }

    static inline const std::string s_device =
        R"({"AuthTag":"","DeviceId":"","DeviceType":"pc","OperationType":3,"PackageName":"","TrelixVersion":0})";

    Bus m_bus;
    Role m_service{"service", kDiagnosis};
    IPCMessageClient m_test{kMe, false, false};
    int m_uniq = 0;
};

std::string Request(int id, int answerId, const std::string& text) {
    return std::to_string(id) + " " + std::to_string(answerId) + " " + std::to_string(text.size() + 1) + " " + text +
           kNul;
}

TEST_F(ClientsTest, QueriesSendTheirRecordAndReadTheAnswer) {
    DFSClient client(kOther);
    Script(0x820001, "1.2" + kNul + "rubbish");
    EXPECT_EQ(client.GetSdkVersion(), "1.2");
    EXPECT_EQ(LastRequest(0x820001), Request(0x820001, 0x820001, ""));
    Script(0x820001, "no end");
    EXPECT_EQ(client.GetSdkVersion(), "no end");
    Script(0x820001, "");
    LogCapture log;
    EXPECT_EQ(client.GetSdkVersion(), "") << "an answer without a body";
    EXPECT_EQ(log.Errors("SendIPCMessage fail."), 1);

    Script(0x820010, R"({"Events":[]})" + kNul);
    EXPECT_EQ(client.GetFaultInfobyId(-1, 1LL << 40, -2, "", "p\"\xc3\xa9"), R"({"Events":[]})");
    EXPECT_EQ(
        LastRequest(0x820010),
        Request(0x820010, 0x820010,
                R"({"EndTime":-2,"EventId":-1,"EventProvider":"p\"\u00e9","EventType":"","StartTime":1099511627776})"));
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "GetFaultInfobyId result:{\"Events\":[]}"), 1);
}

TEST_F(ClientsTest, CapabilitiesAreReadFromWhateverJsonComes) {
    using Names = std::list<std::string>;
    const struct {
        const char* answer;
        Names names;
        bool throws;
        const char* warning;
    } cases[] = {
        {R"({"DetectCapability":["a","b",3]})", {"a", "b", "3"}, false, nullptr},
        {"{}", {}, false, nullptr},
        {R"({"RepairCapability":["a"]})", {}, false, nullptr},
        {R"({"DetectCapability":"a"})", {}, false, nullptr},
        {"null", {}, false, "Null Json Value."},
        {"{", {}, false, "jsonStr[{] err. "},
        {"", {}, false, "jsonStr[] err. "},
        {"[1]", {}, true, nullptr},
        {R"({"DetectCapability":{"a":1}})", {}, true, nullptr},
        {R"({"DetectCapability":[["a"]]})", {}, true, nullptr},
    };
    DFSClient client(kOther);
    for (const auto& one : cases) {
        Script(0x820002, one.answer + kNul);
        LogCapture log;
        if (one.throws) {
            EXPECT_THROW(client.GetDetectCapability(Device()), Json::LogicError) << one.answer;
            continue;
        }
        EXPECT_EQ(client.GetDetectCapability(Device()), one.names) << one.answer;
        const auto lines = log.Take();
        const bool warned = std::any_of(lines.begin(), lines.end(), [&](const LogCapture::Line& line) {
            return line.first >= log4cplus::WARN_LOG_LEVEL && one.warning != nullptr &&
                   line.second.rfind(one.warning, 0) == 0;
        });
        EXPECT_EQ(warned, one.warning != nullptr) << one.answer;
    }
    EXPECT_EQ(LastRequest(0x820002), Request(0x820002, 0x820002, s_device));
    Script(0x820003, R"({"RepairCapability":["r"]})" + kNul);
    EXPECT_EQ(client.GetRepairCapability(Device()), Names{"r"});
    Script(0x820003, std::string(3 << 20, '[') + kNul);
    EXPECT_EQ(client.GetRepairCapability(Device()), Names{}) << "megabytes of brackets";
}

TEST_F(ClientsTest, CancelsReadANumber) {
    DFSClient client(kOther);
    const std::pair<const char*, int> cases[] = {{"0", 0}, {"  0", 0}, {"0x", 0}, {"5", -1}, {"-1", -1}};
    for (const auto& [answer, result] : cases) {
        Script(0x820006, answer + kNul);
        Script(0x820009, answer + kNul);
        EXPECT_EQ(client.CancelDetection(Device()), result) << answer;
        EXPECT_EQ(LastRequest(0x820006), Request(0x820006, 0x820006, s_device));
        EXPECT_EQ(client.CancelRepair(Device()), result) << answer;
    }
    Script(0x820006, "none" + kNul);
    EXPECT_THROW(client.CancelDetection(Device()), std::invalid_argument);
    Script(0x820006, "99999999999" + kNul);
    EXPECT_THROW(client.CancelDetection(Device()), std::out_of_range);
}

TEST_F(ClientsTest, StartsArePostedAndTheirOutcomeReachesTheHook) {
    auto& outcomes = Watching::s_outcomes;
    Watching client(kOther);
    Script(0x820005, "found");
    Script(0x820008, "mended");
    EXPECT_EQ(client.StartDetection({"x", "y"}, 2, Device()), 0);
    EXPECT_EQ(outcomes.Take(), "detection found");
    EXPECT_EQ(LastRequest(0x820004),
              Request(0x820004, 0x820005,
                      R"({"DeviceInfo":)" + s_device + R"(,"OperationItems":["x","y"],"OperationScene":2})"));
    EXPECT_EQ(outcomes.Take(), "detection found") << "twice answered, twice told";
    EXPECT_EQ(client.StartRepair({}, 0, Device()), 0);
    EXPECT_EQ(outcomes.Take(), "repair mended");
    EXPECT_EQ(LastRequest(0x820007),
              Request(0x820007, 0x820008, R"({"DeviceInfo":)" + s_device + R"(,"OperationScene":0})"));
    EXPECT_EQ(outcomes.Take(), "repair mended");
    EXPECT_EQ(client.CancelNotify(""), 0);
    EXPECT_EQ(LastRequest(0x82000b), Request(0x82000b, 0x82000b, ""));
}

TEST_F(ClientsTest, SeveralClientsAndProcessesGetTheirOwnAnswers) {
    Script(0x820001, "1.2" + kNul);
    Script(0x820005, "found");
    Script(0x820010, "@");
    Role twin("twin", kOther); // the same module in another process
    Watching client(kOther);
    Watching second(kMe + 2);
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int t = 0; t < 8; ++t) { // requests that differ in nothing but their body
        threads.emplace_back([&, t] {
            DFSClient& asking = t % 2 == 0 ? client : second;
            for (int i = 0; i < 20; ++i) {
                const std::string id = std::to_string(1000 + t * 100 + i);
                right += asking.GetFaultInfobyId(std::stoi(id), 0, 0, "", "").find(id) != std::string::npos;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 160);
    EXPECT_EQ(client.StartDetection({}, 0, Device()), 0);
    EXPECT_EQ(Watching::s_outcomes.Take(), "detection found");
    EXPECT_EQ(Watching::s_outcomes.Take(), "detection found");
    EXPECT_EQ(twin.AwaitExit(), 0) << "an outcome comes to every process of the module";
    EXPECT_EQ(client.GetSdkVersion(), "1.2") << "and the module lives on in this one";
    EXPECT_TRUE(Watching::s_outcomes.IsEmpty()) << "nothing for the second client";
}

TEST_F(ClientsTest, AServiceThatDiesEndsTheCallAtOnceAndOneThatIsSilentDoesNot) {
    Role silent("service", kCrashDumps); // it was told no answer
    BSODClient unanswered(kMe + 2);
    std::atomic<bool> waits{true};
    std::thread waiting([&] {
        EXPECT_EQ(unanswered.CancelAnalysis(), -1);
        waits = false;
    });
    EXPECT_EQ(LastRequest(0x82000f, kCrashDumps), Request(0x82000f, 0x82000f, ""));
    DFSClient client(kOther);
    Script(-0x820001, ""); // it ends when this request comes
    EXPECT_EQ(client.GetSdkVersion(), "");
    EXPECT_EQ(client.GetSdkVersion(), "") << "and when nobody is there";
    EXPECT_TRUE(waits) << "it began before and may take as long, so the others have not come to their time";
    silent.Kill();
    waiting.join();
}

TEST_F(ClientsTest, CrashDumpHistoryAndCancel) {
    const Role service("service", kCrashDumps);
    BSODClient client(kOther);
    std::list<std::string> dumps = {"x"};
    double status = 7;
    Script(0x82000c, "null" + kNul, kCrashDumps);
    client.GetBsodHistory(dumps, status);
    EXPECT_EQ(status, 7);
    Script(0x82000c, R"({"result_status":1,"minidump":["a","b"]})" + kNul, kCrashDumps);
    client.GetBsodHistory(dumps, status);
    EXPECT_EQ(dumps, (std::list<std::string>{"x", "a", "b"}));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(LastRequest(0x82000c, kCrashDumps), Request(0x82000c, 0x82000c, ""));
    Script(0x82000c, R"({"result_status":"no"})" + kNul, kCrashDumps);
    EXPECT_THROW(client.GetBsodHistory(dumps, status), Json::LogicError);
    Script(0x82000f, "2" + kNul, kCrashDumps);
    EXPECT_EQ(client.CancelAnalysis(), -1);
    EXPECT_EQ(client.StartBsodAnalysis(), 0);
    EXPECT_EQ(LastRequest(0x82000d, kCrashDumps), Request(0x82000d, 0x82000e, ""));
}

// ---- The C interface -----------------------------------------------------------------------------------------------

TEST_F(ClientsTest, TheCInterfaceCutsAtItsLimitsAndRefusesNull) {
    DFSClientHandle handle = DFSClientCreate(kOther);
    ASSERT_NE(handle, nullptr);
    CDiagnosisDeviceInfo device{};
    std::memset(device.deviceType, 'd', sizeof device.deviceType); // no NUL: it ends with its field
    auto list = std::make_unique<CStringList>();
    std::string many = R"({"DetectCapability":[)";
    for (int i = 0; i < 60; ++i) {
        many += (i == 0 ? "\"" : ",\"") + std::string(198 - i % 2, 'a') + (i % 2 != 0 ? "\u00e9\"" : "\"");
    }
    Script(0x820002, many + "]}" + kNul);
    ASSERT_EQ(CGetDetectCapability(handle, &device, list.get()), 0);
    EXPECT_EQ(list->count, 50);
    EXPECT_EQ(list->items[0], std::string(198, 'a')) << "it just fits";
    EXPECT_EQ(list->items[49], std::string(197, 'a')) << "cut at a whole character";
    EXPECT_NE(LastRequest(0x820002).find(std::string(200, 'd') + "\""), std::string::npos);

    std::vector<char> text(DFS_FAULT_INFO_SIZE + 1, '#');
    Script(0x820010, std::string(300'000, 'f') + kNul);
    EXPECT_EQ(CGetFaultInfobyId(handle, 1, 2, 3, "", "", text.data()), 0);
    EXPECT_EQ(std::strlen(text.data()), 199'998U);
    EXPECT_EQ(text.back(), '#');
    Script(0x820001, std::string(300, 'v') + kNul);
    EXPECT_EQ(CGetSdkVersion(handle, text.data()), 0);
    EXPECT_EQ(std::strlen(text.data()), 198U);

    for (const auto& [count, passed] : std::map<int, std::size_t>{{-1, 0}, {0, 0}, {2, 2}, {80, 50}}) {
        list->count = count;
        EXPECT_EQ(CStartDetection(handle, list.get(), 1, &device), 0);
        const std::string request = LastRequest(0x820004);
        EXPECT_EQ(static_cast<std::size_t>(std::count(request.begin(), request.end(), 'a')) / 197, passed) << count;
    }
    EXPECT_EQ(CCancelNotify(handle, "t"), 0);

    char* const out = text.data();
    EXPECT_EQ(CGetSdkVersion(nullptr, out) + CGetSdkVersion(handle, nullptr), -2);
    EXPECT_EQ(CGetDetectCapability(nullptr, &device, list.get()) + CGetDetectCapability(handle, nullptr, list.get()) +
                  CGetDetectCapability(handle, &device, nullptr) + CGetRepairCapability(handle, nullptr, list.get()) +
                  CGetRepairCapability(handle, &device, nullptr),
              -5);
    EXPECT_EQ(CStartDetection(handle, nullptr, 0, &device) + CStartDetection(handle, list.get(), 0, nullptr) +
                  CStartRepair(nullptr, list.get(), 0, &device) + CStartRepair(handle, nullptr, 0, &device) +
                  CCancelDetection(handle, nullptr) + CCancelRepair(nullptr, &device) + CCancelNotify(nullptr, ""),
              -7);
    EXPECT_EQ(
        CGetFaultInfobyId(handle, 0, 0, 0, nullptr, "", out) + CGetFaultInfobyId(handle, 0, 0, 0, "", "", nullptr), -2);
    DFSClientDestroy(handle);
    DFSClientDestroy(nullptr);
}

} // namespace
} // namespace Vantor::Sentrix
