// The diagnosis service: its judgement on recorded readings, and the program itself on a bus of its own.
#include "services/diagnosis/FaultHistory.h"
#include "services/diagnosis/Files.h"
#include "services/diagnosis/Judgement.h"
#include "services/diagnosis/Messages.h"
#include "services/diagnosis/TempFiles.h"
#include "tests/support/BusProgram.h"
#include "tools/support/ServiceText.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/diagnosis/DFSClient.h"

#include <filesystem>
#include <fstream>
#include <map>

namespace Vantor::Sentrix::Diagnosis {
namespace {

namespace fs = std::filesystem;

TEST(DiagnosisJudgement, OfRecordedReadings) {
    const std::pair<Finding, const char*> cases[] = {
        {JudgeSpace({{"/a", 1, 9}, {"/", 950ULL << 30, 50ULL << 30}}), "ok: / is 95 % full, the fullest of 2"},
        {JudgeSpace({{"/", 9, 1}, {"/v", 97, 3}}), "fault: / is 90 % full, 1 B left, /v is 97 % full, 3 B left"},
        {JudgeDisks({{"a", "offline"}}, {{"md0", "1"}}), "fault: a is offline, md0 lacks 1 of its disks"},
        {JudgeErrorCounts({{"a", "0"}, {"b", "3"}}), "fault: b has met 3 errors since its last check"},
        {JudgeLoad({100, 400}, {100, 400}), "unknown: the processor times do not advance"},
        {JudgeTemperature({{"x86_pkg_temp", "91500"}, {"CPU", "-274000"}, {"wifi", "99000"}, {"soc", "hot"}}),
         "warning: 91 degrees Celsius"},
        {JudgeBattery({255, 255, 255, 0, 0, 0}), "unknown: the battery's charge is not known"},
        {JudgeBattery({0, 2, 20, 0, 0, 0}), "warning: 20 % charged, on battery"},
        {JudgeFailedUnits("a.service loaded failed A\nb.mount x\n"), "warning: 2 units failed: a.service, b.mount"},
    };
    for (const auto& [finding, told] : cases) {
        EXPECT_EQ(NameOf(finding.outcome) + (": " + finding.text), told);
    }
    EXPECT_EQ(WritableMounts("/dev/a / ext4 rw,relatime 0 0\n/dev/a /bind ext4 rw 0 0\nproc /proc proc rw 0 0\n"
                             "/dev/r /cd udf ro 0 0\n/dev/b /b\\040c xfs rw 0 0\nh:/x /n nfs rw 0 0\nrubbish\n"),
              (std::vector<std::string>{"/", "/b c"}));
}

TEST(DiagnosisHistory, IsBoundedAndAsked) {
    FaultHistory history;
    for (int i = 1; i <= 1002; ++i) {
        history.Record(i, i % 2 != 0 ? "fault" : "warning", i % 3 != 0 ? "memory" : "battery", "text");
    }
    const auto found = [&](const char* query) { return history.Answer(query)["Events"].size(); };
    EXPECT_EQ(found("{}"), 1000U);
    EXPECT_EQ(found(R"({"EventId":3,"EventType":"fault"})"), 1U);
    EXPECT_EQ(found(R"({"EventId":3,"EventType":"warning"})"), 0U);
    EXPECT_EQ(found(R"({"StartTime":10,"EndTime":12})"), 3U);
    EXPECT_EQ(found(R"({"EndTime":8,"EventProvider":"battery"})"), 2U);
    for (const char* const wrong : {"7", R"({"EventId":99999999999})", R"({"EventType":{}})"}) {
        EXPECT_TRUE(history.Answer(wrong)["Error"].isString()) << wrong;
    }
}

struct Customer final : DFSClient {
    Customer() : DFSClient(kMe) {}
    ~Customer() { EndHooks(); }
    void OnRecvStartDetection(TagIPCMessageItem& item) override { outcomes.Put(ParseObject(Support::TextOf(item))); }
    void OnRecvStartRepair(TagIPCMessageItem& item) override { outcomes.Put(ParseObject(Support::TextOf(item))); }
    void OnRecvStartNotify(TagIPCMessageItem& item) override { notices.Put(ParseObject(Support::TextOf(item))); }
    Json::Value Next() { return outcomes.Take().value_or(Json::Value()); }
    Json::Value NextThatEnds() {
        const Json::Value message = Next();
        return message["State"] == "running" ? NextThatEnds() : message;
    }
    std::string Repair(int scene) { // its two messages may come in any order
        StartRepair({}, scene, device);
        const Json::Value one = Next(), other = Next();
        text = one["Text"].asString() + other["Text"].asString();
        return one["Outcome"].asString() + other["Outcome"].asString();
    }
    std::string text; // of the last repair
    std::shared_ptr<DiagnosisDeviceInfo> device = std::make_shared<DiagnosisDeviceInfo>("local", 0);
    Mailbox<Json::Value> outcomes, notices;
};

struct DiagnosisProgram : testing::Test {
    DiagnosisProgram() {
        EXPECT_TRUE(m_program.Start(SERVICE_PROGRAM, {"--temp-folder", Support::Utf8FromPath(m_folder)},
                                    Support::ChildProcess::Output::Pipe));
        EXPECT_EQ(m_program.ReadLine(), "veyra-diagnosisd: serving module 0x820000");
    }
    ~DiagnosisProgram() override { fs::remove_all(m_folder); }
    fs::path m_folder = fs::temp_directory_path() / ("veyra-diagnosis-test-" + std::to_string(GetCurrentProcessId()));
    Role m_host{"host"};
    Support::ChildProcess m_program;
    Customer m_customer;
};

TEST_F(DiagnosisProgram, ExaminesTheMachine) {
    EXPECT_NE(m_customer.GetSdkVersion(), "");
    EXPECT_EQ(m_customer.GetRepairCapability(m_customer.device), std::list<std::string>{"temp.files"});
    const auto items = m_customer.GetDetectCapability(m_customer.device);
    m_customer.StartDetection({}, 0, m_customer.device);
    std::map<std::string, Json::Value> messages; // by item; the last message has none
    for (std::size_t i = 0; i <= items.size(); ++i) {
        const Json::Value message = m_customer.Next();
        messages[message["Item"].asString()] = message;
    }
    EXPECT_EQ(messages.size(), 9U);
    EXPECT_EQ(messages[""]["State"], "finished");
    EXPECT_NE(messages["memory"]["Text"].asString().find("iB in use"), std::string::npos);
    EXPECT_NE(messages["storage.space"]["Text"].asString().find(" % full"), std::string::npos);
}

TEST_F(DiagnosisProgram, IsCancelledWhileItWorks) {
    m_customer.StartDetection(std::list<std::string>(500, "processor.load"), 0, m_customer.device);
    EXPECT_EQ(m_customer.Next()["State"], "running");
    EXPECT_EQ(m_customer.CancelRepair(m_customer.device), -1) << "it is none";
    m_customer.StartRepair({}, 0, m_customer.device);
    EXPECT_EQ(m_customer.NextThatEnds()["State"], "refused");
    EXPECT_EQ(m_customer.CancelDetection(m_customer.device), 0);
    EXPECT_EQ(m_customer.NextThatEnds()["State"], "cancelled");
    EXPECT_EQ(m_customer.CancelDetection(m_customer.device), -1);
}

TEST_F(DiagnosisProgram, RepairsWithCareAndRemembersFaults) {
    std::ofstream(m_folder) << "no folder";
    EXPECT_EQ(m_customer.Repair(1), "warning");
    const Json::Value event = m_customer.notices.Take().value_or(Json::Value());
    const std::string found = m_customer.GetFaultInfobyId(event["EventId"].asInt(), event["Time"].asInt64(),
                                                          event["Time"].asInt64(), "warning", "temp.files");
    EXPECT_EQ(ParseObject(found)["Events"][0], event);
    fs::remove(m_folder);
    fs::create_directory(m_folder);
    std::ofstream(m_folder / "new") << "n";
    std::ofstream(m_folder / "removed-2") << "in the way";
    const fs::path old = m_folder / "old";
    for (const char* const name :
         {"removed-1", "removed-3"}) { // the second time, the first old file is not overwritten
        const fs::path moved = m_folder / name / "old";
        std::ofstream(old) << name;
        fs::last_write_time(old, fs::file_time_type::clock::now() - std::chrono::hours(24 * 8));
        EXPECT_EQ(m_customer.Repair(0), "would");
        EXPECT_TRUE(fs::exists(old) && !fs::exists(moved));
        EXPECT_EQ(m_customer.Repair(1), "done");
        EXPECT_NE(m_customer.text.find(Support::Utf8FromPath(moved.parent_path())), std::string::npos);
        EXPECT_TRUE(!fs::exists(old) && fs::exists(moved) && fs::exists(m_folder / "new"));
        EXPECT_EQ(m_customer.Repair(1), "ok") << "what was moved is not found again";
    }
    fs::rename(m_folder / "removed-1" / "old", old);
    EXPECT_EQ(ReadText(old), "removed-1") << "restored";
}

// Two repairs at once: every file is in one place in the end, and nowhere else.
TEST(TempFiles, NoFileIsLostOrDoubled) {
    const fs::path folder = fs::temp_directory_path() / ("veyra-temp-files-" + std::to_string(GetCurrentProcessId()));
    fs::create_directory(folder);
    constexpr int kFiles = 300;
    for (int i = 0; i < kFiles; ++i) {
        const fs::path file = folder / std::to_string(i);
        std::ofstream(file) << i;
        fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::hours(24 * 8));
    }
    const auto repair = [&] { RepairTempFiles(folder, true, {}); };
    std::thread other(repair);
    repair();
    other.join();
    int found = 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        found += entry.is_regular_file() && entry.path().parent_path() != folder;
    }
    EXPECT_EQ(found, kFiles);
    fs::remove_all(folder);
}

