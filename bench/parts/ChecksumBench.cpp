// The checksum of the frames beside the library that computes it, and beside a copy of the same bytes.
#include "bench/parts/Part.h"
#include "veyrasvc/bus/Crc32.h"

#include <isa-l/crc.h>

using namespace Vantor::Sentrix;

namespace {

std::uint32_t LibraryCrc32(const std::string& bytes) {
    return crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

void Ours(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const std::uint32_t expected = LibraryCrc32(bytes);
    Measure(state, [&] { return Crc32(bytes.data(), bytes.size()) == expected; });
}

void OursOfTwelve(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const std::uint32_t expected = LibraryCrc32(bytes);
    Measure(state, [&] { return Crc32OfTwelve(bytes.data()) == expected; });
}

void Library(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const std::uint32_t expected = Crc32(bytes.data(), bytes.size());
    Measure(state, [&] { return LibraryCrc32(bytes) == expected; });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(argc, argv,
                    {{"Crc32", Ours, {{"crc32_gzip_refl", Library}, {"memcpy", MeasureCopy}}},
                     {"Crc32OfTwelve", OursOfTwelve, {{"crc32_gzip_refl", Library}}, {12}}});
}
