// Child processes: this program starts itself in one of the roles below.
#include "tools/support/ChildProcess.h"

#include "tools/support/Utf8.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Support {
namespace {

using Arguments = std::vector<std::string>;

// ---- The child -----------------------------------------------------------------------------------------------------

int PrintArguments(const Arguments& arguments) {
    for (const std::string& argument : arguments) {
        std::puts(argument.c_str());
    }
    return 3;
}

int PrintLines(const Arguments&) {
    std::printf("first\nwindows\r\n\n%s\nunfinished", std::string(10000, 'x').c_str());
    return 0;
}

// The size of a block of memory, the name of a mutex.
int Hold(const Arguments& arguments) {
    const std::vector<char> memory(std::stoul(arguments.at(0)), '\1');
    if (arguments.size() > 1) {
        WaitForSingleObject(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, WideFromUtf8(arguments[1]).c_str()), INFINITE);
    }
    std::puts("holding");
    std::fflush(stdout);
    Sleep(INFINITE);
    return memory.back();
}

int RunRole(const std::string& role, const Arguments& arguments) {
    static const std::map<std::string, int (*)(const Arguments&)> kRoles = {
        {"arguments", PrintArguments}, {"lines", PrintLines}, {"hold", Hold}};
    return kRoles.at(role)(arguments);
}

// ---- The tests -----------------------------------------------------------------------------------------------------

void Start(ChildProcess& child, Arguments arguments) {
    arguments.insert(arguments.begin(), "--role");
    ASSERT_TRUE(child.Start(OwnProgramPath(), arguments, ChildProcess::Output::Pipe)) << GetLastError();
}

std::string ReadAll(ChildProcess& child) {
    std::string text;
    while (auto line = child.ReadLine()) {
        text += *line + '\n';
    }
    return text;
}

TEST(ChildProcess, ArgumentsArriveUnchanged) {
    const Arguments nasty = {"",         " ",           "a b",          "tab\there",   "new\nline",
                             "\"",       "\\",          "\\\"",         "a\\\\b",      "a\\\\\"b c\\",
                             "ends \\",  "\\\\ \\\\\"", "'single'",     "\"a\" \"b\"", "$HOME `x` %PATH% *?|&<>^;",
                             "--opt=\"", "caf\u00e9",   "\U0001d11e x", "\u4e2d\u6587"};
    Arguments arguments = {"arguments"};
    std::string expected;
    for (const std::string& argument : nasty) {
        arguments.push_back(argument);
        expected += argument + '\n';
    }
    ChildProcess child;
    Start(child, arguments);
    EXPECT_EQ(ReadAll(child), expected);
    EXPECT_EQ(child.WaitForExit(), 3U);
    EXPECT_EQ(child.WaitForExit(0), 3U) << "asked again";
    EXPECT_FALSE(child.Start(OwnProgramPath(), {})) << "one child at most";
}

TEST(ChildProcess, TextsThatAreNoCharactersAreReplaced) {
    for (const char* bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"}) {
        const std::string replaced = Utf8FromWide(WideFromUtf8(std::string("<") + bad + ">"));
        EXPECT_EQ(replaced.substr(0, 4), "<\ufffd");
        EXPECT_EQ(replaced.back(), '>');
    }
}

TEST(ChildProcess, AHangingChildIsEndedByKillAndByTheDestructor) {
    const std::string name = "veyra-child-process-test-" + std::to_string(GetCurrentProcessId());
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, WideFromUtf8(name).c_str());
    {
        ChildProcess killed;
        ChildProcess forgotten;
        Start(killed, {"hold", "1"});
        Start(forgotten, {"hold", "1", name});
        ASSERT_EQ(forgotten.ReadLine(), "holding");
        ASSERT_EQ(killed.ReadLine(), "holding");
        EXPECT_EQ(killed.ReadLine(0), std::nullopt);
        EXPECT_FALSE(killed.AtEnd()) << "silent, but alive";
        killed.Kill();
        EXPECT_EQ(killed.WaitForExit(), ChildProcess::kKilledExitCode);
        EXPECT_EQ(killed.ReadLine(), std::nullopt);
        EXPECT_TRUE(killed.AtEnd());
    }
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
    ReleaseMutex(mutex);
    CloseHandle(mutex);
}

TEST(ChildProcess, LinesEndWithTheirProcessWhateverElseWasStarted) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([] {
            ChildProcess brief;
            ChildProcess hanging; // would keep the other's output open, had it inherited that
            Start(brief, {"lines"});
            Start(hanging, {"hold", "1"});
            EXPECT_EQ(ReadAll(brief), "first\nwindows\n\n" + std::string(10000, 'x') + "\nunfinished\n");
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
    Start(idle, {"hold", "1"});
    Start(holding, {"hold", std::to_string(kHeld)});
    ASSERT_EQ(idle.ReadLine(), "holding");
    ASSERT_EQ(holding.ReadLine(), "holding");
    EXPECT_GT(idle.MemoryBytes(), 0U);
    EXPECT_GT(holding.MemoryBytes(), idle.MemoryBytes() + kHeld / 2);
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
