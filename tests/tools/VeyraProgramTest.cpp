// The program veyra, run as a shell would run it: exit codes, what it prints, and what really crosses the bus.
#include "tools/support/ChildProcess.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/util/SystemVersion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Vantor::Sentrix::Support {
namespace {

using Arguments = std::vector<std::string>;

constexpr DWORD kPatienceMs = 30000;

// The exit code, and both streams line by line.
using Outcome = std::pair<std::optional<DWORD>, std::string>;

struct Veyra : ChildProcess {
    explicit Veyra(const Arguments& arguments) {
        EXPECT_TRUE(Start(VEYRA_PROGRAM, arguments, Output::PipeAll)) << GetLastError();
    }
    // The next line must be this one.
    Veyra& Says(const std::string& line) {
        EXPECT_EQ(ReadLine(kPatienceMs), line);
        return *this;
    }
    std::string NextLine() { return ReadLine(kPatienceMs).value_or("(nothing)"); }
    Outcome Finish() {
        std::string text;
        while (const auto line = ReadLine(kPatienceMs)) {
            text += *line + '\n';
        }
        return {WaitForExit(kPatienceMs), text};
    }
};

void ExpectOutcome(const Arguments& arguments, DWORD exitCode, const std::string& text) {
    EXPECT_EQ(Veyra(arguments).Finish(), Outcome(exitCode, text)) << arguments.front();
}

// A bus of its own for every test, and a folder.
class VeyraProgram : public testing::Test {
protected:
    VeyraProgram() {
        static int number = 0;
        m_name = "veyra-program-test-" + std::to_string(GetCurrentProcessId()) + '-' + std::to_string(++number);
        SetEnvironmentVariableW(L"VEYRASVC_PIPE_NAMESPACE", WideFromUtf8(m_name).c_str());
        SetEnvironmentVariableW(L"VEYRA_LOG_LEVEL", L"FATAL");
        m_folder = std::filesystem::temp_directory_path() / PathFromUtf8(m_name + "-\u00e9\u4e2d");
        std::filesystem::create_directory(m_folder);
    }
    ~VeyraProgram() override { std::filesystem::remove_all(m_folder); }

    Veyra& Serve() { return m_host.emplace(Arguments{"serve"}).Says(kServing); }

    std::string File(const std::string& name, const std::string& bytes) const {
        std::string path = (m_folder / name).string();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    static constexpr char kServing[] = R"(veyra: serving \\.\Pipe\iVeyraService)";
    std::string m_name;
    std::filesystem::path m_folder;
    std::optional<Veyra> m_host;
};

TEST_F(VeyraProgram, WrongUsageIsTwo) {
    const std::string file = File("body", "x");
    const Arguments wrong[] = {{},
                               {"fly"},
                               {"send", "--to", "1"},
                               {"send", "--to", "0x1g", "--msg", "1"},
                               {"send", "--to", "1", "--msg", "1", "--timeout", "soon"},
                               {"post", "--to", "1", "--msg", "1", "--body-file", "/no/such/file"},
                               {"post", "--to", "1", "--msg", "1", "--body-file", file, "body"},
                               {"listen", "--id", "1", "--msg", "9-8"},
                               {"listen", "--id", "1", "--subscribe", "1:2:3"},
                               {"listen", "--id", "1", "--out", file}};
    for (const Arguments& arguments : wrong) {
        const auto [exitCode, text] = Veyra(arguments).Finish();
        EXPECT_TRUE(exitCode == 2U && !text.empty()) << testing::PrintToString(arguments);
    }
    EXPECT_EQ(Veyra({"listen", "--help"}).Finish().first, 0U);
}

TEST_F(VeyraProgram, OneServesAndWithoutItNothingIsSent) {
    for (const char* word : {"send", "post", "publish"}) {
        ExpectOutcome({word, word == std::string("publish") ? "--from" : "--to", "1", "--msg", "1", "x"}, 1,
                      "veyra: nobody serves the bus; start `veyra serve`\n");
    }
    Serve();
    ExpectOutcome({"serve"}, 1, "veyra: \\\\.\\Pipe\\iVeyraService is served already\n");
    m_host->Kill();
    m_host->Finish();
    Serve(); // the name is free again
}

TEST_F(VeyraProgram, RequestsAreAnsweredOrTheReasonIsTold) {
    Serve();
    Veyra listener({"listen", "--id", "0x50000", "--reply", "pong \"1\"", "--count", "2"});
    listener.Says("veyra: listening as 0x50000");
    ExpectOutcome({"status", "327680"}, 0, "online\n");
    ExpectOutcome({"send", "--to", "327680", "--msg", "010", "--from", "7", "a\tb"}, 0, "pong \"1\"\n");
    listener.Says(R"(message from 0x7, id 0xa, 3 bytes: "a\tb")");
    // Nobody receives this id, so the module stays silent.
    ExpectOutcome({"send", "--to", "0x50000", "--msg", "0x99999", "--timeout", "200"}, 1,
                  "veyra: module 0x50000 is online but gave no answer in time (200 ms)\n");
    ExpectOutcome({"send", "--to", "0x50000", "--msg", "2", "--from", "7", "--reply-msg", "99", "--encrypt", "\u00e9"},
                  0, "pong \"1\"\n");
    listener.Says(R"(message from 0x7, id 0x2, reply id 0x63, 2 bytes: "\xc3\xa9")");
    EXPECT_EQ(listener.Finish().first, 0U) << "two were wanted";

    ExpectOutcome({"send", "--to", "0x50000", "--msg", "1", "x"}, 1, "veyra: module 0x50000 is offline\n");
    ExpectOutcome({"post", "--to", "0x50000", "--msg", "1", "x"}, 1,
                  "veyra: module 0x50000 is offline; nobody has received the message\n");
    ExpectOutcome({"status", "0x50000", "--json"}, 1, "{\"module\":327680,\"online\":false}\n");
}

TEST_F(VeyraProgram, JsonTellsEverything) {
    Serve();
    Veyra listener({"listen", "--id", "9", "--json", "--subscribe", "8", "--subscribe", "7:5"});
    listener.Says("veyra: listening as 0x9");
    ExpectOutcome({"post", "--to", "9", "--from", "3", "--msg", "1", "--reply-msg", "2", "q\"\\\n\x01\u00e9"}, 0, "");
    const std::string text = listener.NextLine();
    const std::string head = R"({"kind":"message","from":3,"to":9,"msg":1,"replyMsg":2,"uniq":)";
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_NE(text.find(",\"size\":7,\"body\":\"q\\\"\\\\\\n\\u0001\u00e9\"}"), std::string::npos) << text;

    ExpectOutcome({"post", "--to", "9", "--msg", "1", "--body-file", File("body", {"\0\xff\x10\x80", 4})}, 0, "");
    EXPECT_NE(listener.NextLine().find(R"("size":4,"bodyBase64":"AP8QgA=="})"), std::string::npos);

    // The subscription to 7 lets one message through; that to 8 all, and its coming and going.
    ExpectOutcome({"publish", "--from", "7", "--msg", "4", "missed"}, 0, "");
    ExpectOutcome({"publish", "--from", "7", "--msg", "5", "caught"}, 0, "");
    EXPECT_NE(listener.NextLine().find(R"("body":"caught"})"), std::string::npos);
    Veyra other({"listen", "--id", "8"});
    listener.Says(R"({"kind":"presence","module":8,"online":true})");
    other.Kill();
    listener.Says(R"({"kind":"presence","module":8,"online":false})");
}

TEST_F(VeyraProgram, BodiesAreStoredUnchanged) {
    Serve();
    const std::string bytes = std::string(3 << 20, '\0') + "\xff\r\n\x1a\n";
    Veyra listener({"listen", "--id", "9", "--count", "1", "--out", m_folder.string()});
    listener.Says("veyra: listening as 0x9");
    ExpectOutcome({"post", "--to", "9", "--msg", "1", "--encrypt", "--body-file", File("body", bytes)}, 0, "");
    EXPECT_EQ(listener.Finish().first, 0U);
    std::ifstream stored(m_folder / "000001", std::ios::binary);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(stored), {}) == bytes);
}

