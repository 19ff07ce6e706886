// Packing into a buffer of known size and unpacking: records of two integers and a short string.
#include "bench/parts/Part.h"
#include "veyrasvc/stream/DataStream.h"

using namespace Vantor::Sentrix;

namespace {

// With two integers of 4 bytes and the string's own length of 2.
constexpr std::size_t kRecordBytes = 64;
constexpr std::size_t kTextBytes = kRecordBytes - 10;

bool PackAll(std::string& buffer, const std::string& text) {
    IpcBufferBuild channel(buffer.data(), static_cast<unsigned int>(buffer.size()), false);
    NxIpcPackage package(&channel);
    int packed = 0;
    for (std::size_t at = 0; at < buffer.size(); at += kRecordBytes) {
        packed += package.PacketInt(static_cast<int>(at)) + package.PacketUInt(7) + package.PacketString(text);
    }
    return packed == static_cast<int>(buffer.size());
}

void Pack(benchmark::State& state) {
    const std::string text = Bytes(kTextBytes);
    std::string buffer(Size(state), '\0');
    Measure(state, [&] { return PackAll(buffer, text); });
}

void Unpack(benchmark::State& state) {
    std::string buffer(Size(state), '\0');
    PackAll(buffer, Bytes(kTextBytes));
    std::string text;
    Measure(state, [&] {
        IpcBufferBuild channel(buffer.data(), static_cast<unsigned int>(buffer.size()), true);
        NxIpcPackage package(&channel);
        int unpacked = 0;
        for (std::size_t at = 0; at < buffer.size(); at += kRecordBytes) {
            int place = 0;
            unsigned int seven = 0;
            unpacked += package.UnpacketInt(place) + package.UnpacketUInt(seven) + package.UnpacketString(text);
        }
        return unpacked == static_cast<int>(buffer.size());
    });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(argc, argv,
                    {{"Pack", Pack, {{"memcpy", MeasureCopy}}}, {"Unpack", Unpack, {{"memcpy", MeasureCopy}}}});
}
