// A test program of the bus: it has a bus of its own, and its helper processes are itself in another role.
#pragma once

#include "tests/support/Await.h"
#include "tests/support/RawPeer.h"
#include "tools/support/ChildProcess.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Vantor::Sentrix {

using RoleFunction = int (*)(int argument);

// The programs' common `main` plays the role that is named on the command line, else it runs the tests. Every program
// knows "host" (serves the bus) and "echo" (the module below); a static object of this type
// adds a role.
struct RoleDefinition {
    RoleDefinition(const char* name, RoleFunction function);
};

// From now on this process and its children use a bus that nobody else knows.
void UsePrivateBus();

// For roles: tells the parent that all is set up. Then, for those that are to be killed: sleeps, but not for ever.
void SayReady();
int SleepUntilKilled();

// A helper process, ready when the constructor returns; killed by the destructor.
class Role {
public:
    explicit Role(const std::string& name, int argument = 0);
    void Kill() { m_process.Kill(); }
    // 0: it said that all was well.
    int AwaitExit();

private:
    Support::ChildProcess m_process;
};

// The modules that the tests use.
inline constexpr int kMe = 0x60000;
inline constexpr int kOther = 0x60001;
inline constexpr int kEchoModule = 0x50000;

// Messages that the echo module understands. It answers with the request's reply id, or its own id without one.
enum EchoMessage : int {
    kEcho = 1,          // the body comes back
    kEchoEncrypted = 2, // the body comes back encrypted
    kHold = 3,          // no answer, but the sender gets a kHeld
    kHeld = 4,
};

inline constexpr unsigned int kNoLimit = 0xFFFFFFFF;
inline constexpr unsigned int kSoonMs = 200; // for asks that may be lost and are repeated

// `body` must outlive the item.
TagIPCMessageItem Item(int to, int msgId, std::string_view body = {}, int replyMsgId = -1, int uniqMsgId = 0);
std::string BodyOf(const TagIPCMessageItem& item);
// A body that differs for every number.
std::string Pattern(std::size_t length, std::uint32_t number = 0);

// The body of the answer; nothing when there was none.
std::optional<std::string> Ask(const IPCMessageClient& client, int to, std::string_view body = "?", int uniqMsgId = 0,
                               int msgId = kEcho, unsigned int timeoutMs = kNoLimit);
// Asks until the echo module is there to answer. While a host comes back, asks may be lost.
bool AskUntilAnswered(const IPCMessageClient& client);

// A host and an echo module that is reached through it.
struct Bus {
    Bus() { EXPECT_TRUE(AskUntilAnswered(IPCMessageClient(kMe, false, false))); }
    Role host{"host"};
    Role echo{"echo"};
};

} // namespace Vantor::Sentrix
