// Critical sections and slim locks.
#include "tests/platform/Pipes.h"

#include <thread>

namespace Vantor::Sentrix {
namespace {

bool EntersElsewhere(CRITICAL_SECTION& section) {
    bool entered = false;
    Thread elsewhere([&] {
        entered = TryEnterCriticalSection(&section) != FALSE;
        if (entered) {
            LeaveCriticalSection(&section);
        }
    });
    elsewhere.Join();
    return entered;
}

TEST(LockTest, ACriticalSectionIsEnteredAgainByItsOwnerAndByNobodyElse) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    EnterCriticalSection(&section);
    for (int left = 3; left > 0; --left) {
        EXPECT_FALSE(EntersElsewhere(section)) << left;
        LeaveCriticalSection(&section);
    }
    EXPECT_TRUE(EntersElsewhere(section));
    DeleteCriticalSection(&section);
}

// Of two readers each lets go only when the other has come in once more, as long as that can happen: so they are
// inside together, one is there at any time, and the writer gets in all the same.
TEST(LockTest, AStreamOfReadersDoesNotKeepAWriterOut) {
    SRWLOCK slim;
    InitializeSRWLock(&slim);
    std::atomic<bool> written{false};
    std::atomic<bool> writes{false};
    std::atomic<int> reads[2]{};
    const auto read = [&](int self) {
        while (!written) {
            AcquireSRWLockShared(&slim);
            const int others = reads[1 - self];
            ++reads[self];
            for (int spins = 0; reads[1 - self] == others && (!writes || spins < 1000); ++spins) {
                std::this_thread::yield();
            }
            ReleaseSRWLockShared(&slim);
        }
    };
    const Thread first([&] { read(0); });
    const Thread second([&] { read(1); });
    while (reads[0] < 10 || reads[1] < 10) {
        std::this_thread::yield();
    }
    writes = true;
    AcquireSRWLockExclusive(&slim);
    written = true;
    ReleaseSRWLockExclusive(&slim);
}

} // namespace
} // namespace Vantor::Sentrix
