#include "veyrasvc/stream/DataStream.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <random>
#include <thread>

using namespace std::string_literals;
using namespace Vantor::Sentrix;

namespace {

using Strings = std::vector<std::string>;

// A stream over exactly these bytes, in a block of their own.
struct Block {
    Block(const std::string& text, bool isRead, bool swap = false)
        : bytes(text.begin(), text.end()), channel(bytes.data(), static_cast<unsigned int>(bytes.size()), isRead),
          stream(&channel, swap) {}
    std::string Text() const { return {bytes.begin(), bytes.end()}; }
    std::vector<char> bytes;
    IpcBufferBuild channel;
    DataStream stream;
};

// The format once more, from its description alone: a read cuts what it takes off the front.
struct Decoder {
    std::string rest;
    bool big;

    std::string Cut(std::size_t count, int& moved) {
        moved = count > rest.size() ? -1 : static_cast<int>(count);
        std::string front = moved < 0 ? std::string(count, '\0') : rest.substr(0, count);
        rest.erase(0, moved < 0 ? 0 : count);
        return front;
    }
    template <class T> int Read(T& value) {
        int moved;
        std::string bytes = Cut(sizeof value, moved);
        if (big) {
            std::reverse(bytes.begin(), bytes.end());
        }
        std::memcpy(&value, bytes.data(), sizeof value);
        return moved;
    }
    int Read(std::string& text) {
        short length;
        int moved = Read(length);
        text = Cut(length < 1 ? 0 : static_cast<std::size_t>(length), moved);
        return length < 1 ? 0 : moved + 2;
    }
    int Read(Strings& texts) {
        int count;
        int total = Read(count);
        for (int i = 0; count <= 5000 && i < count; ++i) {
            total += Read(texts.emplace_back());
        }
        return count > 5000 ? count : total;
    }
};

// One read of both, which must agree.
template <class T> void Compare(Decoder& model, DataStream& stream, int (DataStream::*read)(T&)) {
    T value{}, expected{};
    EXPECT_EQ((stream.*read)(value), model.Read(expected));
    EXPECT_TRUE(value == expected || (value != value && expected != expected)); // some are no numbers
}

TEST(DataStreamTest, DecodesWhateverComesAsDescribed) {
    const LogCapture log;
    std::mt19937 random(1);
    for (int round = 0; round < 4000 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        std::string bytes(random() % 200, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random() % 3 > 0 ? 0 : random() % (random() % 5 > 0 ? 12 : 256));
        }
        Decoder model{bytes, round % 2 == 1};
        Block in(bytes, true, model.big);
        Compare<std::string>(model, in.stream, &DataStream::ReadString);
        Compare<int>(model, in.stream, &DataStream::ReadInt32);
        Compare<double>(model, in.stream, &DataStream::ReadDouble);
        Compare<Strings>(model, in.stream, &DataStream::ReadUtf8StringArray);
        Compare<short>(model, in.stream, &DataStream::ReadInt16);
        Compare<std::int64_t>(model, in.stream, &DataStream::ReadInt64);
        Compare<float>(model, in.stream, &DataStream::ReadFloat);
        Compare<char>(model, in.stream, &DataStream::ReadInt8);
        std::string line;
        const int length = in.stream.ReadLine(line);
        EXPECT_EQ(line, model.rest.substr(0, model.rest.find('\n')));
        EXPECT_EQ(length, static_cast<int>(line.size()));
    }
}

TEST(DataStreamTest, WritesTheseBytesAndSizesThem) {
    const struct {
        int (*write)(DataStream&);
        std::string plain, swapped;
    } cases[] = {
        {[](auto& s) { return s.WriteInt8('\n'); }, "\n", "\n"},
        {[](auto& s) { return s.WriteInt16(-2); }, "\xFE\xFF", "\xFF\xFE"},
        {[](auto& s) { return s.WriteInt32(1); }, "\1\0\0\0"s, "\0\0\0\1"s},
        {[](auto& s) { return s.WriteInt64(0x0102030405060708); }, "\x08\7\6\5\4\3\2\1", "\1\2\3\4\5\6\7\x08"},
        {[](auto& s) { return s.WriteFloat(1.5F); }, "\0\0\xC0\x3F"s, "\x3F\xC0\0\0"s},
        {[](auto& s) { return s.WriteDouble(-2); }, "\0\0\0\0\0\0\0\xC0"s, "\xC0\0\0\0\0\0\0\0"s},
        {[](auto& s) { return s.WriteString("abc"); }, "\3\0abc"s, "\0\3abc"s},
        {[](auto& s) { return s.WriteLine("abc"); }, "abc\n", "abc\n"},
        {[](auto& s) { return s.WriteUtf8StringArray(Strings(2)); }, "\2\0\0\0\0\0\0\0"s, "\0\0\0\2\0\0\0\0"s},
    };
    for (const auto& [write, plain, swapped] : cases) {
        const int size = static_cast<int>(plain.size());
        for (const bool swap : {false, true}) {
            Block out(std::string(plain.size(), '?'), false, swap);
            EXPECT_EQ(write(out.stream), size);
            write(out.stream); // finds no room
            EXPECT_EQ(out.Text(), swap ? swapped : plain);
        }
        IpcBufferBuild dry(nullptr, 0, false);
        DataStream measuring(&dry, false);
        EXPECT_EQ(write(measuring) + write(measuring), 2 * size);
    }
}

