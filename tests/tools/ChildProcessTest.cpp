// Child processes: this program starts itself in one of the roles below.
#include "tools/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Support {
namespace {

using Arguments = std::vector<std::string>;

int RunRole(const std::string& role, const Arguments& arguments) {
    if (role == "arguments") {
        for (const std::string& argument : arguments) {
            std::puts(argument.c_str());
        }
        return 3;
    }
    if (role == "lines") {
        const std::string bytes = "first\nwindows\r\n\n" + std::string(10000, 'x') + "\nunfinished";
        DWORD written = 0;
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        return written == bytes.size() ? 0 : 1;
    }
    const std::vector<char> memory(std::stoul(arguments.at(0)), '\1');
    std::puts("holding");
    std::fflush(stdout);
    Sleep(INFINITE);
    return memory.back();
}

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
    EXPECT_FALSE(child.Start(OwnProgramPath(), {})) << "one child at most";
}

TEST(ChildProcess, AHangingChildTellsItsMemoryAndIsEndedByKill) {
    constexpr std::size_t kHeld = 64U << 20;
    ChildProcess idle;
    ChildProcess holding;
    Start(idle, {"hold", "1"});
    Start(holding, {"hold", std::to_string(kHeld)});
    ASSERT_EQ(idle.ReadLine(), "holding");
    ASSERT_EQ(holding.ReadLine(), "holding");
    EXPECT_GT(idle.MemoryBytes(), 0U);
    EXPECT_GT(holding.MemoryBytes(), idle.MemoryBytes() + kHeld / 2);
    EXPECT_EQ(idle.ReadLine(0), std::nullopt);
    EXPECT_FALSE(idle.AtEnd()) << "silent, but alive";
    idle.Kill();
    EXPECT_EQ(idle.WaitForExit(), ChildProcess::kKilledExitCode);
    EXPECT_EQ(idle.ReadLine(), std::nullopt);
    EXPECT_TRUE(idle.AtEnd());
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

} // namespace
} // namespace Vantor::Sentrix::Support

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--role") == 0) {
        return Vantor::Sentrix::Support::RunRole(argv[2], {argv + 3, argv + argc});
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
