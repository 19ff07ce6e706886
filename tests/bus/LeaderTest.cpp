// Callbacks that run on the thread that has read their messages: what they do there must hurt nobody.
#include "tests/support/BusProgram.h"

#include <memory>
#include <set>
#include <string>

namespace Vantor::Sentrix {
namespace {

constexpr int kShort = 40;
constexpr int kSpecial = 41;
constexpr int kAfter = 42;

class LeaderTest : public testing::Test {
protected:
    LeaderTest() : m_client(std::make_unique<IPCMessageClient>(kMe, false, true)) {
        m_client->RegisterMessageCallback(kShort, [this](TagIPCMessageItem&) { m_short.Add(); });
        m_client->RegisterMessageCallback(kAfter, [this](TagIPCMessageItem& item) { m_after.Put(BodyOf(item)); });
    }

    // By way of the server.
    void Post(int msgId, std::string_view body = {}) const {
        EXPECT_TRUE(m_sender.PostIPCMessage(Item(kMe, msgId, body)));
    }

    // Short callbacks one after another, until they run where they are read, if they ever do.
    void WarmUp() {
        for (int i = 0; i < 200; ++i) {
            Post(kShort);
            ASSERT_TRUE(m_short.Await(++m_shortPosted));
        }
    }

    Bus m_bus;
    int m_shortPosted = 0;
    Tally m_short;
    Mailbox<std::string> m_after;
    std::unique_ptr<IPCMessageClient> m_client;
    IPCMessageClient m_sender{kOther, false, false};
};

TEST_F(LeaderTest, ACallbackMayWaitForThoseAfterIt) {
    constexpr int kMany = 64;
    Tally inside;
    m_client->RegisterMessageCallback(kSpecial, [&](TagIPCMessageItem& item) {
        inside.Add();
        EXPECT_TRUE(inside.Await(std::stoi(BodyOf(item)))) << "all of a round at the same time, not " << inside.Value();
    });
    for (int round = 1; round <= 3; ++round) {
        WarmUp();
        for (int i = 0; i < kMany; ++i) {
            Post(kSpecial, std::to_string(round * kMany));
        }
        EXPECT_TRUE(inside.Await(round * kMany));
    }
    m_client.reset(); // waits for those that have not returned yet
}

TEST_F(LeaderTest, ACallbackMayAskAndDestroyItsClient) {
    m_client->RegisterMessageCallback(kSpecial, [&](TagIPCMessageItem& item) {
        EXPECT_EQ(Ask(m_sender, kEchoModule, "asked inside"), "asked inside");
        if (BodyOf(item) == "last") {
            m_client.reset();
        }
        m_after.Put(BodyOf(item));
    });
    for (const std::string body : {"first", "second", "last"}) {
        WarmUp();
        Post(kSpecial, body);
        EXPECT_EQ(m_after.Take(), body) << "readable, also when the client is gone";
    }
}

// To ask is to give the connection up: the I/O thread takes it back, however fast the leader steps down.
TEST_F(LeaderTest, EveryCallbackComesWhenSomeAsk) {
    constexpr int kRows = 500;
    Tally asked;
    m_client->RegisterMessageCallback(kSpecial, [&](TagIPCMessageItem&) {
        EXPECT_FALSE(Ask(m_sender, kEchoModule, "?", 0, kHold, 0));
        asked.Add();
    });
    for (int row = 1; row <= kRows; ++row) {
        for (int i = 0; i < 20; ++i) {
            Post(kShort);
        }
        Post(kSpecial);
        m_shortPosted += 20;
        ASSERT_TRUE(m_short.Await(m_shortPosted) && asked.Await(row)) << "deaf after " << row << " rows";
    }
    m_client.reset();
}

// Also what is held back until a batch ends, when one of its callbacks is in no hurry.
TEST_F(LeaderTest, WhatCallbacksSendIsNotLost) {
    constexpr int kMany = 200;
    Tally begun;
    m_client->RegisterMessageCallback(kSpecial, [&](TagIPCMessageItem& item) {
        begun.Add();
        EXPECT_TRUE(m_sender.PostIPCMessage(Item(kMe, kAfter, BodyOf(item))));
        EXPECT_TRUE(BodyOf(item) != "100" || begun.Await(kMany));
    });
    WarmUp();
    std::set<std::string> expected;
    for (int i = 0; i < kMany; ++i) {
        expected.insert(std::to_string(i));
        Post(kSpecial, std::to_string(i));
    }
    std::set<std::string> came;
    for (int i = 0; i < kMany; ++i) {
        came.insert(m_after.Take().value_or("nothing came"));
    }
    EXPECT_EQ(came, expected);
    m_client.reset();
}

TEST_F(LeaderTest, WhatACallbackSendsLeavesWhileItGoesOn) {
    Tally came;
    m_client->RegisterMessageCallback(kAfter, [&](TagIPCMessageItem&) { came.Add(); });
    m_client->RegisterMessageCallback(kSpecial, [&](TagIPCMessageItem& item) {
        EXPECT_TRUE(m_sender.PostIPCMessage(Item(kMe, kAfter)));
        EXPECT_TRUE(came.Await(std::stoi(BodyOf(item)))) << "as if it would send more";
    });
    for (int round = 1; round <= 5; ++round) {
        WarmUp();
        Post(kSpecial, std::to_string(round));
        for (int i = 0; i < 64; ++i) {
            Post(kShort);
        }
        m_shortPosted += 64;
        EXPECT_TRUE(m_short.Await(m_shortPosted));
        EXPECT_TRUE(came.Await(round));
    }
    m_client.reset();
}

} // namespace
} // namespace Vantor::Sentrix