TEST(DataStreamTest, ChannelsKeepToTheirBufferAndDirection) {
    char buffer[] = "123456", target[] = "......";
    IpcBufferBuild in(buffer, 4, true), out(buffer, 4, false);
    EXPECT_EQ(in.Read(target, 1), 1);
    IpcBufferBuild copy(in);
    for (const int refused :
         {in.Read(target, 4), in.Read(target, ~0U), out.Read(target, 1), copy.Write("x", 1), out.Write(nullptr, 1),
          out.Write("abcde", 5), IpcBufferBuild(nullptr, 4, true).Read(target, 1)}) {
        EXPECT_EQ(refused, -1);
    }
    EXPECT_EQ(in.Read(nullptr, 100) + in.Read(target + 1, 3) + copy.Read(target + 4, 1), 104);
    EXPECT_STREQ(target, "12342.") << "the copy from its own place";
    EXPECT_STREQ(buffer, "123456");

    DataStream none(nullptr, true);
    int number = 7;
    EXPECT_EQ(none.ReadInt32(number) + none.WriteInt32(1), 0);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(none.WriteString("abc") + none.WriteLine("abc"), 2 + 4);
}

TEST(DataStreamTest, StringsAndArraysAtTheirLimits) {
    const LogCapture log;
    const std::string longest(32767, 'l');
    Block out(std::string(32771, '?'), false);
    EXPECT_EQ(out.stream.WriteString(longest + 'x'), -1);
    EXPECT_EQ(out.stream.WriteString(longest), 32769);
    EXPECT_EQ(out.stream.WriteString("abc"), 1) << "room for the length alone";
    EXPECT_EQ(out.Text(), "\xFF\x7F" + longest + "\3\0"s);

    Block array(std::string(4 + 3 * 5001, '?'), false);
    EXPECT_EQ(array.stream.WriteUtf8StringArray(Strings(5001, "s")), 4 + 3 * 5001);
    Block tooMany(array.Text(), true), most(array.Text().replace(0, 2, "\x88\x13"), true);
    Strings read;
    EXPECT_EQ(tooMany.stream.ReadUtf8StringArray(read), 5001);
    EXPECT_EQ(log.Errors("readPrimitiveTypes int32_t :5001"), 1);
    EXPECT_EQ(most.stream.ReadUtf8StringArray(read), 4 + 3 * 5000);
    EXPECT_EQ(read, Strings(5000, "s"));
}

TEST(DataStreamTest, PackagesMoveAndComeBack) {
    static_assert(!std::is_copy_constructible_v<NxIpcPackage> && !std::is_copy_assignable_v<NxIpcPackage>);
    Block block(std::string(13, '?'), false);
    NxIpcPackage first(&block.channel);
    NxIpcPackage package(std::move(first));
    EXPECT_EQ(first.PacketUInt(1) + first.PacketString("x"), 0); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(package.PacketInt(1) + package.PacketString("abc") + package.PacketUInt(0xFFFFFFFE), 13);
    EXPECT_EQ(block.Text(), "\1\0\0\0\3\0abc\xFE\xFF\xFF\xFF"s);
    block.channel = IpcBufferBuild(block.bytes.data(), 13, true);
    int number = 0;
    unsigned int large = 0;
    std::string text;
    EXPECT_EQ(package.UnpacketInt(number) + package.UnpacketString(text) + package.UnpacketUInt(large), 13);
    EXPECT_EQ(std::tuple(number, text, large), std::tuple(1, "abc", 0xFFFFFFFE));
}

// Every thread has a string of its own to read.
struct ChannelOfThreads : IOChannel {
    static inline thread_local short mine = 0;
    int Read(char* buffer, unsigned int length) override {
        length == sizeof mine ? std::memcpy(buffer, &mine, length) : std::memset(buffer, 'x', length);
        return static_cast<int>(length);
    }
    int Write(const char* /*buffer*/, unsigned int /*length*/) override { return -1; }
};

TEST(DataStreamTest, ThreadsReadStringsThroughOneStream) {
    ChannelOfThreads channel;
    DataStream stream(&channel, false);
    const auto read = [&](short mine) {
        ChannelOfThreads::mine = mine;
        for (int i = 0; i < 30000; ++i) {
            ASSERT_EQ(stream.ReadString(), std::string(static_cast<std::size_t>(mine), 'x'));
        }
    };
    std::thread other(read, short{30001});
    read(3001);
    other.join();
}

// In the C++ ABI of every system that runs the tests, where the destructor has the first two places.
TEST(DataStreamTest, OperationsKeepTheirOrder) {
    using S = IOStream;
    const auto places = [](auto... operations) {
        return std::vector{std::bit_cast<std::array<std::size_t, 2>>(operations)[0] / sizeof(void*)...};
    };
    EXPECT_EQ(places(&S::Read, &S::ReadUtf8StringArray, &S::ReadLine, &S::Write, &S::WriteInt32, &S::WriteInt64,
                     &S::WriteString, &S::WriteLine, &S::SetSwapBytes, &S::Flush),
              (std::vector<std::size_t>{2, 17, 18, 19, 20, 25, 26, 28, 30, 31}));
}

} // namespace
