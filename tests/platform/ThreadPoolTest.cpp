// The work-item pool, and what the system tells of a thread.
#include "tests/platform/Pipes.h"
#include "veyrasvc/util/ThreadProbe.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace Vantor::Sentrix {
namespace {

void QueueItem(std::function<void()> work) {
    auto* const item = new std::function<void()>(std::move(work));
    const auto run = [](void* context) -> DWORD {
        const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(context));
        (*owned)();
        return 0;
    };
    ASSERT_TRUE(QueueUserWorkItem(run, item, WT_EXECUTELONGFUNCTION)) << GetLastError();
}

TEST(ThreadPoolTest, GrowsToItsBoundAndStartsFirstWhatWasQueuedFirst) {
    constexpr int kBound = 500;
    constexpr int kMore = 100;
    std::atomic<int> left{kBound + kMore};
    const Owned ended = NewEvent(true);
    const Owned one = NewEvent(false);
    const Owned all = NewEvent(true);
    const Owned begun = NewEvent(false);
    std::atomic<int> running{0};
    std::atomic<int> started{0};
    const auto awaitStarted = [&](int number) {
        while (started < number) {
            ASSERT_EQ(WaitForSingleObject(begun, kPatienceMs), WAIT_OBJECT_0) << "started: " << started;
        }
    };
    for (int number = 0; number < kBound + kMore; ++number) {
        QueueItem([&, number] {
            const HANDLE either[] = {all, one};
            EXPECT_LE(++running, kBound);
            const int position = started++;
            EXPECT_EQ(std::max(position, kBound), std::max(number, kBound));
            SetEvent(begun);
            EXPECT_NE(WaitForMultipleObjects(2, either, FALSE, kPatienceMs), WAIT_TIMEOUT);
            --running;
            if (--left == 0) {
                SetEvent(ended);
            }
        });
    }
    for (int free = 0; free <= kMore; ++free) { // from now on, each that ends lets one start
        awaitStarted(kBound + free);
        SetEvent(free < kMore ? one : all);
    }
    EXPECT_EQ(WaitForSingleObject(ended, kPatienceMs), WAIT_OBJECT_0);
}

// An item does not depend on what its queuer does next, nor on the item before it, also when they come from a thread
// that serves a pipe.
TEST(ThreadPoolTest, AnItemStartsWhateverItsQueuerAndTheItemBeforeItDo) {
    const Owned port = NewPort();
    const Owned empty = NewPort();
    Connection connection{port};
    const Owned warm = NewEvent(true);
    QueueItem([&] { SetEvent(warm); });
    EXPECT_EQ(WaitForSingleObject(warm, kPatienceMs), WAIT_OBJECT_0);
    for (int round = 0; round < 60; ++round) {
        std::atomic<bool> ran{false};
        const Owned runs = NewEvent(true);
        const Owned next = NewEvent(true);
        connection.SendByte(port);
        Thread queuer([&] {
            EventIo reading;
            char byte = 0;
            EXPECT_TRUE(Begun(reading.Read(connection.client, &byte, 1)));
            EXPECT_EQ(reading.Await(), NO_ERROR);
            QueueItem([&] {
                EXPECT_EQ(WaitForSingleObject(next, kPatienceMs), WAIT_OBJECT_0);
                ran = true;
                SetEvent(runs);
            });
            QueueItem([&] { SetEvent(next); });
            while (round % 3 == 0 && !ran) {
                Sleep(round % 2);
            }
            while (round % 3 == 1 && !ran) {
                EXPECT_EQ(Next(empty, 1).error, WAIT_TIMEOUT);
            } // and in the third case it ends
        });
        EXPECT_EQ(WaitForSingleObject(runs, kPatienceMs), WAIT_OBJECT_0);
    }
}

TEST(ThreadProbeTest, TellsAThreadThatComputesFromOneThatIsBlocked) {
    EXPECT_EQ(OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SYSTEM_THREAD_INFORMATION told{};
    const Owned self(OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, GetCurrentThreadId()));
    const NTSTATUS status = NtQueryInformationThread(self, ThreadSystemThreadInformation, &told, sizeof told, nullptr);
    if (status == static_cast<NTSTATUS>(0xC0000002)) {
        GTEST_SKIP() << "not implemented, as in Wine 8";
    }
    EXPECT_EQ(status, 0);
    EXPECT_NE(told.ThreadState, StateWait) << "a thread that asks";
    EXPECT_LT(NtQueryInformationThread(nullptr, ThreadSystemThreadInformation, &told, sizeof told, nullptr), 0);
    std::optional<ThreadProbe> probe;
    const Owned begun = NewEvent(false);
    const Owned leave = NewEvent(false);
    std::atomic<bool> computes{true};
    const Thread thread([&] {
        probe.emplace();
        SetEvent(begun);
        while (computes) {
        }
        EXPECT_EQ(WaitForSingleObject(leave, kPatienceMs), WAIT_OBJECT_0);
        probe.reset();
    });
    ASSERT_EQ(WaitForSingleObject(begun, kPatienceMs), WAIT_OBJECT_0);
    for (int look = 0; look < 100; ++look) {
        EXPECT_TRUE(probe->IsRunnable());
    }
    computes = false;
    while (probe->IsRunnable()) { // until it waits
        Sleep(0);
    }
    SetEvent(leave);
}

} // namespace
} // namespace Vantor::Sentrix
