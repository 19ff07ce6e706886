#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/stream/StringStream.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <sstream>

using namespace Vantor::Sentrix;

static bool refuseMemory = false;

extern "C" void* __real_realloc(void* block, std::size_t bytes);
extern "C" void* __wrap_realloc(void* block, std::size_t bytes) {
    return refuseMemory ? nullptr : __real_realloc(block, bytes);
}

namespace {

constexpr std::int64_t k4GiB = std::int64_t{1} << 32;
constexpr std::int64_t kFarthest = std::numeric_limits<std::int64_t>::max();

class MemoryStreamTest : public testing::Test {
protected:
    void TearDown() override { refuseMemory = false; }
    LogCapture log;
};

// Random operations against the plainest model there is: a string and a number.
void CompareWithModel(Stream& stream, unsigned int seed) {
    std::mt19937 random(seed);
    std::string model;
    std::int64_t position = 0;
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
        const auto count = static_cast<unsigned int>(random() % 3000);
        const std::int64_t place = static_cast<std::int64_t>(random() % 20000);
        const auto size = static_cast<std::int64_t>(model.size());
        const auto at = static_cast<std::size_t>(position);
        if (const auto operation = random() % 5; operation == 0) {
            const std::string expected = position < 0 || position >= size ? "" : model.substr(at, count);
            std::string read(count, '?');
            ASSERT_EQ(stream.Read(read.data(), count), expected.size());
            ASSERT_EQ(read, expected + std::string(count - expected.size(), '?'));
            position += static_cast<std::int64_t>(expected.size());
        } else if (operation == 1) {
            const bool possible = position >= 0 && count > 0;
            ASSERT_EQ(stream.Write(std::string(count, char(step)).data(), count), possible ? count : 0);
            if (possible) {
                model.resize(std::max(model.size(), at + count));
                model.replace(at, count, std::string(count, char(step)));
                position += count;
            }
        } else if (operation == 2) {
            stream.SetSize(place);
            model.resize(static_cast<std::size_t>(place));
            position = std::min(position, place);
        } else {
            const std::int64_t from[] = {0, position, size};
            const int origin = static_cast<int>(random() % 4);
            position = origin == 3 ? position : from[origin] + place - 12000;
            ASSERT_EQ(stream.Seek(place - 12000, origin), position);
        }
        ASSERT_EQ(stream.GetSize(), std::int64_t(model.size()));
        ASSERT_EQ(stream.GetPosition(), position);
    }
    stream.SetPosition(0);
    std::ostringstream all;
    stream.CopyTo(all);
    EXPECT_EQ(all.str(), model);
}

TEST_F(MemoryStreamTest, BehavesLikeAStringWithAPosition) {
    for (unsigned int seed = 0; seed < 5; ++seed) {
        MemoryrStream memory;
        CompareWithModel(memory, seed);
        std::string bytes;
        StringStream text(bytes);
        CompareWithModel(text, seed);
    }
    EXPECT_EQ(log.Take().size(), 0U);
}

TEST_F(MemoryStreamTest, NothingPassesTheEndOfAFixedBuffer) {
    char bytes[] = "0123456789abcdefGUARD";
    {
        MemoryrStream stream(bytes, 16, true);
        EXPECT_EQ(stream.ToString(), "0123456789abcdef");
        stream.SetCapacity(100);
        EXPECT_EQ(stream.GetCapacity(), 16);
        stream.SetPosition(14);
        EXPECT_EQ(stream.Write("xyz", 3), 0U);
        EXPECT_EQ(stream.Write("xy", 2), 2U);
        stream.SetSize(17);
        stream.Append("more").Append('!', 1).Append(stream);
        EXPECT_EQ(stream.GetSize(), 16);
        EXPECT_EQ(log.Errors("stream write error!"), 2);
        EXPECT_EQ(log.Errors("Can not set capacity!"), 6);
        stream.Clear();
        EXPECT_EQ(stream.Append("fits").ToString(), "fits");
    }
    EXPECT_STREQ(bytes, "fits456789abcdxyGUARD");
    MemoryrStream copy(bytes, 4, false);
    EXPECT_EQ(copy.Write("FITS!", 5) + copy.Write("FI", 2), 2U);
    EXPECT_EQ(bytes[0], 'f');
}

