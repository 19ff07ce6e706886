#include "veyrasvc/stream/DataStream.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>
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

// One of everything, and how many bytes each read said that it moved.
struct Record {
    char byte = 0;
    short small = 0;
    int number = 0;
    std::int64_t large = 0;
    float real = 0;
    double precise = 0;
    std::string text, line;
    Strings texts;
    bool operator==(const Record&) const = default;
};

std::vector<int> Read(DataStream& in, Record& to) {
    return {in.ReadInt8(to.byte),  in.ReadInt16(to.small),    in.ReadInt32(to.number), in.ReadInt64(to.large),
            in.ReadFloat(to.real), in.ReadDouble(to.precise), in.ReadString(to.text),  in.ReadUtf8StringArray(to.texts),
            in.ReadLine(to.line)};
}

TEST(DataStreamTest, ValuesHaveTheseBytesAndComeBack) {
    const Record record{'\n', -2, 1, 0x0102030405060708, 1.5F, -2, "abc", "line", {"d"}};
    const std::string plain =
        "\n\xFE\xFF\1\0\0\0\x08\7\6\5\4\3\2\1\0\0\xC0\x3F\0\0\0\0\0\0\0\xC0\3\0abc\1\0\0\0\1\0dline\n"s;
    const std::string swapped =
        "\n\xFF\xFE\0\0\0\1\1\2\3\4\5\6\7\x08\x3F\xC0\0\0\xC0\0\0\0\0\0\0\0\0\3abc\0\0\0\1\0\1dline\n"s;
    const std::vector<int> moved{1, 2, 4, 8, 4, 8, 5, 7, 4};
    const auto write = [&record](DataStream& out) {
        return std::vector{out.WriteInt8(record.byte),    out.WriteInt16(record.small),
                           out.WriteInt32(record.number), out.WriteInt64(record.large),
                           out.WriteFloat(record.real),   out.WriteDouble(record.precise),
                           out.WriteString(record.text),  out.WriteUtf8StringArray(record.texts),
                           out.WriteLine(record.line) - 1};
    };
    for (const bool swap : {false, true}) {
        Block out(std::string(plain.size(), '?'), false, swap);
        EXPECT_EQ(write(out.stream), moved);
        write(out.stream); // finds no room
        EXPECT_EQ(out.Text(), swap ? swapped : plain);
        Block in(out.Text(), true, swap);
        Record read;
        EXPECT_EQ(Read(in.stream, read), moved);
        EXPECT_EQ(read, record);
    }
    IpcBufferBuild dry(nullptr, 0, false);
    DataStream measuring(&dry, false);
    EXPECT_EQ(write(measuring), moved);
}

// Whatever is missing reads as zeros, and takes nothing of what is there.
TEST(DataStreamTest, BytesThatBreakOffOrLie) {
    const auto reading = [](const std::string& bytes) { return std::make_unique<Block>(bytes, true); };
    int number = 7;
    const auto shorter = reading("\1\2\3");
    EXPECT_EQ(shorter->stream.ReadInt32(number), -1);
    EXPECT_EQ(number, 0);
    EXPECT_EQ(shorter->stream.ReadInt64(), 0);
    EXPECT_EQ(shorter->stream.ReadDouble(), 0);
    EXPECT_EQ(shorter->stream.ReadInt16(), 0x0201);
    const struct {
        std::string bytes;
        int moved;
        std::string text;
    } cases[] = {{"", 0, ""},
                 {"\5"s, 0, ""},
                 {"\0\0a"s, 0, ""},
                 {"\xFF\xFF"
                  "a",
                  0, ""},
                 {"\3\0ab"s, 1, "\0\0\0"s},
                 {"\2\0ab"s, 4, "ab"}};
    for (const auto& [bytes, moved, text] : cases) {
        std::string read = "before";
        EXPECT_EQ(reading(bytes)->stream.ReadString(read), moved);
        EXPECT_EQ(read, text);
        EXPECT_EQ(reading(bytes)->stream.ReadString(), text);
    }
    Strings texts;
    EXPECT_EQ(reading("\xFF\xFF\xFF\xFF"s)->stream.ReadUtf8StringArray(texts), 4) << "fewer than none";
    EXPECT_EQ(reading("\3\0\0\0\1\0a"s)->stream.ReadUtf8StringArray(texts), 4 + 3);
    EXPECT_EQ(texts, (Strings{"a", "", ""}));
    std::string line;
    EXPECT_EQ(reading("without an end")->stream.ReadLine(line), 14);
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
