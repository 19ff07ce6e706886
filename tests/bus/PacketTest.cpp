// Packets and frames, held against bytes written out and against the raw peer's own reading of the wire.
#include "tests/support/BusProgram.h"
#include "tests/support/RawPeer.h"
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace Vantor::Sentrix {
namespace {

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

RawPacket RawOf(const BasePacket& packet) {
    return {packet.GetTo(),        packet.GetFrom(),       packet.GetMsgId(),
            packet.GetMsgType(),   packet.GetReplyMsgId(), packet.GetUniqMsgId(),
            packet.GetEncrypted(), packet.GetIv(),         packet.GetBody()};
}

const RawPacket kFull = {0x50000, 0xFFFFFFFF, 0x11223344, 0x10004, 0xFFFFFFFE, 7, 1, Pattern(16), "hi"};

// What the library and the raw peer make of a byte stream that arrives in these pieces.
using Frames = std::vector<std::string>;

Frames CutByLibrary(const std::string& stream, const std::vector<std::size_t>& pieces, bool& inStep) {
    FrameCutter cutter;
    Frames frames;
    std::size_t at = 0;
    inStep = true;
    for (const std::size_t piece : pieces) {
        inStep = inStep && cutter.Feed(std::string_view(stream).substr(at, piece),
                                       [&](const FrameCutter::Frame& frame) { frames.emplace_back(frame.bytes); });
        at += piece;
    }
    return frames;
}

Frames CutByPeer(std::string stream, bool& inStep) {
    Frames frames;
    bool corrupt = false;
    while (auto frame = CutRawFrame(stream, corrupt)) {
        frames.push_back(std::move(*frame));
    }
    inStep = !corrupt;
    return frames;
}

std::vector<std::size_t> RandomPieces(std::size_t length, std::mt19937& random) {
    std::vector<std::size_t> pieces;
    const std::size_t longest = std::size_t{1} << (random() % 14);
    while (length > 0) {
        pieces.push_back(std::min<std::size_t>(length, random() % longest + 1));
        length -= pieces.back();
    }
    return pieces;
}

// ---- Packets -------------------------------------------------------------------------------------------------------

TEST(PacketTest, FramesAreThoseBytes) {
    struct Case {
        RawPacket packet;
        const char* bytes;
    };
    const Case cases[] = {
        {{},
         "00000024 00000000 6ab6b2d5 11ca6a64 00000000 00000000 00000000 00000000 00000000 00000000 00000000"
         "00000000 00000000"},
        {{.to = 0x900001,
          .from = 0x900002,
          .msgId = 1,
          .msgType = 0xFFFFFFFF,
          .replyMsgId = 0xFFFFFFFF,
          .uniqMsgId = 7,
          .body = "Ada"},
         "00000027 00000000 2a1d4073 7f4139ff 00900001 00900002 00000001 ffffffff ffffffff 00000007 00000000 00000000"
         "00000003 416461"},
        {{.to = 0x10000, .from = 4242, .msgId = 0x10001, .body = "8519680 8585216 "},
         "00000034 00000000 375b8a78 9aafdf37 00010000 00001092 00010001 00000000 00000000 00000000 00000000 00000000"
         "00000010 3835313936383020 3835383532313620"},
    };
    for (const Case& one : cases) {
        std::string frame = "kept";
        EXPECT_TRUE(PacketOf(one.packet).BuildFrame(frame));
        EXPECT_EQ(frame, "kept" + FromHex(one.bytes));
        EXPECT_EQ(one.packet.Frame(), FromHex(one.bytes));
    }
}

TEST(PacketTest, EveryFieldTravelsAndBytesThatAreMissingReadAsZero) {
    const std::string payload = kFull.Payload();
    std::string frame;
    PacketOf(kFull).BuildFrame(frame);
    EXPECT_EQ(frame, kFull.Frame());
    for (std::size_t length = 0; length <= payload.size(); ++length) {
        std::string cut = payload.substr(0, length);
        BasePacket packet = PacketOf(kFull);
        packet.DeserializeFrom(cut.data(), cut.size());
        cut.resize(payload.size());
        EXPECT_EQ(RawOf(packet), ParseRawFrame(RawFrame(cut))) << length;
    }
}

TEST(PacketTest, BodiesAreDecipheredByTheirFlagAndIvAlone) {
    RawPacket raw = kFull;
    ASSERT_TRUE(BasePacket::EncryptData("secret", 6, raw.body, raw.iv));
    char* plain = nullptr;
    std::size_t length = 0;
    ASSERT_TRUE(PacketOf(raw).DecryptBody(plain, length));
    EXPECT_EQ(std::string(plain, length), "secret");
    ::operator delete(plain);

    const auto fails = [](const RawPacket& packet) {
        char* untouched = nullptr;
        std::size_t count = 99;
        return !PacketOf(packet).DecryptBody(untouched, count) && untouched == nullptr && count == 99;
    };
    EXPECT_TRUE(fails({.encrypted = 1, .iv = raw.iv.substr(1), .body = raw.body}));
    EXPECT_TRUE(fails({.encrypted = 1, .iv = raw.iv + "x", .body = raw.body}));
    EXPECT_TRUE(fails({.encrypted = 1, .iv = raw.iv, .body = raw.body.substr(1)}));
    EXPECT_TRUE(fails({.encrypted = 1, .iv = raw.iv, .body = ""}));
    raw.body = raw.iv = "kept";
    EXPECT_FALSE(BasePacket::EncryptData("x", 0, raw.body, raw.iv));
    EXPECT_FALSE(BasePacket::EncryptData(nullptr, 1, raw.body, raw.iv));
    EXPECT_EQ(raw.body + raw.iv, "keptkept");
}

// ---- Frames --------------------------------------------------------------------------------------------------------

TEST(FrameTest, FramesAreTheSameInWhateverPiecesTheyCome) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 200; ++round) {
        std::string stream;
        for (auto left = random() % 6; left > 0; --left) {
            stream += RawFrame(Pattern(random() % 3 == 0 ? random() % 20000 : random() % 40),
                               static_cast<std::uint32_t>(random()));
        }
        if (random() % 2 == 0 && !stream.empty()) {
            stream.resize(stream.size() -
                          random() % std::min<std::size_t>(stream.size(), 30)); // the last one is cut off
        }
        if (random() % 3 == 0 && !stream.empty()) {
            stream[random() % stream.size()] ^= 1; // in a header or in a payload
        }
        bool peerInStep = false;
        const Frames expected = CutByPeer(stream, peerInStep);
        const std::vector<std::vector<std::size_t>> ways = {
            {stream.size()}, std::vector<std::size_t>(stream.size(), 1), RandomPieces(stream.size(), random)};
        for (const auto& pieces : ways) {
            bool inStep = false;
            EXPECT_EQ(CutByLibrary(stream, pieces, inStep), expected) << round;
            EXPECT_EQ(inStep, peerInStep) << round;
        }
    }
}

