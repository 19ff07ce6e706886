#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/stream/SpanStream.h"
#include "veyrasvc/stream/StringStream.h"

#include <gtest/gtest.h>

#include <random>

using namespace Vantor::Sentrix;

namespace {

using Strings = std::vector<std::string>;
using WideStrings = std::vector<std::wstring>;
using Map = std::map<std::string, std::string>;
using WideMap = std::map<std::wstring, std::wstring>;

// Some of everything that can be read and written.
struct Record {
    int number = 0;
    std::uint64_t big = 0;
    std::string text;
    std::wstring wide;
    std::vector<int> numbers;
    Strings texts;
    WideMap map;
    bool operator==(const Record&) const = default;
};

std::string Encode(const Record& record) {
    std::string bytes = "before";
    StringStream stream(bytes);
    StreamWriter writer(&stream);
    std::apply([&writer](const auto&... values) { (writer.Write(values), ...); },
               std::tie(record.number, record.big, record.text, record.wide, record.numbers, record.texts, record.map));
    return bytes.substr(6);
}

Record Decode(Stream&& stream) {
    stream.SetPosition(0);
    StreamReader reader(&stream);
    Record record{reader.ReadInt(), reader.ReadUInt64(), reader.ReadString(), reader.ReadWString(), {}, {}, {}};
    reader.Read(record.numbers);
    reader.Read(record.texts);
    reader.Read(record.map);
    return record;
}

// A class of its own, so that the reader cannot know what its Read does.
struct DerivedStream : MemoryrStream {
    using MemoryrStream::MemoryrStream;
};

// Decodes from every kind of stream; they must agree.
Record DecodeFromAll(const std::string& bytes) {
    const int size = static_cast<int>(bytes.size());
    Record record = Decode(DerivedStream(bytes.data(), size));
    EXPECT_EQ(Decode(MemoryrStream(bytes.data(), size)), record);
    EXPECT_EQ(Decode(SpanStream(bytes.data(), bytes.size())), record);
    return record;
}

template <class T> std::string Written(const T& value) {
    MemoryrStream stream;
    StreamWriter(&stream).Write(value);
    return stream.ToString();
}

template <std::size_t N> std::string Bytes(const char (&literal)[N]) {
    return std::string(literal, N - 1);
}

class SerializerTest : public testing::Test {
protected:
    LogCapture log;
};

TEST_F(SerializerTest, WritesTheseBytes) {
    EXPECT_EQ(Written(1), Bytes("\0\0\0\1"));
    EXPECT_EQ(Written(std::uint64_t{0x0102030405060708}), Bytes("\1\2\3\4\5\6\7\x08"));
    EXPECT_EQ(Written(std::int64_t{-2}), std::string(7, '\xFF') + "\xFE");
    EXPECT_EQ(Written(-2LL) + Written(2ULL), std::string(7, '\xFF') + "\xFE" + Bytes("\0\0\0\0\0\0\0\2"));
    EXPECT_EQ(Written(std::string("abc")), Bytes("\0\0\0\3abc"));
    EXPECT_EQ(Written(std::wstring(L"a\U0001F600")), Bytes("\0\0\0\6\0a\xD8\x3D\xDE\x00"));
    EXPECT_EQ(Written(1.5F), Bytes("\0\0\0\x08") + "1.500000");
    EXPECT_EQ(Written(std::numeric_limits<float>::lowest()).size(), 4U + 1 + 39 + 7);
    EXPECT_EQ(Written(FILETIME{1, 2}), Bytes("\0\0\0\1\0\0\0\2"));
    EXPECT_EQ(Written(std::vector<unsigned int>{7, 8}), Bytes("\0\0\0\2\0\0\0\7\0\0\0\x08"));
    EXPECT_EQ(SerializeToString(Map{{"b", "y"}, {"a", "x"}}), Bytes("\0\0\0\2\0\0\0\1a\0\0\0\1x\0\0\0\1b\0\0\0\1y"));
}

TEST_F(SerializerTest, SurrogatesTravel) {
    constexpr wchar_t kHigh = 0xD83D;
    constexpr wchar_t kLow = 0xDE00;
    const WideStrings alone{{L'a', kHigh}, {kLow, kHigh, L'b'}, {kLow, kLow}, {kHigh, kHigh}};
    EXPECT_EQ(DeserializeFromString<WideStrings>(SerializeToString(alone)), alone);
    const WideStrings met{{kHigh, kHigh, kLow}};
    EXPECT_EQ(DeserializeFromString<WideStrings>(SerializeToString(met)),
              WideStrings{kHigh + std::wstring(L"\U0001F600")});
    if (sizeof(wchar_t) > 2) {
        const std::wstring none{static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
        EXPECT_EQ(Written(none), Bytes("\0\0\0\4\xFF\xFD\xFF\xFD"));
    }
    EXPECT_EQ(log.Take().size(), 0U);
}

TEST_F(SerializerTest, RecordsComeBackWholeAndBrokenOnesAlikeFromEveryStream) {
    const std::wstring wide = L"\x41\x00E9\x20AC\U0001F600\U0010FFFF\xFFFF";
    Record record{-7, ~7ULL, "text", wide, {1, -1}, {"", "two"}, {{L"", wide}, {wide, L""}}};
    std::mt19937 random(1);
    const std::string bytes = Encode(record);
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        DecodeFromAll(bytes.substr(0, cut));
        std::string damaged = bytes;
        damaged[cut] = static_cast<char>(random());
        DecodeFromAll(damaged);
    }
    log.Take();
    for (const std::size_t length : {4, 0xFFFF, 0x10000, 0x10001, 300000}) { // strings are read in pieces of 64 KiB
        record.text.assign(length, 't');
        record.wide.assign(length / 2, L'w');
        EXPECT_TRUE(DecodeFromAll(Encode(record)) == record) << length;
    }
    EXPECT_EQ(log.Take().size(), 0U);
}

TEST_F(SerializerTest, LengthsThatLie) {
    const std::string piece(0x10000, '\0');
    const std::string much(2 * piece.size(), 'x');
    const auto padded = [&piece](std::string text) { return text + piece.substr(text.size()); };
    const struct {
        std::string bytes, text, rest;
    } cases[] = {
        {Bytes("\0\0\0\5ab"), Bytes("ab\0\0\0"), ""},
        {Bytes("\0\1\0\1ab"), padded("ab"), ""}, // one more than is filled up
        {Bytes("\x7F\xFF\xFF\xFF") + "ab", padded("ab"), ""},
        {Bytes("\0\3\0\0") + much, much + piece, ""},
        {Bytes("\x7F\0\0\0") + much + "ab", much + padded("ab"), ""},
        {Bytes("\0\2\0\0") + much + "ab", much, "ab"},
        {Bytes("\x80\0\0\0ab"), "", "ab"},
    };
    for (const auto& [bytes, text, rest] : cases) {
        SpanStream span(bytes.data(), bytes.size());
        DerivedStream derived(bytes.data(), static_cast<int>(bytes.size()));
        for (Stream* stream : {static_cast<Stream*>(&span), static_cast<Stream*>(&derived)}) {
            stream->SetPosition(0);
            const std::string read = StreamReader(stream).ReadString();
            EXPECT_TRUE(read == text) << read.size() << " of " << text.size();
            EXPECT_EQ(stream->GetSize() - stream->GetPosition(), std::int64_t(rest.size()));
        }
    }
    SpanStream missing("\x12\x34", 2);
    EXPECT_EQ(StreamReader(&missing).ReadInt64(), 0x1234000000000000);
    const std::string wide = Bytes("\0\0\0\5\0\0\0\4\0a\xD8\x3D\x7F\xFF\xFF\xFE\0c\0");
    SpanStream stream(wide.data(), wide.size());
    StreamReader reader(&stream);
    EXPECT_EQ(reader.ReadWString(), L"") << "half a character too long";
    EXPECT_EQ(log.Errors("stream error"), 1);
    EXPECT_EQ(reader.ReadWString(), (std::wstring{L'a', wchar_t(0xD83D)}));
    EXPECT_TRUE(reader.ReadWString() == L'c' + std::wstring(0x7FFF, L'\0'));
}

// Without a bound each of these would take minutes and gigabytes. What came of the last element is kept.
TEST_F(SerializerTest, CountsThatLieAndKeysThatComeAgain) {
    const std::string count(4, '\xFF');
    const std::string one = Bytes("\0\0\0\1");
    EXPECT_EQ(DeserializeFromString<std::vector<int>>(count + one), std::vector<int>{1});
    EXPECT_EQ(DeserializeFromString<std::vector<unsigned int>>(count + one + "\5"),
              (std::vector<unsigned int>{1, 0x05000000}));
    EXPECT_EQ(DeserializeFromString<Strings>(count + one + "a" + one), (Strings{"a", Bytes("\0")}));
    EXPECT_EQ(DeserializeFromString<WideStrings>(count), WideStrings());
    EXPECT_EQ(DeserializeFromString<WideMap>(count + Bytes("\0\0\0\2\0k")), (WideMap{{L"k", L""}}));
    EXPECT_LT(log.Take().size(), 20U);

    Map map{{"a", "stays"}, {"k", "old"}};
    const std::string twice = Bytes("\0\0\0\2\0\0\0\1k\0\0\0\3mid\0\0\0\1k\0\0\0\3new");
    SpanStream again(twice.data(), twice.size());
    StreamReader(&again).Read(map);
    EXPECT_EQ(map, (Map{{"a", "stays"}, {"k", "new"}}));
}

} // namespace
