// Processes, their command lines and streams. Children are this program in another role, named by its first argument.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Vantor::Sentrix {
namespace {

constexpr DWORD kStillActive = 259;

std::wstring OwnPath() {
    wchar_t path[4096];
    const DWORD length = GetModuleFileNameW(nullptr, path, 4096);
    return {path, length};
}

// A child with pipes at its input and output.
class Child {
public:
    explicit Child(const std::wstring& arguments) {
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        CreatePipe(&startup.hStdInput, &m_in, &inheritable, 0);
        CreatePipe(&m_out, &startup.hStdOutput, &inheritable, 0);
        SetHandleInformation(m_in, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(m_out, HANDLE_FLAG_INHERIT, 0);
        std::wstring line = L"\"" + OwnPath() + L"\" " + arguments;
        PROCESS_INFORMATION information{};
        EXPECT_TRUE(CreateProcessW(OwnPath().c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &information))
            << GetLastError();
        CloseHandle(information.hThread);
        CloseHandle(startup.hStdInput);
        CloseHandle(startup.hStdOutput);
        process = information.hProcess;
    }
    ~Child() {
        CloseInput();
        CloseHandle(m_out);
        CloseHandle(process);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    BOOL Write(const std::string& text) {
        DWORD written = 0;
        return WriteFile(m_in, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    }
    void CloseInput() {
        if (m_in != nullptr) {
            CloseHandle(std::exchange(m_in, nullptr));
        }
    }
    std::string ReadAll() {
        std::string all;
        char piece[100];
        DWORD got = 0;
        while (ReadFile(m_out, piece, sizeof piece, &got, nullptr) != FALSE) {
            all.append(piece, got);
        }
        EXPECT_EQ(GetLastError(), ERROR_BROKEN_PIPE);
        return all;
    }
    DWORD ExitCode() {
        EXPECT_EQ(WaitForSingleObject(process, INFINITE), WAIT_OBJECT_0);
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeProcess(process, &code));
        return code;
    }

    HANDLE process = nullptr;

private:
    HANDLE m_in = nullptr;
    HANDLE m_out = nullptr;
};

int RunRole(const std::string& role, int argc, char** argv) {
    if (role == "arguments") {
        for (int i = 2; i < argc; ++i) {
            std::printf("<%s>", argv[i]);
        }
    } else if (role == "copy") {
        for (int c = std::getchar(); c != EOF; c = std::getchar()) {
            std::putchar(c);
        }
    } else if (role == "variable") {
        const char* value = std::getenv(argv[2]);
        std::fputs(value == nullptr ? "unset" : value, stdout);
    } else {
        std::fputs("unflushed", stdout);
        TerminateProcess(GetCurrentProcess(), 43);
    }
    return 3;
}

TEST(ProcessTest, CommandLinesAreTakenApartByTheUsualRules) {
    struct Case {
        const wchar_t* line;
        const char* arguments;
    };
    const Case cases[] = {
        {L"  a\t b  ", "<a><b>"},
        {LR"("a b" c)", "<a b><c>"},
        {LR"(a"b c"d)", "<ab cd>"},
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
}

TEST(ProcessTest, WritingToAChildThatEndedFailsAndDoesNoHarm) {
    Child child(L"arguments");
    EXPECT_EQ(child.ExitCode(), 3U);
    EXPECT_FALSE(child.Write("anybody?"));
    EXPECT_FALSE(TerminateProcess(child.process, 4)) << "it has ended already";
}

TEST(ProcessTest, ARunningChildCanBeWatchedAndEnded) {
    Child child(L"copy");
    EXPECT_EQ(WaitForSingleObject(child.process, 1), WAIT_TIMEOUT);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(child.process, &code));
    EXPECT_EQ(code, kStillActive);
    EXPECT_TRUE(TerminateProcess(child.process, 42));
    EXPECT_EQ(child.ExitCode(), 42U);

    Child itself(L"terminate");
    EXPECT_EQ(itself.ReadAll(), "") << "no buffer was flushed";
    EXPECT_EQ(itself.ExitCode(), 43U);
}

TEST(ProcessTest, TheEnvironmentIsInherited) {
    EXPECT_TRUE(SetEnvironmentVariableW(L"VEYRA_PROCESS_TEST", L"set here"));
    EXPECT_EQ(Child(L"variable VEYRA_PROCESS_TEST").ReadAll(), "set here");
    EXPECT_TRUE(SetEnvironmentVariableW(L"VEYRA_PROCESS_TEST", nullptr));
    EXPECT_EQ(Child(L"variable VEYRA_PROCESS_TEST").ReadAll(), "unset");
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    if (argc > 1 && argv[1][0] != '-') {
        return RunRole(argv[1], argc, argv);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
