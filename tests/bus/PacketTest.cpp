// Packets and frames, held against bytes written out and against the raw peer's own reading of the wire.
#include "tests/support/BusProgram.h"
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/Crc32.h"
#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/bus/PayloadCipher.h"

#include <algorithm>
#include <random>
#include <set>

namespace Vantor::Sentrix {
namespace {

using Frames = std::vector<std::string>;

const RawPacket kFull = {0x50000, 0xFFFFFFFF, 0x11223344, 0x10004, 0xFFFFFFFE, 7, 1, Pattern(16), "hi"};

std::string FromHex(std::string hex) {
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

BasePacket PacketOf(const RawPacket& raw) {
    BasePacket packet;
    packet.SetTo(raw.to);
    packet.SetFrom(raw.from);
    packet.SetMsgId(raw.msgId);
    packet.SetMsgType(raw.msgType);
    packet.SetReplyMsgId(raw.replyMsgId);
    packet.SetUniqMsgId(raw.uniqMsgId);
    packet.SetEncrypted(raw.encrypted != 0);
    packet.SetIv(raw.iv);
    packet.SetBody(raw.body);
    return packet;
}

std::string FrameOf(const BasePacket& packet) {
    std::string frame;
    EXPECT_TRUE(packet.BuildFrame(frame));
    return frame;
}

// The frames that are found in the pieces, and whether they stay in step. Inside a long frame the bytes may be put
// where they belong.
std::pair<Frames, bool> Cut(const Frames& pieces, bool usesRoom) {
    constexpr std::size_t kWorthwhile = 4096;
    FrameCutter cutter;
    Frames frames;
    const auto keep = [&](const SharedBytes& one) { frames.emplace_back(one.bytes); };
    bool inStep = true;
    for (std::string_view piece : pieces) {
        for (auto room = cutter.Room(kWorthwhile); usesRoom && !room.empty() && !piece.empty();
             room = cutter.Room(kWorthwhile)) {
            const std::size_t put = piece.copy(room.data(), room.size());
            cutter.Filled(put, keep);
            piece.remove_prefix(put);
        }
        inStep = inStep && cutter.Feed({nullptr, piece}, keep);
    }
    return {frames, inStep};
}

std::pair<Frames, bool> CutByPeer(std::string stream) {
    Frames frames;
    bool corrupt = false;
    while (auto frame = CutRawFrame(stream, corrupt)) {
        frames.push_back(std::move(*frame));
    }
    return {frames, !corrupt};
}

Frames Pieces(const std::string& stream, std::size_t longest, std::mt19937& random) {
    Frames pieces;
    for (std::size_t at = 0; at < stream.size(); at += pieces.back().size()) {
        pieces.push_back(stream.substr(at, random() % longest + 1));
    }
    return pieces;
}

// Blocks chained by hand over the block transform.
std::string Chained(const std::string& padded, std::string chain) {
    std::string cipher;
    for (const char byte : padded) {
        char& link = chain[cipher.size() % 16];
        link = static_cast<char>(link ^ byte);
        cipher.push_back('\0');
        if (cipher.size() % 16 == 0) {
            auto* const block = reinterpret_cast<unsigned char*>(chain.data());
            EXPECT_EQ(EncryptBlock(block, block), 0);
            cipher.replace(cipher.size() - 16, 16, chain);
        }
    }
    return cipher;
}

std::optional<std::string> Deciphered(const std::string& iv, const std::string& body) {
    char* plain = nullptr;
    std::size_t length = 0;
    if (!PacketOf({.encrypted = 1, .iv = iv, .body = body}).DecryptBody(plain, length)) {
        EXPECT_EQ(plain, nullptr);
        return std::nullopt;
    }
    std::string text(plain, length);
    ::operator delete(plain);
    return text;
}

TEST(PacketTest, AFrameIsThoseBytes) {
    const RawPacket packet = {0x900001, 0x900002, 1, 0xFFFFFFFF, 0xFFFFFFFF, 7, 0, "", "Ada"};
    const std::string bytes = FromHex(
        "00000027 00000000 2a1d4073 7f4139ff 00900001 00900002 00000001 ffffffff ffffffff 00000007 00000000 00000000"
        "00000003 416461");
    EXPECT_EQ(FrameOf(PacketOf(packet)), bytes);
    EXPECT_EQ(packet.Frame(), bytes);
}

// The library takes other ways for other lengths and other processors.
TEST(PacketTest, TheChecksumIsTheStandardOne) {
    EXPECT_EQ(Crc32("123456789", 9), 0xCBF43926U);
    EXPECT_EQ(Crc32(nullptr, 0), 0U);
    const std::string bytes = Pattern(66000);
    for (std::size_t length = 0; length + 12 <= bytes.size(); length += length < 1200 ? 1 : 1620) {
        const std::string_view part(bytes.data() + length % 17, std::min(length, bytes.size() - 17));
        ASSERT_EQ(Crc32(part.data(), part.size()), RawCrc(part)) << part.size() << " bytes";
        const std::string_view twelve(bytes.data() + length, 12);
        ASSERT_EQ(Crc32OfTwelve(twelve.data()), RawCrc(twelve));
    }
}

TEST(PacketTest, EveryFieldTravelsAndBytesThatAreMissingReadAsZero) {
    const std::string payload = kFull.Payload();
    EXPECT_EQ(FrameOf(PacketOf(kFull)), kFull.Frame());
    MemoryrStream stream;
    StreamWriter writer(&stream);
    PacketOf(kFull).Serialize(writer);
    EXPECT_EQ(stream.ToString(), payload);
    for (std::size_t length = 0; length <= payload.size(); ++length) {
        std::string cut = payload.substr(0, length);
        BasePacket packet = PacketOf(kFull);
        packet.DeserializeFrame({nullptr, std::string(FrameHeader::kSize, '\0') + cut});
        cut.resize(payload.size());
        EXPECT_EQ(FrameOf(packet), ParseRawFrame(RawFrame(cut)).Frame()) << length;
    }
}

// Short bodies stay in the packet, longer ones beside it; a head that finds no room in front of either goes elsewhere.
TEST(PacketTest, BodiesOfAnyLengthTravelAndCopiesKeepTheirOwn) {
    BasePacket used = PacketOf({.body = Pattern(1000)});
    for (const std::size_t ivLength : {0U, 16U, 200U}) {
        for (std::size_t length = 0; length < 300; ++length) {
            const RawPacket raw{.to = 1, .iv = Pattern(ivLength), .body = Pattern(length)};
            const BasePacket packet = PacketOf(raw);
            EXPECT_EQ(FrameOf(packet), raw.Frame()) << length;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(packet.GetBody().data()) % 16, 0U) << length;
            BasePacket read;
            read.DeserializeFrame({nullptr, raw.Frame()});
            const BasePacket copy = read;
            used.SetBody(raw.body);
            EXPECT_EQ(used.GetBody(), raw.body);
            read.SetBody("another");
            EXPECT_EQ(copy.GetBody(), raw.body) << length;
            EXPECT_EQ(FrameOf(copy), raw.Frame()) << length;
        }
    }
}

TEST(PacketTest, BodiesAreEncipheredUnderAFreshIvAndComeBack) {
    std::set<std::string> ivs;
    for (std::size_t length = 1; length <= 100; ++length) {
        const std::string text = Pattern(length);
        const std::size_t pad = 16 - length % 16;
        std::string cipher;
        std::string iv;
        ASSERT_TRUE(BasePacket::EncryptData(text.data(), length, cipher, iv));
        EXPECT_TRUE(ivs.insert(iv).second);
        EXPECT_EQ(cipher, Chained(text + std::string(pad, static_cast<char>(pad)), iv)) << length;
        EXPECT_EQ(Deciphered(iv, cipher), text) << length;
    }
    if (USES_DEVELOPMENT_KEY) { // what `openssl enc -aes-256-cbc` makes of it with that key
        EXPECT_EQ(Deciphered(FromHex("000102030405060708090a0b0c0d0e0f"), FromHex("bdee93e3ed3beeed64a1a3b117822339")),
                  "gr\xc3\xbc\xc3\x9f"
                  "e \xf0\x9f\x98\x80\n");
    }
    std::string unchanged = "kept";
    EXPECT_FALSE(BasePacket::EncryptData("x", 0, unchanged, unchanged));
    EXPECT_EQ(unchanged, "kept");
}

TEST(PacketTest, DamagedBodiesAreRefusedByTheirIvLengthAndPadding) {
    const std::string iv = Pattern(16);
    const std::string text = Pattern(32);
    const std::string whole = Chained(text.substr(0, 31) + '\1', iv);
    EXPECT_EQ(Deciphered(iv, whole), text.substr(0, 31));
    for (const auto& [otherIv, body] : {std::pair(iv.substr(1), whole),
                                        {iv + "x", whole},
                                        {"", whole},
                                        {iv, whole.substr(1)},
                                        {iv, whole.substr(17)},
                                        {iv, ""}}) {
        EXPECT_EQ(Deciphered(otherIv, body), std::nullopt);
    }
    // The last block is filled with one byte and ends in another; a whole block stands before it.
    struct Case {
        char fill;
        char last;
        std::optional<std::size_t> textLength;
    };
    for (const auto& [fill, last, textLength] : {Case{9, 0, 32},
                                                 {9, 1, 31},
                                                 {9, 2, {}},
                                                 {2, 2, 30},
                                                 {15, 16, {}},
                                                 {16, 16, 16},
                                                 {17, 17, {}},
                                                 {9, -1, {}},
                                                 {0, -128, {}}}) {
        const std::string padded = text.substr(0, 16) + std::string(15, fill) + last;
        const auto expected = textLength ? std::optional(padded.substr(0, *textLength)) : std::nullopt;
        EXPECT_EQ(Deciphered(iv, Chained(padded, iv)), expected) << int{fill} << " " << int{last};
    }
    EXPECT_EQ(Deciphered(iv, Chained(std::string(16, 16), iv)), std::nullopt) << "nothing but padding";
}

TEST(FrameTest, FramesAreTheSameInWhateverPiecesTheyCome) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 200; ++round) {
        std::string stream;
        for (auto left = random() % 6; left > 0; --left) {
            stream += RawFrame(Pattern(random() % 3 == 0 ? random() % 20000 : random() % 40),
                               static_cast<std::uint32_t>(random()));
        }
        if (random() % 2 == 0) {
            stream.resize(stream.size() - std::min<std::size_t>(stream.size(), random() % 30)); // the last is cut off
        }
        if (random() % 3 == 0 && !stream.empty()) {
            stream[random() % stream.size()] ^= 1; // in a header or in a payload
        }
        for (const std::size_t longest : {stream.size() + 1, std::size_t{1}, std::size_t{1} << (random() % 14)}) {
            EXPECT_EQ(Cut(Pieces(stream, longest, random), round % 2 == 0), CutByPeer(stream)) << round;
        }
    }
    const std::string huge = RawFrame(Pattern(40 << 20)); // more than is reserved at once
    EXPECT_TRUE(Cut({huge.substr(0, 100), huge.substr(100) + huge}, true) == std::pair(Frames{huge, huge}, true));
}

} // namespace
} // namespace Vantor::Sentrix
