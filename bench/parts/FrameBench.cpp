// The steps between a body and its frame, each alone. RoadBench.cpp has them together.
#include "bench/parts/Part.h"
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/Crc32.h"

using namespace Vantor::Sentrix;

namespace {

BasePacket PacketOf(const std::string& body) {
    BasePacket packet;
    packet.SetTo(0x900001);
    packet.SetFrom(0x900002);
    packet.SetBody(body);
    return packet;
}

void SetBody(benchmark::State& state) {
    const std::string body = Bytes(Size(state));
    BasePacket packet;
    Measure(state, [&] {
        packet.SetBody(body);
        return packet.GetBody().size() == body.size();
    });
}

void ToFrame(benchmark::State& state) {
    const std::string body = Bytes(Size(state));
    const BasePacket packet = PacketOf(body);
    Measure(state, [&] { return packet.ToFrame().bytes.size() > body.size(); });
}

void CheckPayload(benchmark::State& state) {
    const BasePacket packet = PacketOf(Bytes(Size(state)));
    const SharedBytes frame = packet.ToFrame();
    Measure(state, [&] { return FrameHeader::IsPayloadIntact(frame.bytes); });
}

void Checksum(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const std::uint32_t expected = Crc32(bytes.data(), bytes.size());
    Measure(state, [&] { return Crc32(bytes.data(), bytes.size()) == expected; });
}

constexpr std::size_t kHeadBytes = 52;   // of a frame without IV, up to the body
constexpr std::size_t kFrameBytes = 128; // of one in a run

// As many frames as bytes were read at once, without one that breaks off.
void CutRun(benchmark::State& state) {
    std::string frames;
    while (frames.size() < Size(state)) {
        PacketOf(Bytes(kFrameBytes - kHeadBytes)).BuildFrame(frames);
    }
    FrameCutter cutter;
    Measure(state, [&] {
        std::size_t cut = 0;
        return cutter.Feed({nullptr, frames}, [&](const SharedBytes& frame) { cut += frame.bytes.size(); }) &&
               cut == frames.size();
    });
}

void HeadChecksums(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    Measure(state, [&] {
        for (std::size_t at = 0; at < bytes.size(); at += kFrameBytes) {
            benchmark::DoNotOptimize(Crc32OfTwelve(bytes.data() + at));
        }
        return true;
    });
}

// One frame that comes in two pieces, and so is put together elsewhere.
void CutBroken(benchmark::State& state) {
    std::string stream;
    PacketOf(Bytes(Size(state) - kHeadBytes)).BuildFrame(stream);
    const std::string_view frame = stream;
    FrameCutter cutter;
    Measure(state, [&] {
        bool isCut = false;
        const auto handle = [&](const SharedBytes& one) { isCut = one.bytes.size() == frame.size(); };
        return cutter.Feed({nullptr, frame.substr(0, 40)}, handle) && !isCut &&
               cutter.Feed({nullptr, frame.substr(40)}, handle) && isCut;
    });
}

// From a frame in somebody else's buffer, so that the body is copied. Where a frame has storage, nothing is.
void Decode(benchmark::State& state) {
    const BasePacket sent = PacketOf(Bytes(Size(state)));
    const SharedBytes frame = sent.ToFrame();
    Measure(state, [&] {
        BasePacket packet;
        packet.DeserializeFrame({nullptr, frame.bytes});
        return packet.GetBody().size() == Size(state);
    });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(argc, argv,
                    {{"SetBody", SetBody, {{"memcpy", MeasureCopy}}},
                     {"ToFrame", ToFrame, {{"Crc32", Checksum}}},
                     {"CheckPayload", CheckPayload, {{"Crc32", Checksum}}},
                     {"CutRun", CutRun, {{"Crc32OfTwelve", HeadChecksums}}, {4096, 65536}},
                     {"CutBroken", CutBroken, {{"memcpy", MeasureCopy}}},
                     {"Decode", Decode, {{"memcpy", MeasureCopy}}}});
}
