// Events, waits and threads, and what every call does with a handle that it cannot use.
#include "tests/platform/Pipes.h"

#include <array>
#include <deque>
#include <random>

namespace Vantor::Sentrix {
namespace {

TEST(EventTest, KeepsItsSignalUntilItIsTakenOrReset) {
    for (const bool manual : {false, true}) {
        for (const bool initial : {false, true}) {
            const Owned event = NewEvent(manual, initial);
            EXPECT_EQ(WaitForSingleObject(event, 1), initial ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
            EXPECT_TRUE(SetEvent(event));
            EXPECT_TRUE(SetEvent(event)) << "set twice is set once";
            EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
            EXPECT_EQ(WaitForSingleObject(event, 0), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
            EXPECT_TRUE(SetEvent(event));
            EXPECT_TRUE(ResetEvent(event));
            EXPECT_EQ(WaitForSingleObject(event, 1), WAIT_TIMEOUT);
        }
    }
}

TEST(EventTest, OfSeveralTheLowestIsTakenAndNoOther) {
    const Owned events[] = {NewEvent(false), NewEvent(false), NewEvent(false), NewEvent(true)};
    const HANDLE handles[] = {events[0], events[1], events[2], events[3]};
    EXPECT_EQ(WaitForMultipleObjects(4, handles, FALSE, 1), WAIT_TIMEOUT);
    for (const DWORD index : {3, 2, 1}) {
        SetEvent(handles[index]);
    }
    for (const DWORD index : {1, 2, 3, 3}) {
        EXPECT_EQ(WaitForMultipleObjects(4, handles, FALSE, INFINITE), WAIT_OBJECT_0 + index);
    }
    EXPECT_EQ(WaitForMultipleObjects(3, handles, FALSE, 0), WAIT_TIMEOUT);
}

// Each ring has one token, which goes from place to place by events. Two threads stand at a place; each waits for all
// rings at once, sometimes with a time limit that passes just then. A signal that is lost stops its ring; one that
// wakes two threads, or none that was given, finds no token there.
TEST(EventTest, EverySignalWakesOneAndTheStopAll) {
    constexpr std::size_t kPlaces = 3;
    constexpr std::size_t kRings = 2;
    constexpr int kHops = 10'000;
    struct Ring {
        std::array<Owned, kPlaces> events{NewEvent(false), NewEvent(false), NewEvent(false)};
        std::size_t holder = 0; // no atomic: signals and waits order the accesses
        int hops = 0;
    };
    std::array<Ring, kRings> rings;
    const Owned stop = NewEvent(true);
    std::atomic<std::size_t> finished{0};
    const auto run = [&](std::size_t self) {
        std::minstd_rand random(static_cast<unsigned>(self + 1));
        const std::size_t place = self % kPlaces;
        const HANDLE handles[] = {rings[0].events[place], rings[1].events[place], stop};
        for (;;) {
            const DWORD limit = random() % 4 == 0 ? random() % 2 : kPatienceMs;
            const DWORD got = WaitForMultipleObjects(kRings + 1, handles, FALSE, limit);
            if (got == WAIT_TIMEOUT && limit < 2) {
                continue;
            }
            if (got >= kRings) {
                EXPECT_EQ(got, WAIT_OBJECT_0 + kRings);
                return;
            }
            Ring& ring = rings[got];
            EXPECT_EQ(std::exchange(ring.holder, kPlaces), place);
            if (++ring.hops < kHops) {
                ring.holder = random() % kPlaces;
                SetEvent(ring.events[ring.holder]);
            } else if (++finished == kRings) {
                SetEvent(stop);
            }
        }
    };
    for (Ring& ring : rings) {
        SetEvent(ring.events[0]);
    }
    std::deque<Thread> threads;
    for (std::size_t self = 0; self < 2 * kPlaces; ++self) {
        threads.emplace_back([&run, self] { run(self); });
    }
}

TEST(ThreadTest, ItsEndSignalsItsHandleAndItRunsWithoutOne) {
    struct Step {
        HANDLE after;
        HANDLE done;
    };
    const auto run = [](void* parameter) -> DWORD {
        const Step step = *static_cast<Step*>(parameter);
        WaitForSingleObject(step.after, INFINITE);
        SetEvent(step.done);
        return 0;
    };
    const Owned events[] = {NewEvent(false), NewEvent(false), NewEvent(false)};
    Step first{events[0], events[1]};
    Step second{events[1], events[2]};
    CloseHandle(CreateThread(nullptr, 0, run, &first, 0, nullptr));
    const Owned thread(CreateThread(nullptr, 0, run, &second, 0, nullptr));
    EXPECT_EQ(WaitForSingleObject(thread, 1), WAIT_TIMEOUT);
    SetEvent(events[0]);
    EXPECT_EQ(WaitForSingleObject(thread, kPatienceMs), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0) << "it stays signalled";
}

testing::AssertionResult Refused(bool succeeded) {
    const DWORD error = GetLastError();
    SetLastError(NO_ERROR); // the next call has to set it itself
    const bool refused = !succeeded && error == ERROR_INVALID_HANDLE;
    return (refused ? testing::AssertionSuccess() : testing::AssertionFailure()) << "error " << error;
}

TEST(HandleTest, ACallRefusesAHandleThatIsClosedOrNullOrOfAnotherKind) {
    const Owned event = NewEvent(true);
    const Owned port = NewPort();
    char byte = 0;
    EventIo io;
    io.overlapped.hEvent = io.event;
    Owned gone = NewEvent(true); // the last of all: a new handle may have the value of a closed one
    const HANDLE closed = gone;
    gone.Close();
    for (const HANDLE bad : {closed, HANDLE{}}) {
        const HANDLE handles[] = {event, bad};
        EXPECT_TRUE(Refused(CloseHandle(bad) != FALSE));
        EXPECT_TRUE(Refused(WaitForSingleObject(bad, 0) != WAIT_FAILED));
        EXPECT_TRUE(Refused(WaitForMultipleObjects(2, handles, FALSE, 0) != WAIT_FAILED));
    }
    for (const HANDLE bad : {closed, HANDLE{}, HANDLE{port}}) {
        EXPECT_TRUE(Refused(SetEvent(bad) != FALSE));
        EXPECT_TRUE(Refused(ResetEvent(bad) != FALSE));
    }
    for (const HANDLE bad : {closed, HANDLE{}, HANDLE{event}}) {
        EXPECT_TRUE(Refused(Next(bad, 0).succeeded));
        EXPECT_TRUE(Refused(PostQueuedCompletionStatus(bad, 0, 0, nullptr) != FALSE));
        EXPECT_TRUE(Refused(CreateIoCompletionPort(bad, port, 0, 0) != nullptr));
        EXPECT_TRUE(Refused(ConnectNamedPipe(bad, &io.overlapped) != FALSE));
        EXPECT_TRUE(Refused(DisconnectNamedPipe(bad) != FALSE));
        EXPECT_TRUE(Refused(ReadFile(bad, &byte, 1, nullptr, &io.overlapped) != FALSE));
        EXPECT_TRUE(Refused(WriteFile(bad, &byte, 1, nullptr, &io.overlapped) != FALSE));
    }
}

} // namespace
} // namespace Vantor::Sentrix
