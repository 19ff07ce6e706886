// Completion ports: what comes out of them, from pipes and from posts, on one thread and on several.
#include "tests/platform/Pipes.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <vector>

namespace Vantor::Sentrix {
namespace {

constexpr DWORD kLarge = 4 << 20; // more than any system keeps for a reader that does not read

TEST(CompletionPortTest, EveryPostReachesOneOfItsWaitersInOrder) {
    constexpr DWORD kPosters = 4;
    constexpr DWORD kPosts = 3000;
    for (const std::size_t waiters : {1, 3}) {
        const Owned port = NewPort();
        for (const DWORD limit : {0, 5}) {
            const Completion none = Next(port, limit);
            EXPECT_TRUE(!none.succeeded && none.error == WAIT_TIMEOUT && none.overlapped == nullptr);
        }
        std::vector<std::atomic<int>> seen(kPosters * kPosts);
        std::deque<Thread> waiting;
        for (std::size_t i = 0; i < waiters; ++i) {
            waiting.emplace_back([&] {
                DWORD expected[kPosters]{};
                for (Completion got = Next(port); got.succeeded && got.overlapped == nullptr; got = Next(port)) {
                    EXPECT_GE(got.bytes, std::exchange(expected[got.key], got.bytes + 1)) << "out of order";
                    ++seen[got.key * kPosts + got.bytes];
                }
            });
        }
        {
            std::deque<Thread> posting;
            for (DWORD poster = 0; poster < kPosters; ++poster) {
                posting.emplace_back([&port, poster] {
                    for (DWORD i = 0; i < kPosts; ++i) {
                        EXPECT_TRUE(PostQueuedCompletionStatus(port, i, poster, nullptr));
                    }
                });
            }
        }
        OVERLAPPED end{};
        for (std::size_t i = 0; i < waiters; ++i) {
            PostQueuedCompletionStatus(port, 0, 0, &end);
        }
        waiting.clear();
        EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& times) { return times == 1; }));
    }
}

TEST(CompletionPortTest, WhatIsOutstandingFailsOnceWithItsKeyAndOverlapped) {
    struct Case {
        const char* what;
        std::function<void(Connection&)> end;
        DWORD error; // 0: any
    };
    const Case cases[] = {
        {"the peer closes", [](Connection& one) { one.client.Close(); }, ERROR_BROKEN_PIPE},
        {"disconnected and closed",
         [](Connection& one) {
             DisconnectNamedPipe(one.server);
             one.server.Close();
         },
         ERROR_PIPE_NOT_CONNECTED},
        {"closed", [](Connection& one) { one.server.Close(); }, 0},
    };
    const Owned port = NewPort();
    const std::vector<char> data(kLarge);
    for (int round = 0; round < 120; ++round) {
        const Case& one = cases[round % 3];
        Connection connection{port, 77};
        OVERLAPPED pending[3]{};
        char byte = 0;
        EXPECT_FALSE(ReadFile(connection.server, &byte, 1, nullptr, &pending[0]));
        EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
        EXPECT_FALSE(WriteFile(connection.server, data.data(), kLarge, nullptr, &pending[1]));
        EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
        Owned accepting = NewInstance(UniquePipeName(), port, pending[2], 77);
        Thread ending([&] { // while this thread asks the port
            one.end(connection);
            accepting.Close();
        });
        bool given[3]{};
        for (int i = 0; i < 3; ++i) {
            const Completion failed = Next(port);
            const auto* const which = std::find_if(std::begin(pending), std::end(pending),
                                                   [&](const auto& each) { return &each == failed.overlapped; });
            ASSERT_NE(which, std::end(pending)) << one.what;
            EXPECT_FALSE(std::exchange(given[which - pending], true)) << one.what;
            EXPECT_TRUE(!failed.succeeded && failed.bytes == 0 && failed.key == 77) << one.what;
            EXPECT_TRUE(failed.error == one.error || one.error == 0 || which == &pending[2]) << failed.error;
            DWORD bytes = 1;
            EXPECT_FALSE(GetOverlappedResult(nullptr, failed.overlapped, &bytes, FALSE));
            EXPECT_EQ(GetLastError(), failed.error);
            EXPECT_EQ(bytes, 0U);
        }
        ending.Join();
        EXPECT_EQ(Next(port, 0).error, WAIT_TIMEOUT) << one.what << ": something came twice";
    }
}

TEST(CompletionPortTest, WhatIsThereIsReadBeforeTheEndAndQueuedLikeAllElse) {
    const Owned port = NewPort();
    Connection connection{port};
    EXPECT_EQ(CreateIoCompletionPort(connection.server, port, 1, 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER) << "it has its port";
    EventIo writing;
    ASSERT_TRUE(Begun(writing.Write(connection.client, "abcdefgh", 8)));
    char buffer[3];
    for (const std::string expected : {"abc", "def", "gh", ""}) {
        OVERLAPPED read{};
        Completion done;
        if (Begun(ReadFile(connection.server, buffer, 3, nullptr, &read))) { // TRUE for what was there already
            done = Next(port);
            EXPECT_EQ(done.overlapped, &read);
        } else {
            done.error = GetLastError();
        }
        EXPECT_EQ(std::string(buffer, done.bytes), expected);
        EXPECT_EQ(done.error, expected.empty() ? ERROR_BROKEN_PIPE : NO_ERROR);
        connection.client.Close();
    }
    EXPECT_EQ(Next(port, 0).error, WAIT_TIMEOUT);
}

TEST(CompletionPortTest, AcceptsManyClientsThatComeAtOnce) {
    constexpr ULONG_PTR kClients = 40;
    const std::wstring name = UniquePipeName();
    const Owned port = NewPort();
    std::vector<Owned> instances;
    std::vector<OVERLAPPED> accepts(kClients);
    std::deque<Thread> clients;
    for (ULONG_PTR key = 0; key < kClients; ++key) {
        instances.push_back(NewInstance(name, port, accepts[key], key));
        clients.emplace_back([&name] {
            EventIo io;
            char byte = 0;
            Owned client = OpenClient(name);
            while (client == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PIPE_BUSY) {
                ASSERT_TRUE(WaitNamedPipeW(name.c_str(), kPatienceMs)) << GetLastError();
                client = OpenClient(name);
            }
            const bool begun = Begun(io.Read(client, &byte, 1)); // not where the server has closed it already
            EXPECT_EQ(begun ? io.Await() : GetLastError(), ERROR_BROKEN_PIPE);
        });
    }
    for (ULONG_PTR i = 0; i < kClients; ++i) {
        const Completion accepted = Next(port);
        ASSERT_TRUE(accepted.succeeded && accepted.key < kClients) << accepted.error;
        EXPECT_EQ(accepted.overlapped, &accepts[accepted.key]);
        instances[accepted.key].Close();
    }
}

} // namespace
} // namespace Vantor::Sentrix