TEST_F(MemoryStreamTest, WhatCannotBeHadIsRefusedAndKeepsEverything) {
    MemoryrStream stream("kept", 4);
    for (const std::int64_t size : {k4GiB, k4GiB + 10, std::int64_t{-1}, kFarthest}) {
        stream.SetSize(size);
        stream.SetCapacity(size);
    }
    for (const std::int64_t position : {k4GiB - 1, k4GiB, kFarthest}) {
        stream.SetPosition(position);
        EXPECT_EQ(stream.Write("x", 1), 0U) << position;
    }
    EXPECT_EQ(log.Errors("Can not set capacity!"), 8 + 3);
    stream.Seek(1, Stream::kFromCurrent); // past the farthest there is
    EXPECT_EQ(stream.Write("x", 1), 0U);
    refuseMemory = true;
    stream.SetPosition(4);
    EXPECT_EQ(stream.Write(std::string(9000, 'm').data(), 9000), 0U);
    stream.SetSize(9000);
    EXPECT_EQ(stream.GetPosition(), 4);
    EXPECT_EQ(stream.GetCapacity(), 8192);
    EXPECT_EQ(stream.ToString(), "kept");
    EXPECT_EQ(log.Errors("Realloc Failed!"), 2);
    refuseMemory = false;
    EXPECT_EQ(stream.Append('x', 19'996).GetSize(), 20'000);
    stream.SetCapacity(8192);
    EXPECT_EQ(stream.GetSize(), 8192) << "cut with the capacity";
    stream.SetCapacity(k4GiB - 1); // never touched, so it is address space and no memory; a system may refuse it
    EXPECT_EQ(stream.GetCapacity(), log.Errors("Realloc Failed!") == 2 ? k4GiB - 1 : 8192);
    EXPECT_EQ(stream.ToString(), "kept" + std::string(8188, 'x'));
}

TEST_F(MemoryStreamTest, AppendsAndAssignsAlsoItself) {
    MemoryrStream stream(std::string(5000, 'a').c_str());
    EXPECT_EQ(stream.Append(stream).ToString(), std::string(10000, 'a')); // moves the block on the way
    stream.Append(stream.GetMemory(), 10000);
    EXPECT_EQ(stream.ToString(), std::string(20000, 'a'));
    EXPECT_EQ(stream.Assign(stream).ToString(), "");
    EXPECT_EQ(stream.Append("hi", 2).Append("!").ToWString(), (std::wstring{wchar_t('h' | 'i' << 8), L'!'}));
}

TEST_F(MemoryStreamTest, CopiesAcrossTheTransferBuffer) {
    for (const std::int64_t size : {1, 0xEFFF, 0xF000, 0xF001, 200000}) {
        std::string bytes(static_cast<std::size_t>(size), '\0');
        std::generate(bytes.begin(), bytes.end(), [random = std::mt19937()]() mutable { return char(random()); });
        std::istringstream in(bytes);
        MemoryrStream source, all("old", 3);
        EXPECT_EQ(source.CopyFrom(in), size);
        all.LoadFromStream(source); // rewinds it first
        EXPECT_EQ(all.CopyFrom(source, -5), 0);
        source.SetPosition(0);
        EXPECT_EQ(all.CopyFrom(source, (size + 1) / 2), (size + 1) / 2);
        EXPECT_EQ(all.ToString(), bytes + bytes.substr(0, bytes.size() - bytes.size() / 2));
    }
    EXPECT_EQ(log.Take().size(), 0U);
    MemoryrStream source("ab", 2), target;
    source.SetPosition(0);
    EXPECT_EQ(target.CopyFrom(source, 4), 4);
    EXPECT_EQ(target.ToString(), std::string("ab\0\0", 4)) << "zeros, never what lay on the heap";
    EXPECT_EQ(log.Errors("read buffer error!"), 1);
}

} // namespace
