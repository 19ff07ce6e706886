// Processes, their command lines and streams. Children are this program in another role, named by its first argument.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix {
namespace {

constexpr DWORD kStillActive = 259;

std::wstring OwnPath() {
    wchar_t path[4096];
    const DWORD length = GetModuleFileNameW(nullptr, path, 4096);
    return {path, length};
}

struct Stream {
    HANDLE ours = nullptr;
    HANDLE childs = nullptr;
};

// A child with pipes at its input and output.
class Child {
public:
    explicit Child(const std::wstring& arguments) {
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        CreatePipe(&m_in.childs, &m_in.ours, &inheritable, 0);
        CreatePipe(&m_out.ours, &m_out.childs, &inheritable, 0);
        SetHandleInformation(m_in.ours, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(m_out.ours, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = m_in.childs;
        startup.hStdOutput = m_out.childs;
        startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        std::wstring line = L"\"" + OwnPath() + L"\" " + arguments;
        PROCESS_INFORMATION information{};
        EXPECT_TRUE(CreateProcessW(OwnPath().c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &information))
            << GetLastError();
        CloseHandle(information.hThread);
        CloseHandle(m_in.childs);
        CloseHandle(m_out.childs);
        process = information.hProcess;
    }
    ~Child() {
        CloseInput();
        CloseHandle(m_out.ours);
        CloseHandle(process);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    BOOL Write(const std::string& text) {
        DWORD written = 0;
        return WriteFile(m_in.ours, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    }
    void CloseInput() {
        if (m_in.ours != nullptr) {
            CloseHandle(m_in.ours);
            m_in.ours = nullptr;
        }
    }
    std::string ReadAll() {
        std::string all;
        char piece[100];
        DWORD got = 0;
        while (ReadFile(m_out.ours, piece, sizeof piece, &got, nullptr) != FALSE) {
            all.append(piece, got);
        }
        EXPECT_EQ(GetLastError(), ERROR_BROKEN_PIPE);
        return all;
    }
    DWORD ExitCode() {
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeProcess(process, &code));
        return code;
    }

    HANDLE process = nullptr;

private:
    Stream m_in;
    Stream m_out;
};

int PrintArguments(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        std::printf("<%s>", argv[i]);
    }
    return 0;
}

int Copy() {
    for (int c = std::getchar(); c != EOF; c = std::getchar()) {
        std::putchar(c);
    }
    return 0;
}

int PrintVariable(const char* name) {
    const char* value = std::getenv(name);
    std::fputs(value == nullptr ? "unset" : value, stdout);
    return 0;
}

TEST(ProcessTest, CommandLinesAreTakenApartByTheUsualRules) {
    struct Case {
        const wchar_t* line;
        const char* arguments;
    };
    const Case cases[] = {
        {L"", ""},
        {L"  a\t b  ", "<a><b>"},
        {LR"("a b" c)", "<a b><c>"},
        {LR"("" x)", "<><x>"},
        {LR"(a"b c"d)", "<ab cd>"},
        {LR"(a\b\\c \)", R"(<a\b\\c><\>)"},
        {LR"(a\"b "c\\" d)", R"(<a"b><c\><d>)"},
        {LR"("c\\\" d")", R"(<c\" d>)"},
        {LR"(a\\\\"b c" d)", R"(<a\\b c><d>)"},
        {LR"("unfinished here)", "<unfinished here>"},
    };
    for (const Case& one : cases) {
        Child child(L"arguments " + std::wstring(one.line));
        EXPECT_EQ(child.ReadAll(), one.arguments) << testing::PrintToString(std::wstring(one.line));
    }
}

TEST(ProcessTest, AChildHasTheStreamsItWasGiven) {
    Child child(L"copy");
    const std::string text(500'000, 'x'); // more than the pipes hold: both sides have to move
    std::thread writer([&] {
        EXPECT_TRUE(child.Write("first "));
        EXPECT_TRUE(child.Write(text));
        child.CloseInput();
    });
    EXPECT_EQ(child.ReadAll(), "first " + text);
    writer.join();
    EXPECT_EQ(WaitForSingleObject(child.process, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(child.ExitCode(), 0U);
}

TEST(ProcessTest, WritingToAChildThatEndedFailsAndDoesNoHarm) {
    Child child(L"exit 3");
    EXPECT_EQ(WaitForSingleObject(child.process, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(child.ExitCode(), 3U);
    EXPECT_FALSE(child.Write("anybody?"));
    EXPECT_FALSE(TerminateProcess(child.process, 4)) << "it has ended already";
    EXPECT_EQ(WaitForSingleObject(child.process, 0), WAIT_OBJECT_0) << "and stays so";
}

TEST(ProcessTest, ARunningChildCanBeWatchedAndEnded) {
    Child child(L"copy");
    EXPECT_EQ(WaitForSingleObject(child.process, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(child.process, 1), WAIT_TIMEOUT);
    EXPECT_EQ(child.ExitCode(), kStillActive);
    PROCESS_MEMORY_COUNTERS counters{};
    EXPECT_TRUE(K32GetProcessMemoryInfo(child.process, &counters, sizeof counters));
    EXPECT_GT(counters.WorkingSetSize, 0U);
    EXPECT_TRUE(TerminateProcess(child.process, 42));
    EXPECT_EQ(WaitForSingleObject(child.process, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(child.ExitCode(), 42U);

    Child itself(L"terminate 43");
    EXPECT_EQ(itself.ReadAll(), "") << "no buffer was flushed";
    WaitForSingleObject(itself.process, INFINITE);
    EXPECT_EQ(itself.ExitCode(), 43U);
}

TEST(ProcessTest, MemoryCountersFollowTheProcess) {
    PROCESS_MEMORY_COUNTERS before{};
    PROCESS_MEMORY_COUNTERS after{};
    ASSERT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof before));
    EXPECT_EQ(before.cb, sizeof before);
    constexpr std::size_t kMore = 64U << 20;
    const std::vector<char> memory(kMore, '\1');
    ASSERT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after));
    EXPECT_GT(after.WorkingSetSize, before.WorkingSetSize + kMore / 2);
    EXPECT_GT(after.PagefileUsage, before.PagefileUsage + kMore / 2);
    EXPECT_GE(after.PeakWorkingSetSize, after.WorkingSetSize);
    EXPECT_GT(after.PageFaultCount, before.PageFaultCount);
    EXPECT_FALSE(K32GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after - 1));
    EXPECT_EQ(memory.back(), '\1');
}

TEST(ProcessTest, TheEnvironmentIsInherited) {
    EXPECT_TRUE(SetEnvironmentVariableW(L"VEYRA_PROCESS_TEST", L"set here"));
    EXPECT_EQ(Child(L"variable VEYRA_PROCESS_TEST").ReadAll(), "set here");
    EXPECT_TRUE(SetEnvironmentVariableW(L"VEYRA_PROCESS_TEST", nullptr));
    EXPECT_EQ(Child(L"variable VEYRA_PROCESS_TEST").ReadAll(), "unset");
}

TEST(ProcessTest, WhatCannotBeStartedSaysWhy) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    const std::wstring missing = OwnPath() + L".missing";
    EXPECT_FALSE(
        CreateProcessW(missing.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    wchar_t small[4];
    EXPECT_EQ(GetModuleFileNameW(nullptr, small, 4), 4U);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "arguments") {
        return PrintArguments(argc, argv);
    }
    if (role == "copy") {
        return Copy();
    }
    if (role == "variable") {
        return PrintVariable(argv[2]);
    }
    if (role == "exit") {
        return std::atoi(argv[2]);
    }
    if (role == "terminate") {
        std::fputs("unflushed", stdout);
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(std::atoi(argv[2])));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
