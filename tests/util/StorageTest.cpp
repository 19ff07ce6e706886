#include "veyrasvc/util/Storage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <future>
#include <memory>
#include <new>
#include <random>
#include <vector>

namespace Vantor::Sentrix {
namespace {

struct Piece {
    std::shared_ptr<char[]> storage;
    std::size_t bytes;
    char fill;
};

// Long and short, so that some are recycled, some fit each other, some are let go of, and two are the system's pages.
std::vector<Piece> Make(unsigned seed) {
    std::minstd_rand random(seed);
    std::vector<Piece> pieces;
    for (int i = 0; i < 12; ++i) {
        const std::size_t bytes = std::size_t{1} << (i < 2 ? 24 + i : random() % 6 + 16);
        pieces.push_back({AllocateStorage(bytes + random() % 1000), bytes, static_cast<char>(random())});
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pieces.back().storage.get()) % 16, 0U);
        std::fill_n(pieces.back().storage.get(), bytes, pieces.back().fill);
    }
    return pieces;
}

// How many of them do not hold what was written to them.
std::ptrdiff_t Spoiled(std::vector<Piece> pieces) {
    return std::count_if(pieces.begin(), pieces.end(), [](const Piece& piece) {
        const char* const begin = piece.storage.get();
        return std::any_of(begin, begin + piece.bytes, [&](char byte) { return byte != piece.fill; });
    });
}

// Made by one thread and given back by another, while two more make theirs.
TEST(StorageTest, NoTwoOwnersShareABlockHoweverOftenItComesBack) {
    std::vector<Piece> waiting[2];
    for (unsigned round = 0; round < 8; ++round) {
        std::future<std::vector<Piece>> made[2];
        std::future<std::ptrdiff_t> spoiled[2];
        for (const unsigned i : {0U, 1U}) {
            made[i] = std::async(std::launch::async, Make, 2 * round + i + 1);
            spoiled[i] = std::async(std::launch::async, Spoiled, std::move(waiting[i]));
        }
        for (const unsigned i : {0U, 1U}) {
            waiting[i] = made[i].get();
            EXPECT_EQ(spoiled[i].get(), 0) << round;
        }
    }
    EXPECT_EQ(Spoiled(std::move(waiting[0])) + Spoiled(std::move(waiting[1])), 0);
}

TEST(StorageTest, WhatIsReservedGrowsInPlaceUpToItsEnd) {
    constexpr std::size_t kReserved = std::size_t{1} << 32;
    const auto storage = ReserveStorage(kReserved); // more than there is memory for, perhaps
    std::size_t written = 0;
    for (const std::size_t bytes : {1U, 5000U, 5000U, 10'000'000U}) {
        CommitStorage(storage, bytes);
        for (; written < bytes; ++written) {
            storage[static_cast<std::ptrdiff_t>(written)] = static_cast<char>(written % 251);
        }
    }
    for (std::size_t i = 0; i < written; ++i) {
        ASSERT_EQ(storage[static_cast<std::ptrdiff_t>(i)], static_cast<char>(i % 251)) << i;
    }
    EXPECT_THROW(CommitStorage(storage, 2 * kReserved), std::bad_alloc);
}

// Fresh pages would have to be cleared first.
TEST(StorageTest, ALongBlockIsUsedAgainOnceAllOfItHasMemory) {
    constexpr std::size_t kBytes = 48 * 1024 * 1024 - 64; // of a length that no other test takes
    auto storage = ReserveStorage(kBytes);
    CommitStorage(storage, kBytes / 2);
    storage.reset();
    storage = AllocateStorage(kBytes);
    std::fill_n(storage.get(), kBytes, 'a'); // every byte of it
    const char* const address = storage.get();
    storage.reset();
    // Would take its place, had it been let go of: what the heap gets for this is as long as the block.
    const auto other = std::make_unique<char[]>(kBytes);
    EXPECT_EQ(std::count(other.get(), other.get() + kBytes, '\0'), kBytes);
    storage = ReserveStorage(kBytes);
    EXPECT_EQ(storage.get(), address);
    CommitStorage(storage, 1);
    CommitStorage(storage, kBytes);
    std::fill_n(storage.get(), kBytes, 'b');
    storage.reset();
    EXPECT_EQ(AllocateStorage(kBytes).get(), address);
}

} // namespace
} // namespace Vantor::Sentrix
