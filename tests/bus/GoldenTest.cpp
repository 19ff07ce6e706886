// The bytes that both systems agree on: files that golden/make.py wrote without the library.
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/PayloadCipher.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace Vantor::Sentrix {
namespace {

std::string Golden(const std::string& name) {
    std::ifstream file(std::string(GOLDEN_FOLDER) + "/" + name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

BasePacket PacketWith(const std::vector<std::uint32_t>& ids, std::string iv, const std::string& body) {
    BasePacket packet;
    packet.SetTo(ids[0]);
    packet.SetFrom(ids[1]);
    packet.SetMsgId(ids[2]);
    packet.SetMsgType(ids[3]);
    packet.SetReplyMsgId(ids[4]);
    packet.SetUniqMsgId(ids[5]);
    packet.SetEncrypted(!iv.empty());
    packet.SetIv(std::move(iv));
    packet.SetBody(body);
    return packet;
}

std::string FrameOf(const BasePacket& packet) {
    std::string frame;
    packet.BuildFrame(frame);
    return frame;
}

BasePacket ReadFrame(const std::string& frame) {
    BasePacket packet;
    packet.DeserializeFrame({nullptr, frame});
    return packet;
}

TEST(GoldenTest, FramesAreReadAndWrittenByteForByte) {
    std::string body(256, '\0');
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>(i);
    }
    const std::string golden = Golden("plain.frame");
    EXPECT_EQ(FrameOf(PacketWith({0x900001, 0x800002, 7, 0xFFFFFFFF, 8, 0xFFFFFFFF}, "", body)), golden);
    const BasePacket read = ReadFrame(golden);
    EXPECT_EQ(read.GetBody(), body);
    EXPECT_EQ(FrameOf(read), golden);
}

TEST(GoldenTest, BodiesAreEncipheredUnderTheKeyOfTheBuild) {
    if (!USES_DEVELOPMENT_KEY) {
        GTEST_SKIP() << "the file was written with the development key";
    }
    const std::string text = "gr\xc3\xbc\xc3\x9f"
                             "e \xf0\x9f\x98\x80\n";
    const std::string golden = Golden("enciphered.frame");
    const BasePacket read = ReadFrame(golden);
    char* plain = nullptr;
    std::size_t length = 0;
    ASSERT_TRUE(read.DecryptBody(plain, length));
    EXPECT_EQ(std::string(plain, length), text);
    ::operator delete(plain);

    std::string cipher(text.size() + 16, '\0');
    auto bytesOf = [](const std::string& of) { return reinterpret_cast<const unsigned char*>(of.data()); };
    ASSERT_EQ(EncryptCbc(bytesOf(read.GetIv()), bytesOf(text), text.size(),
                         reinterpret_cast<unsigned char*>(cipher.data()), &length),
              0);
    cipher.resize(length);
    EXPECT_EQ(FrameOf(PacketWith({0, 0x10000, 0x10004, 0x10004, 0, 1}, read.GetIv(), cipher)), golden);
}

TEST(GoldenTest, WideStringsAndFileTimesAreTheSameOnEverySystem) {
    std::wstring text = L"a\u20ac\U0001F600\U0010FFFF";
    text += static_cast<wchar_t>(0xD800); // half of a pair
    const FILETIME time{0x89ABCDEF, 0x01234567};
    const std::vector<std::wstring> list = {L"\U00010000", L"z"};
    const std::map<std::string, std::string> map = {{"key", ""}};
    MemoryrStream stream;
    StreamWriter writer(&stream);
    writer.Write(text);
    writer.Write(time);
    writer.Write(std::int64_t{-2});
    writer.Write(list);
    writer.Write(map);
    EXPECT_EQ(stream.ToString(), Golden("values.stream"));

    stream.Seek(0, FILE_BEGIN);
    StreamReader reader(&stream);
    EXPECT_EQ(reader.ReadWString(), text);
    const FILETIME readTime = reader.ReadFileTime();
    EXPECT_EQ(readTime.dwLowDateTime, time.dwLowDateTime);
    EXPECT_EQ(readTime.dwHighDateTime, time.dwHighDateTime);
    EXPECT_EQ(reader.ReadInt64(), -2);
    std::vector<std::wstring> readList;
    std::map<std::string, std::string> readMap;
    reader.Read(readList);
    reader.Read(readMap);
    EXPECT_EQ(readList, list);
    EXPECT_EQ(readMap, map);
}

} // namespace
} // namespace Vantor::Sentrix
