// Child processes: this program starts itself in one of the roles below.
#include "tools/support/ChildProcess.h"

#include "tools/support/Utf8.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Support {
namespace {

using Arguments = std::vector<std::string>;

// ---- The child -----------------------------------------------------------------------------------------------------

std::string Hex(const std::string& text) {
    std::string hex;
    for (const unsigned char c : text) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", c);
        hex += digits;
    }
    return hex;
}

void SayAndHang(const char* text) {
    std::puts(text);
    std::fflush(stdout);
    Sleep(INFINITE);
}

int PrintArguments(const Arguments& arguments) {
    for (const std::string& argument : arguments) {
        std::puts(Hex(argument).c_str());
    }
    return 0;
}

int PrintLines(const Arguments&) {
    std::printf("first\nwindows\r\n\n%s\nunfinished", std::string(10000, 'x').c_str());
    return 0;
}

int Exit(const Arguments& arguments) {
    return std::atoi(arguments.at(0).c_str());
}

int HoldMemory(const Arguments& arguments) {
    const std::vector<char> memory(std::stoul(arguments.at(0)), '\1');
    SayAndHang("holding");
    return memory.back();
}

int HoldMutex(const Arguments& arguments) {
    CreateMutexW(nullptr, TRUE, WideFromUtf8(arguments.at(0)).c_str());
    SayAndHang("holding");
    return 0;
}

int RunRole(const std::string& role, const Arguments& arguments) {
    static const std::map<std::string, int (*)(const Arguments&)> kRoles = {{"arguments", PrintArguments},
                                                                            {"lines", PrintLines},
                                                                            {"exit", Exit},
                                                                            {"memory", HoldMemory},
                                                                            {"mutex", HoldMutex}};
    return kRoles.at(role)(arguments);
}

// ---- The tests -----------------------------------------------------------------------------------------------------

void Start(ChildProcess& child, Arguments arguments) {
    arguments.insert(arguments.begin(), "--role");
    ASSERT_TRUE(child.Start(OwnProgramPath(), arguments, ChildProcess::Output::Pipe)) << GetLastError();
}

std::vector<std::string> ReadAll(ChildProcess& child) {
    std::vector<std::string> lines;
    while (auto line = child.ReadLine()) {
        lines.push_back(*line);
    }
    return lines;
}

TEST(ChildProcess, ArgumentsArriveUnchanged) {
    const Arguments nasty = {"",         " ",           "a b",          "tab\there",   "new\nline",
                             "\"",       "\\",          "\\\"",         "a\\\\b",      "a\\\\\"b c\\",
                             "ends \\",  "\\\\ \\\\\"", "'single'",     "\"a\" \"b\"", "$HOME `x` %PATH% *?|&<>^;",
                             "--opt=\"", "caf\u00e9",   "\U0001d11e x", "\u4e2d\u6587"};
    ChildProcess child;
    Arguments arguments = nasty;
    arguments.insert(arguments.begin(), "arguments");
    Start(child, arguments);
    std::vector<std::string> expected;
    for (const std::string& argument : nasty) {
        expected.push_back(Hex(argument));
    }
    EXPECT_EQ(ReadAll(child), expected);
    EXPECT_EQ(child.WaitForExit(), 0U);
}

TEST(ChildProcess, TextsThatAreNoCharactersAreReplaced) {
    for (const char* bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"}) {
        const std::string replaced = Utf8FromWide(WideFromUtf8(std::string("<") + bad + ">"));
        EXPECT_EQ(replaced.substr(0, 4), "<\ufffd") << Hex(bad);
        EXPECT_EQ(replaced.back(), '>') << Hex(bad);
    }
}

TEST(ChildProcess, LinesComeInOrderAndTheLastNeedsNoEnd) {
    ChildProcess child;
    Start(child, {"lines"});
    const std::vector<std::string> expected = {"first", "windows", "", std::string(10000, 'x'), "unfinished"};
    EXPECT_EQ(ReadAll(child), expected);
    EXPECT_TRUE(child.AtEnd());
}

TEST(ChildProcess, TellsTheExitCode) {
    for (const DWORD code : {0U, 3U, 255U}) {
        ChildProcess child;
        Start(child, {"exit", std::to_string(code)});
        EXPECT_EQ(child.WaitForExit(), code);
        EXPECT_EQ(child.WaitForExit(0), code) << "asked again";
    }
}

TEST(ChildProcess, KillEndsAHangingChild) {
    ChildProcess child;
    Start(child, {"memory", "1"});
    EXPECT_EQ(child.ReadLine(), "holding");
    EXPECT_EQ(child.ReadLine(0), std::nullopt);
    EXPECT_FALSE(child.AtEnd()) << "silent, but alive";
    EXPECT_EQ(child.WaitForExit(0), std::nullopt);
    child.Kill();
    EXPECT_EQ(child.WaitForExit(), ChildProcess::kKilledExitCode);
    EXPECT_EQ(child.ReadLine(), std::nullopt);
    EXPECT_TRUE(child.AtEnd());
}

TEST(ChildProcess, DestructorLeavesNoChildBehind) {
    const std::string name = "veyra-child-process-test-" + std::to_string(GetCurrentProcessId());
    HANDLE mutex = nullptr;
    {
        ChildProcess child;
        Start(child, {"mutex", name});
        ASSERT_EQ(child.ReadLine(), "holding");
        mutex = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, WideFromUtf8(name).c_str());
        ASSERT_NE(mutex, nullptr);
        ASSERT_EQ(WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
    }
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
    ReleaseMutex(mutex);
    CloseHandle(mutex);
}

TEST(ChildProcess, OutputEndsWithItsProcessWhateverElseWasStarted) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([] {
            ChildProcess brief;
            ChildProcess hanging; // would keep the other's output open, had it inherited that
            Start(brief, {"exit", "0"});
            Start(hanging, {"memory", "1"});
            EXPECT_EQ(ReadAll(brief), std::vector<std::string>());
            EXPECT_EQ(hanging.WaitForExit(0), std::nullopt);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(ChildProcess, MemoryFollowsWhatTheChildHolds) {
    constexpr std::size_t kHeld = 64U << 20;
    ChildProcess idle;
    ChildProcess holding;
    Start(idle, {"memory", "1"});
    Start(holding, {"memory", std::to_string(kHeld)});
    ASSERT_EQ(idle.ReadLine(), "holding");
    ASSERT_EQ(holding.ReadLine(), "holding");
    EXPECT_GT(idle.MemoryBytes(), 0U);
    EXPECT_GT(holding.MemoryBytes(), idle.MemoryBytes() + kHeld / 2);
}

TEST(ChildProcess, RefusesWhatCannotBeStarted) {
    ChildProcess child;
    EXPECT_FALSE(child.Start(OwnProgramPath() + ".missing", {}));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(child.ProcessId(), 0U);
    EXPECT_EQ(child.WaitForExit(), std::nullopt);
    Start(child, {"exit", "0"});
    EXPECT_FALSE(child.Start(OwnProgramPath(), {})) << "one child at most";
    EXPECT_EQ(child.WaitForExit(), 0U);
}

} // namespace
} // namespace Vantor::Sentrix::Support

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--role") == 0) {
        return Vantor::Sentrix::Support::RunRole(argv[2], {argv + 3, argv + argc});
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
