// Named pipes: names and instances, and the event-driven end of a client.
#include "tests/platform/Pipes.h"

#include <algorithm>
#include <cwctype>
#include <deque>
#include <vector>

namespace Vantor::Sentrix {
namespace {

constexpr DWORD kErrorNoData = 232; // what Windows may say of a write to an end that is going away

void ExpectRefused(const std::wstring& name, DWORD openError, DWORD waitError) {
    EXPECT_EQ(OpenClient(name), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), openError);
    EXPECT_FALSE(WaitNamedPipeW(name.c_str(), 20));
    EXPECT_EQ(GetLastError(), waitError);
}

TEST(PipeTest, ANameIsServedAsLongAsItHasAnInstance) {
    const std::wstring name = UniquePipeName();
    const Owned port = NewPort();
    for (int round = 0; round < 3; ++round) {
        ExpectRefused(name, ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND);
        Connection first{name, port, 0};
        ExpectRefused(name, ERROR_PIPE_BUSY, ERROR_SEM_TIMEOUT);

        Thread waiting([&name] { EXPECT_TRUE(WaitNamedPipeW(name.c_str(), kPatienceMs)) << GetLastError(); });
        OVERLAPPED accept;
        const Owned second = NewInstance(name, port, accept);
        waiting.Join();
        std::wstring shouted = name;
        std::transform(name.begin(), name.end(), shouted.begin(), towupper);
        const Owned client = OpenClient(shouted);
        EXPECT_NE(client, INVALID_HANDLE_VALUE) << "names ignore case";
        DWORD mode = PIPE_READMODE_BYTE | PIPE_WAIT;
        EXPECT_TRUE(SetNamedPipeHandleState(client, &mode, nullptr, nullptr)) << GetLastError();
        EXPECT_EQ(Next(port).overlapped, &accept);
        first.server.Close();
        ExpectRefused(name, ERROR_PIPE_BUSY, ERROR_SEM_TIMEOUT);
    }
}

TEST(PipeTest, InstancesOfANameComeAndGoOnManyThreads) {
    const std::wstring name = UniquePipeName();
    std::deque<Thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&name] {
            for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round) {
                const Owned port = NewPort();
                OVERLAPPED accept;
                NewInstance(name, port, accept).Close();
                const Completion ended = Next(port);
                EXPECT_TRUE(!ended.succeeded && ended.overlapped == &accept);
            }
        });
    }
    threads.clear();
    ExpectRefused(name, ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND);
}

TEST(PipeTest, AClientsOperationsEndWithEitherEnd) {
    constexpr DWORD kLarge = 4 << 20;
    const Owned port = NewPort();
    const std::vector<char> data(kLarge);
    for (int round = 0; round < 120; ++round) {
        const bool disconnects = round % 3 == 0;
        const bool closesOwn = round % 3 == 1; // from another thread than the one that waits
        Connection connection{port};
        EventIo reading;
        EventIo writing;
        char byte = 0;
        DWORD bytes = 1;
        EXPECT_FALSE(reading.Read(connection.client, &byte, 1));
        EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
        EXPECT_FALSE(GetOverlappedResult(connection.client, &reading.overlapped, &bytes, FALSE));
        EXPECT_EQ(GetLastError(), ERROR_IO_INCOMPLETE);
        EXPECT_FALSE(writing.Write(connection.client, data.data(), kLarge));
        EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
        Thread ending([&] {
            if (disconnects) {
                EXPECT_TRUE(DisconnectNamedPipe(connection.server));
            }
            closesOwn ? connection.client.Close() : connection.server.Close();
        });
        for (EventIo* io : {&reading, &writing}) {
            const DWORD error = io->Await(&bytes);
            EXPECT_TRUE(error == ERROR_BROKEN_PIPE || (disconnects && error == ERROR_PIPE_NOT_CONNECTED) ||
                        (closesOwn && error != NO_ERROR))
                << error;
            EXPECT_EQ(bytes, 0U);
        }
        ending.Join();
        DWORD error = NO_ERROR;
        while (error == NO_ERROR && !closesOwn) { // a first write may still be taken
            error = Begun(writing.Write(connection.client, &byte, 1)) ? writing.Await() : GetLastError();
            EXPECT_TRUE(error == NO_ERROR || error == ERROR_BROKEN_PIPE || error == kErrorNoData ||
                        error == ERROR_PIPE_NOT_CONNECTED)
                << error;
        }
    }
}

