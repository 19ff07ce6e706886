// A client process that is short of memory or threads: what fails is false, and what was not touched goes on.
#include "tests/support/BusProgram.h"
#include "tests/support/Starvation.h"

#include <cstdlib>

namespace Vantor::Sentrix {
namespace {

constexpr int kMost = 2000; // allocations that one road may need
enum Outcome { kSurvived = 0, kFailed = 1, kNothingFailed = 2 };

// Uses whatever a client can do. No allocation of its own.
void UseClient(std::string_view body, std::string_view longBody) {
    IPCMessageClient client(kMe, false, false);
    IPCMessageClient twin(kMe, false, true);
    for (IPCMessageClient* each : {&client, &twin}) {
        each->RegisterMessageCallback(kEcho, [](TagIPCMessageItem&) {});
        each->RegisterPublishMessageCallback([](TagIPCMessageItem&) {});
        each->SubscribeIPCMessage(kMe, 0);
    }
    for (const std::string_view each : {body, longBody}) {
        for (const int msgId : {kEcho, kEchoEncrypted}) {
            TagIPCMessageItem request = Item(kEchoModule, msgId, each, kEcho, 1);
            request.encrypt = msgId == kEchoEncrypted;
            TagIPCMessageItemRecv record;
            client.SendIPCMessage(request, kEcho, record, kSoonMs);
            TagIPCMessageItem answer;
            client.SendIPCMessage(request, answer, 0);
            ::operator delete(answer.data);
        }
        TagIPCMessageItem item = Item(kMe, kEcho, each);
        client.PostIPCMessage(item);
        client.PublishIPCMessage(item);
        client.QueryModuleStatus(kEchoModule);
    }
}

// Role: the allocation of that number fails, in a process that has not used the bus before.
int Starve(int number) {
    const std::string body = Pattern(100);
    const std::string longBody = Pattern(300'000);
    SayReady();
    bool struck = false;
    {
        const Starvation starvation(Starvation::Threads::Every, static_cast<std::size_t>(number));
        UseClient(body, longBody);
        struck = starvation.HasStruck();
    }
    if (!AskUntilAnswered(IPCMessageClient(kOther, false, false))) {
        return kFailed;
    }
    return struck ? kSurvived : kNothingFailed;
}

// Role: without any memory clients are destroyed, the engine stops and the process exits, with traffic under way.
int LeaveWithNothing(int /*argument*/) {
    SayReady();
    auto* const client = new IPCMessageClient(kMe, false, true);
    Tally received;
    client->RegisterMessageCallback(kEcho, [&](TagIPCMessageItem&) { received.Add(); });
    for (int i = 0; i < 1000; ++i) {
        client->PostIPCMessage(Item(kMe, kEcho, "on its way"));
    }
    std::thread asking([&] { Ask(*client, kEchoModule, "?", 0, kHold); });
    received.Await(1);
    static const Starvation starvation(Starvation::Threads::Every, 1, Starvation::kAllThatFollow);
    StopIPCClient();
    asking.join();
    delete client;
    std::exit(0);
}

// Role: no thread can be had, neither for the connection nor for callbacks. When there are some again it goes on.
int GoWithoutThreads(int /*argument*/) {
    SayReady();
    bool isRight = true;
    {
        const ThreadShortage shortage;
        IPCMessageClient client(kMe, false, false);
        client.RegisterMessageCallback(kEcho, [](TagIPCMessageItem&) {});
        isRight = !client.PostIPCMessage(Item(kEchoModule, kHold)) && !Ask(client, kEchoModule) &&
                  !client.PostIPCMessage(Item(kMe, kEcho));
    }
    return isRight && AskUntilAnswered(IPCMessageClient(kOther, false, false)) ? kSurvived : kFailed;
}

const RoleDefinition starveRole("starve", &Starve);
const RoleDefinition leaveRole("leave", &LeaveWithNothing);
const RoleDefinition threadsRole("threads", &GoWithoutThreads);

TEST(ClientMemoryTest, AnyAllocationMayFail) {
    const Bus bus;
    int outcome = kSurvived;
    int number = 1;
    for (; number < kMost && outcome == kSurvived; ++number) {
        outcome = Role("starve", number).AwaitExit();
    }
    EXPECT_EQ(outcome, kNothingFailed) << "at allocation " << number - 1;
    EXPECT_GT(number, 50) << "of a whole process";
}

TEST(ClientMemoryTest, AProcessLeavesWithoutMemory) {
    const Bus bus;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Role("leave").AwaitExit(), 0);
    }
}

TEST(ClientMemoryTest, AProcessWithoutThreadsGoesOnWhenThereAreSome) {
    if (!ThreadShortage::IsSupported()) {
        GTEST_SKIP() << "thread starts cannot be intercepted here";
    }
    const Bus bus;
    EXPECT_EQ(Role("threads").AwaitExit(), kSurvived);
}

} // namespace
} // namespace Vantor::Sentrix
