#include "tests/support/BusProgram.h"

#include "veyrasvc/platform/Win32.h"

#include <cstdio>
#include <cstdlib>
#include <map>

namespace Vantor::Sentrix {

namespace {

constexpr int kReplyMsgId = 100;
constexpr DWORD kLongestLifeMs = 150'000; // of a helper whose parent died without killing it
constexpr auto kLimitMs = static_cast<DWORD>(std::chrono::milliseconds(kAwaitLimit).count());

int Host(int /*argument*/) {
    IPCMessageServer server;
    server.Start();
    SayReady();
    return SleepUntilKilled();
}

int EchoModule(int /*argument*/) {
    IPCMessageClient client(kEchoModule, false, false);
    const auto answer = [&client](TagIPCMessageItem& item) {
        item.toModuleId = item.fromModuleId;
        item.encrypt = item.msgId == kEchoEncrypted;
        item.msgId = item.replyMsgId == -1 ? item.msgId : item.replyMsgId;
        client.PostIPCMessage(item);
    };
    client.RegisterMessageCallback(kEcho, answer);
    client.RegisterMessageCallback(kEchoEncrypted, answer);
    client.RegisterMessageCallback(
        kHold, [&client](TagIPCMessageItem& item) { client.PostIPCMessage(Item(item.fromModuleId, kHeld)); });
    SayReady();
    return SleepUntilKilled();
}

std::map<std::string, RoleFunction>& Roles() {
    static std::map<std::string, RoleFunction> roles = {{"host", &Host}, {"echo", &EchoModule}};
    return roles;
}

int RunProgram(int argc, char** argv) {
    SetEnvironmentVariableW(L"VEYRA_LOG_LEVEL", L"OFF"); // lines are looked at through LogCapture
    if (argc == 3 && argv[1][0] != '-') {
        return Roles().at(argv[1])(std::atoi(argv[2]));
    }
    UsePrivateBus();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

} // namespace

void UsePrivateBus() {
    const std::wstring name = L"test-" + std::to_wstring(GetCurrentProcessId());
    SetEnvironmentVariableW(L"VEYRASVC_PIPE_NAMESPACE", name.c_str());
}

RoleDefinition::RoleDefinition(const char* name, RoleFunction function) {
    Roles()[name] = function;
}

void SayReady() {
    std::puts("ready");
    std::fflush(stdout);
}

int SleepUntilKilled() {
    Sleep(kLongestLifeMs);
    return 1;
}

Role::Role(const std::string& name, int argument) {
    EXPECT_TRUE(m_process.Start(Support::OwnProgramPath(), {name, std::to_string(argument)},
                                Support::ChildProcess::Output::Pipe));
    EXPECT_EQ(m_process.ReadLine(kLimitMs), "ready");
}

int Role::AwaitExit() {
    const auto code = m_process.WaitForExit(kLimitMs);
    EXPECT_TRUE(code.has_value()) << "the process hangs";
    return code ? static_cast<int>(*code) : -1;
}

TagIPCMessageItem Item(int to, int msgId, std::string_view body, int replyMsgId, int uniqMsgId) {
    TagIPCMessageItem item;
    item.toModuleId = to;
    item.msgId = msgId;
    item.replyMsgId = replyMsgId;
    item.uniqMsgId = uniqMsgId;
    item.dataLen = static_cast<int>(body.size());
    item.data = const_cast<char*>(body.data());
    return item;
}

std::string BodyOf(const TagIPCMessageItem& item) {
    return {item.data, static_cast<std::size_t>(item.dataLen)};
}

std::string Pattern(std::size_t length, std::uint32_t number) {
    std::string bytes(length, '\0');
    std::uint32_t state = number * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

std::optional<std::string> Ask(const IPCMessageClient& client, int to, std::string_view body, int uniqMsgId, int msgId,
                               unsigned int timeoutMs) {
    TagIPCMessageItem request = Item(to, msgId, body, kReplyMsgId, uniqMsgId);
    request.encrypt = msgId == kEchoEncrypted;
    TagIPCMessageItemRecv answer;
    return client.SendIPCMessage(request, kReplyMsgId, answer, timeoutMs) ? std::optional(answer.data) : std::nullopt;
}

bool AskUntilAnswered(const IPCMessageClient& client) {
    const auto end = std::chrono::steady_clock::now() + kAwaitLimit;
    for (int id = -1; std::chrono::steady_clock::now() < end; --id) {
        if (Ask(client, kEchoModule, "?", id, kEcho, kSoonMs)) {
            return true;
        }
    }
    return false;
}

} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    return Vantor::Sentrix::RunProgram(argc, argv);
}