// None is taken for later, also while nobody has waited and seen that the other end has gone.
TEST(PipeTest, WritesToAnEndThatHasGoneFailAtOnce) {
    const Owned port = NewPort();
    Connection connection{port};
    EventIo reading;
    EventIo writing;
    char byte = 0;
    EXPECT_FALSE(reading.Read(connection.client, &byte, 1));
    connection.server.Close();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(writing.Write(connection.client, &byte, 1));
        EXPECT_TRUE(GetLastError() == ERROR_BROKEN_PIPE || GetLastError() == kErrorNoData) << GetLastError();
    }
    EXPECT_EQ(reading.Await(), ERROR_BROKEN_PIPE);
}

// What was reported as written is read, whatever the writer does next, and also when the pipe was full by then.
TEST(PipeTest, WhatWasWrittenArrives) {
    constexpr DWORD kPiece = 4096;
    enum class Then { Closes, ClosesFull, WaitsForAnother, Sleeps, Ends };
    for (const Then then : {Then::Closes, Then::ClosesFull, Then::WaitsForAnother, Then::Sleeps, Then::Ends}) {
        const Owned port = NewPort();
        EventIo reading;
        std::vector<char> piece(kPiece);
        EventIo writing;
        char byte = 0;
        Connection connection{port};
        const Owned seen = NewEvent(true);
        std::atomic<bool> isSeen{false};
        std::atomic<std::size_t> written{0};
        Thread writer([&] {
            // It serves the client's end: it has waited for it, and a read is outstanding.
            EXPECT_TRUE(Begun(reading.Read(connection.client, &byte, 1)));
            EXPECT_EQ(WaitForSingleObject(reading.event, 1), WAIT_TIMEOUT);
            BOOL done = TRUE;
            for (int i = 0; done != FALSE && (i < 5 || then == Then::ClosesFull); ++i) {
                for (DWORD at = 0; at < kPiece; ++at) {
                    piece[at] = PatternAt(1, written + at);
                }
                done = writing.Write(connection.client, piece.data(), kPiece);
                EXPECT_TRUE(Begun(done));
                if (done == FALSE && then != Then::ClosesFull) {
                    done = writing.Await() == NO_ERROR ? TRUE : FALSE;
                }
                written += done != FALSE ? kPiece : 0;
            }
            if (then == Then::Closes || then == Then::ClosesFull) {
                connection.client.Close();
            }
            if (then == Then::WaitsForAnother) {
                EXPECT_EQ(WaitForSingleObject(seen, kPatienceMs), WAIT_OBJECT_0);
            }
            while (then == Then::Sleeps && !isSeen) {
                Sleep(1);
            }
        });
        if (then == Then::ClosesFull) {
            writer.Join();
        }
        std::vector<char> buffer(kPiece);
        for (std::size_t got = 0; got < 5 * kPiece || got < written;) {
            OVERLAPPED read{};
            ASSERT_TRUE(Begun(ReadFile(connection.server, buffer.data(), kPiece, nullptr, &read)));
            const Completion some = Next(port);
            ASSERT_TRUE(some.succeeded) << some.error << " at " << got << " case " << static_cast<int>(then);
            for (DWORD i = 0; i < some.bytes; ++i, ++got) {
                ASSERT_EQ(buffer[i], PatternAt(1, got)) << got;
            }
        }
        SetEvent(seen);
        isSeen = true;
    }
}

} // namespace
} // namespace Vantor::Sentrix