TEST_F(VeyraProgram, SysinfoTellsTheVersionRecord) {
    const SystemVersion version;
    const std::string major = std::to_string(version.GetMajor());
    const std::string build = std::to_string(version.GetBuild());
    const auto [exitCode, text] = Veyra({"sysinfo"}).Finish();
    EXPECT_EQ(exitCode, 0U);
    const std::string head = "name          " + Utf8FromWide(version.GetName()) + "\nversion       " + major + '.' +
                             std::to_string(version.GetMinor()) + "\nbuild         " + build + '\n';
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_NE(text.find(IsServer() ? "\nrole          server\n" : "\nrole          workstation\n"), std::string::npos);
    const std::string json = Veyra({"sysinfo", "--json"}).NextLine();
    for (const std::string& field : {"\"major\":" + major + ',', "\"build\":" + build + ',',
                                     std::string("\"is64Bit\":") + (version.Is64Bit() ? "true" : "false")}) {
        EXPECT_NE(json.find(field), std::string::npos) << field << " in " << json;
    }
}

TEST_F(VeyraProgram, HashesWhatItCanAndSaysWhatItCannot) {
    std::filesystem::create_directory(m_folder / "s");
    std::string folder = Utf8FromPath(m_folder);
    std::replace(folder.begin(), folder.end(), '\\', '/'); // the one backslash is to be in the last name
    const std::string plain = folder + "/abc";
    const std::string odd = folder + "/s\\f"; // a file in a folder, or a name with a backslash
    std::ofstream(PathFromUtf8(plain), std::ios::binary) << "abc";
    std::ofstream(PathFromUtf8(odd), std::ios::binary) << std::string(3000000, 'a');
    ExpectOutcome({"hash", plain, folder + "/none", folder, odd}, 1,
                  "900150983CD24FB0D6963F7D28E17F72  " + plain + "\nveyra: '" + folder +
                      "/none' cannot be read: there is no such file\nveyra: '" + folder +
                      "' cannot be read: it is a folder, or access to it is denied\n" +
                      "\\99DDC9A3A46EA62C95652BDF937A1FB8  " + folder + "/s\\\\f\n");
    ExpectOutcome({"hash", "--sha256", plain}, 0,
                  "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD  " + plain + '\n');
}

} // namespace
} // namespace Vantor::Sentrix::Support
