// Events, waits and threads, and what every call does with a handle that it cannot use.
#include "tests/platform/Pipes.h"

#include <array>
#include <deque>
#include <functional>
#include <random>
#include <vector>

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
    const std::vector<HANDLE> tooMany(MAXIMUM_WAIT_OBJECTS + 1, handles[3]);
    EXPECT_EQ(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS + 1, tooMany.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
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

// ---- Threads -------------------------------------------------------------------------------------------------------

struct Started {
    DWORD id = 0;
    Owned go = NewEvent(false);
    Owned gone = NewEvent(false);
};

DWORD RunStarted(void* parameter) {
    auto* const started = static_cast<Started*>(parameter);
    started->id = GetCurrentThreadId();
    WaitForSingleObject(started->go, INFINITE);
    SetEvent(started->gone);
    return 0;
}

TEST(ThreadTest, ItsEndSignalsItsHandleAndItRunsWithoutOne) {
    Started one;
    Started other;
    Owned threads[] = {Owned(CreateThread(nullptr, 0, RunStarted, &one, 0, nullptr)),
                       Owned(CreateThread(nullptr, 0, RunStarted, &other, 0, nullptr))};
    const HANDLE handles[] = {threads[0], threads[1]};
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 1), WAIT_TIMEOUT);
    threads[0].Close();
    SetEvent(one.go);
    EXPECT_EQ(WaitForSingleObject(one.gone, kPatienceMs), WAIT_OBJECT_0);
    SetEvent(other.go);
    EXPECT_EQ(WaitForSingleObject(threads[1], kPatienceMs), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(threads[1], 0), WAIT_OBJECT_0) << "it stays signalled";
    EXPECT_TRUE(one.id != other.id && one.id != GetCurrentThreadId() && one.id != 0 && other.id != 0);
}

// ---- Handles -------------------------------------------------------------------------------------------------------

TEST(HandleTest, ACallRefusesAHandleThatIsClosedOrNullOrOfAnotherKind) {
    const Owned event = NewEvent(true);
    const Owned port = NewPort();
    char byte = 0;
    EventIo io;
    OVERLAPPED* const overlapped = &io.overlapped;
    overlapped->hEvent = io.event;
    struct Case {
        const char* call;
        HANDLE otherKind; // null where one system takes more kinds than the other
        std::function<bool(HANDLE)> succeeds;
    };
    const Case cases[] = {
        {"CloseHandle", nullptr, [](HANDLE bad) { return CloseHandle(bad) != FALSE; }},
        {"SetEvent", port, [](HANDLE bad) { return SetEvent(bad) != FALSE; }},
        {"ResetEvent", port, [](HANDLE bad) { return ResetEvent(bad) != FALSE; }},
        {"WaitForSingleObject", nullptr, [](HANDLE bad) { return WaitForSingleObject(bad, 0) != WAIT_FAILED; }},
        {"WaitForMultipleObjects", nullptr,
         [&](HANDLE bad) {
             const HANDLE handles[] = {event, bad};
             return WaitForMultipleObjects(2, handles, FALSE, 0) != WAIT_FAILED;
         }},
        {"GetQueuedCompletionStatus", event, [](HANDLE bad) { return Next(bad, 0).succeeded; }},
        {"PostQueuedCompletionStatus", event,
         [](HANDLE bad) { return PostQueuedCompletionStatus(bad, 0, 0, nullptr) != FALSE; }},
        {"CreateIoCompletionPort", event,
         [&](HANDLE bad) { return CreateIoCompletionPort(bad, port, 0, 0) != nullptr; }},
        {"ConnectNamedPipe", event, [&](HANDLE bad) { return ConnectNamedPipe(bad, overlapped) != FALSE; }},
        {"DisconnectNamedPipe", event, [](HANDLE bad) { return DisconnectNamedPipe(bad) != FALSE; }},
        {"ReadFile", event, [&](HANDLE bad) { return ReadFile(bad, &byte, 1, nullptr, overlapped) != FALSE; }},
        {"WriteFile", event, [&](HANDLE bad) { return WriteFile(bad, &byte, 1, nullptr, overlapped) != FALSE; }},
    };
    Owned gone = NewEvent(true);
    const HANDLE closed = gone;
    gone.Close();
    for (const Case& one : cases) {
        for (const HANDLE bad : {closed, one.otherKind, HANDLE{}}) {
            SetLastError(NO_ERROR);
            EXPECT_FALSE(one.succeeds(bad)) << one.call;
            EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << one.call;
        }
    }
}

} // namespace
} // namespace Vantor::Sentrix
