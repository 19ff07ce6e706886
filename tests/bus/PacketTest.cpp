// Packets and frames, held against bytes written out and against the raw peer's own reading of the wire.
#include "tests/support/BusProgram.h"
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/Frame.h"

#include <algorithm>
#include <random>

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

RawPacket RawOf(const BasePacket& packet) {
    return {packet.GetTo(),        packet.GetFrom(),       packet.GetMsgId(),
            packet.GetMsgType(),   packet.GetReplyMsgId(), packet.GetUniqMsgId(),
            packet.GetEncrypted(), packet.GetIv(),         packet.GetBody()};
}

// The frames that a cutter finds in the pieces, and whether it stays in step.
std::pair<Frames, bool> Cut(FrameCutter& cutter, const Frames& pieces) {
    Frames frames;
    bool inStep = true;
    for (const std::string& piece : pieces) {
        inStep = inStep && cutter.Feed(piece, [&](const FrameCutter::Frame& one) { frames.emplace_back(one.bytes); });
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

TEST(PacketTest, FramesAreThoseBytes) {
    const std::pair<RawPacket, const char*> cases[] = {
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
    };
    for (const auto& [packet, bytes] : cases) {
        std::string frame = "kept";
        EXPECT_TRUE(PacketOf(packet).BuildFrame(frame));
        EXPECT_EQ(frame, "kept" + FromHex(bytes));
        EXPECT_EQ(packet.Frame(), FromHex(bytes));
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

TEST(PacketTest, BodiesAreDecipheredByTheirIv) {
    RawPacket raw = kFull;
    ASSERT_TRUE(BasePacket::EncryptData("secret", 6, raw.body, raw.iv));
    char* plain = nullptr;
    std::size_t length = 0;
    ASSERT_TRUE(PacketOf(raw).DecryptBody(plain, length));
    EXPECT_EQ(std::string(plain, length), "secret");
    ::operator delete(std::exchange(plain, nullptr));
    for (const auto& [iv, body] : {std::pair(raw.iv.substr(1), raw.body),
                                   {raw.iv + "x", raw.body},
                                   {"", raw.body},
                                   {raw.iv, raw.body.substr(1)},
                                   {raw.iv, ""}}) {
        EXPECT_FALSE(PacketOf({.encrypted = 1, .iv = iv, .body = body}).DecryptBody(plain, length));
        EXPECT_EQ(plain, nullptr);
    }
    raw.body = raw.iv = "kept";
    EXPECT_FALSE(BasePacket::EncryptData("x", 0, raw.body, raw.iv));
    EXPECT_EQ(raw.body + raw.iv, "keptkept");
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
            FrameCutter cutter;
            EXPECT_EQ(Cut(cutter, Pieces(stream, longest, random)), CutByPeer(stream)) << round;
        }
    }
}

TEST(FrameTest, BytesOutOfStepAreDroppedAndALieAboutTheLengthIsNoHarm) {
    const std::string frame = kFull.Frame();
    FrameCutter cutter;
    EXPECT_EQ(Cut(cutter, {frame + "0123456789abcdef" + frame}), std::pair(Frames{frame}, false));
    EXPECT_EQ(Cut(cutter, {"0123456789abcde"}), std::pair(Frames{}, true)) << "too short to be judged";
    EXPECT_EQ(Cut(cutter, {"f" + frame}), std::pair(Frames{}, false));
    EXPECT_EQ(Cut(cutter, {frame}), std::pair(Frames{frame}, true));
    for (const std::uint32_t announced : {0xFFFFFFFFU, 0xFFFFFFF0U}) {
        FrameCutter patient;
        EXPECT_EQ(Cut(patient, {RawHeader(announced, 0) + std::string(100'000, 'x')}), std::pair(Frames{}, true));
    }
}

} // namespace
} // namespace Vantor::Sentrix
