// veyra diagnose and veyra crashdumps, and the examples, with services that answer from a script.
#include "tests/support/BusProgram.h"

#include <utility>

namespace Vantor::Sentrix {
namespace {

struct Line {
    int request, answer;
    std::string text; // @ stands for the request's body
};
enum ScriptNumber { kGood, kBad };
const std::vector<Line> kScripts[] = {
    {{0x820001, 0x820001, "9.8.7"},
     {0x820002, 0x820002, R"({"DetectCapability":["memory","battery"]})"},
     {0x820003, 0x820003, R"({"RepairCapability":["temp.files"]})"},
     {0x820004, 0x820005, R"({"State":"finished","Ok":1,"Warning":1})"}, // has overtaken the others
     {0x820004, 0x820005, R"({"State":"running","Percent":99,"Item":"b","Outcome":"warning","Text":"\u001b\u00e9"})"},
     {0x820004, 0x820005, R"({"State":"running","Percent":5,"Item":"a","Outcome":"ok","Text":"x","EventId":3})"},
     {0x820006, 0x820006, "1"},
     {0x820007, 0x820008, R"({"State":"refused","Asked":@})"},
     {0x820009, 0x820009, "1"},
     {0x820010, 0x820010, R"({"Events":[{"EventId":12,"Time":1700000000,"EventType":"fault","Text":"t"}]})"},
     {0x82000d, 0x82000e, R"({"State":"running","Percent":9,"File":"/f","Type":"elf-core","Time":0,"Text":"t"})"},
     {0x82000d, 0x82000e, R"({"State":"finished","Analysed":1,"Unreadable":0})"},
     {0x82000f, 0x82000f, "0"}},
    {{0x820002, 0x820002, R"({"DetectCapability":[{}]})"},
     {0x820004, 0x820005, R"({"State":"running","Percent":5,"Item":"a","Outcome":"ok","Text":"x"})"}, // and no more
     {0x820006, 0x820006, "0"},
     {0x820006, 0x820005, R"({"State":"cancelled"})"},
     {0x820007, 0x820008, "soon"},
     {0x820010, 0x820010, R"({"Events":{}})"},
     {0x82000c, 0x82000c, R"({"result_status":[]})"},
     {0x82000d, 0x82000e, std::string(3000, '[')}}};

int PlayServices(int script) {
    IPCMessageClient services[] = {{0x820000, false, false}, {0x830000, false, false}};
    const auto answer = [&](TagIPCMessageItem& item) {
        for (const Line& line : kScripts[script]) {
            std::string text = line.text + '\0';
            const std::size_t at = text.find('@');
            text = at == std::string::npos ? text : text.replace(at, 1, item.data);
            if (line.request == item.msgId) {
                services[0].PostIPCMessage(Item(item.fromModuleId, line.answer, text, -1, item.uniqMsgId));
            }
        }
    };
    for (int request = 0x820001; request <= 0x820010; ++request) {
        services[0].RegisterMessageCallback(request, answer);
        services[1].RegisterMessageCallback(request, answer);
    }
    SayReady();
    return SleepUntilKilled();
}
const RoleDefinition kServices("services", PlayServices);

struct Program : Support::ChildProcess {
    explicit Program(const std::vector<std::string>& arguments, const std::string& program = VEYRA_PROGRAM) {
        EXPECT_TRUE(Start(program, arguments, Output::PipeAll));
    }
    std::string Rest() { // all lines that were not read yet, and the exit code
        std::string text;
        for (auto line = ReadLine(); line; line = ReadLine()) {
            text += *line + '\n';
        }
        return text + std::to_string(WaitForExit().value_or(99));
    }
};

struct ScriptedBus {
    explicit ScriptedBus(ScriptNumber script) : services("services", script) {
        while (Program({"status", "0x830000"}).Rest() != "online\n0") { // the second of the two to join
        }
    }
    Role host{"host"}, services;
};

void AwaitOutcome(Program& run) { // of the run that does not end by itself
    run.ReadLine();
    EXPECT_EQ(run.ReadLine(), "5 %    ok       a                      x");
}

TEST(DiagnosisVerbs, ShowWhatTheServicesAnswer) {
    const ScriptedBus bus(kGood);
    const auto shown = [](const std::vector<std::string>& words) { return Program(words).Rest(); };
    EXPECT_EQ(shown({"diagnose", "capabilities"}), "detect  memory\ndetect  battery\nrepair  temp.files\n0");
    EXPECT_EQ(shown({"diagnose", "start", "--from", "7"}),
              "veyra: `veyra diagnose cancel --from 0x7` or Ctrl-C cancels this run\n"
              "5 %    ok       a                      x (event 3)\n"
              "99 %   warning  b                      \uFFFD\u00e9\nfinished: 1 ok, 1 warning\n0");
    const std::string repair = shown({"diagnose", "repair", "--item", "i", "--for-real", "--json"});
    EXPECT_NE(repair.find(R"("OperationItems":["i"],"OperationScene":1},"State":"refused"})"), std::string::npos)
        << repair;
    EXPECT_EQ(shown({"diagnose", "faults"}), "EVENT  TIME (UTC)           TYPE   PROVIDER  TEXT\n"
                                             "12     2023-11-14 22:13:20  fault            t\n0");
    EXPECT_EQ(shown({"crashdumps", "analyse", "--from", "7"}),
              "veyra: `veyra crashdumps cancel --from 0x7` or Ctrl-C cancels this run\n"
              "9 %    elf-core     /f, 1970-01-01 00:00:00 UTC: t\nfinished: 1 analysed, 0 unreadable\n0");
    EXPECT_EQ(shown({"crashdumps", "cancel", "--from", "7", "--json"}), "{\"Cancelled\":true}\n0");
    EXPECT_EQ(shown({"diagnose", "cancel", "--from", "7"}), "veyra: no run of module 0x7 was cancelled\n1");
    const std::pair<std::string, std::vector<std::string>> examples[] = {EXAMPLES};
    for (const auto& [program, arguments] : examples) {
        EXPECT_EQ(Program(arguments, program).Rest(), "version 9.8.7\ndetects memory\ndetects battery\n0") << program;
    }
}

TEST(DiagnosisVerbs, WrongAnswersAreReportedAndRunsEndBeforeTheirTime) {
    EXPECT_EQ(Program({"crashdumps", "list"}).Rest(), "veyra: nobody serves the bus; start `veyra serve`\n1");
    ScriptedBus bus(kBad);
    for (const char* verb : {"capabilities", "repair", "faults", "list", "analyse"}) {
        const bool dumps = verb[0] == 'l' || verb[0] == 'a';
        const std::string text = Program({dumps ? "crashdumps" : "diagnose", verb}).Rest();
        EXPECT_NE(text.find(" service sent what cannot be understood: "), std::string::npos) << verb << text;
        EXPECT_EQ(text.substr(text.rfind('\n')), "\n1") << verb;
    }
    Program cancelled({"diagnose", "start", "--from", "7"});
    AwaitOutcome(cancelled);
    EXPECT_EQ(Program({"diagnose", "cancel", "--from", "7"}).Rest(), "cancelled\n0");
    EXPECT_EQ(cancelled.Rest(), "cancelled\n1");
    Program left({"diagnose", "start"});
    AwaitOutcome(left);
    bus.services.Kill();
    EXPECT_EQ(left.Rest(), "veyra: the diagnosis service went away before the run had ended\n1");
}

TEST(DiagnosisVerbs, TheEndOfTheHostIsTheEndOfARun) {
    ScriptedBus bus(kBad);
    Program left({"diagnose", "start"});
    AwaitOutcome(left);
    bus.host.Kill();
    EXPECT_EQ(left.Rest(), "veyra: the bus server went away before the run had ended\n1");
}

} // namespace
} // namespace Vantor::Sentrix
