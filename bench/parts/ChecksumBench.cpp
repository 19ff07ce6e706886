// The checksum of the frames beside the library that computes it, and beside a copy of the same bytes.
#include "bench/parts/Part.h"
#include "veyrasvc/bus/Crc32.h"

#include <libdeflate.h>

using namespace Vantor::Sentrix;

namespace {

void Ours(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const std::uint32_t expected = libdeflate_crc32(0, bytes.data(), bytes.size());
    Measure(state, [&] { return Crc32(bytes.data(), bytes.size()) == expected; });
}

void Library(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const std::uint32_t expected = Crc32(bytes.data(), bytes.size());
    Measure(state, [&] { return libdeflate_crc32(0, bytes.data(), bytes.size()) == expected; });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(argc, argv, {{"Crc32", Ours, {{"libdeflate_crc32", Library}, {"memcpy", MeasureCopy}}}});
}