TEST(FrameTest, OutOfStepBytesAreDroppedAndTheNextFrameIsFound) {
    FrameCutter cutter;
    Frames frames;
    const auto feed = [&](const std::string& bytes) {
        return cutter.Feed(bytes, [&](const FrameCutter::Frame& frame) { frames.emplace_back(frame.bytes); });
    };
    EXPECT_FALSE(feed(kFull.Frame() + "0123456789abcdef" + kFull.Frame()));
    EXPECT_TRUE(feed("0123456789abcde")) << "too short to be judged";
    EXPECT_FALSE(feed("f" + kFull.Frame()));
    EXPECT_TRUE(feed(kFull.Frame()));
    EXPECT_EQ(frames, (Frames{kFull.Frame(), kFull.Frame()}));
}

TEST(FrameTest, AnAnnouncementOfFourGigabytesCostsNothingAndDoesNotWrapAround) {
    for (const std::uint32_t announced : {0xFFFFFFFFU, 0xFFFFFFF0U}) {
        const std::string words = BigEndian(announced) + BigEndian(0) + BigEndian(0);
        std::string stream = words + BigEndian(RawCrc(words)) + std::string(100'000, 'x');
        bool inStep = false;
        EXPECT_EQ(CutByLibrary(stream, {stream.size()}, inStep), Frames{});
        EXPECT_TRUE(inStep);
    }
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    return Vantor::Sentrix::RunBusProgram(argc, argv);
}