TEST_F(DiagnosisProgram, AnswersRubbish) {
    const IPCMessageClient client(kOther, false, false);
    const auto ask = [&](int id, int answerId, const std::string& body) {
        static int number = 0;
        TagIPCMessageItem request = Item(0x820000, id, body, answerId, ++number);
        TagIPCMessageItemRecv answer;
        EXPECT_TRUE(client.SendIPCMessage(request, answerId, answer, kNoLimit));
        return answer.data;
    };
    for (const char* const text : {"", "{", "[", R"({"OperationItems":7})", R"({"OperationItems":["fly"]})"}) {
        std::string body = text;
        body.append(body.size() != 1 ? 0 : *text == '[' ? 60000 : 4 << 20, *text); // deep, and huge
        EXPECT_NE(ask(0x820002, 0x820002, body).find("DetectCapability"), std::string::npos);
        EXPECT_NE(ask(0x820004, 0x820005, body).find("refused"), std::string::npos);
        EXPECT_NE(ask(0x820007, 0x820008, body).find("refused"), std::string::npos);
        EXPECT_NE(ask(0x820010, 0x820010, body).find(R"("Events":[])"), std::string::npos);
        EXPECT_EQ(ask(0x820006, 0x820006, body), std::string("1\0", 2));
    }
}

} // namespace
} // namespace Vantor::Sentrix::Diagnosis
