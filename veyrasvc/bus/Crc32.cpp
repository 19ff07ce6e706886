#include "veyrasvc/bus/Crc32.h"

#include <isa-l/crc.h>

#include <array>

namespace Vantor::Sentrix {

namespace {

using ByteTable = std::array<std::uint32_t, 256>;

// What is left of a register after another byte of zeros, for each value of its low byte.
constexpr ByteTable kShiftedOut = [] {
    constexpr std::uint32_t kPolynomial = 0xEDB88320;
    ByteTable table{};
    for (std::uint32_t value = 0; value < table.size(); ++value) {
        std::uint32_t crc = value;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
        }
        table[value] = crc;
    }
    return table;
}();

constexpr std::uint32_t Shift(std::uint32_t crc) {
    return (crc >> 8) ^ kShiftedOut[crc & 0xFF];
}

// What a byte adds to the checksum of twelve, at each of their places.
constexpr std::array<ByteTable, 12> kAdded = [] {
    std::array<ByteTable, 12> added{};
    added.back() = kShiftedOut;
    for (std::size_t place = added.size() - 1; place > 0; --place) {
        for (std::size_t value = 0; value < 256; ++value) {
            added[place - 1][value] = Shift(added[place][value]);
        }
    }
    return added;
}();

constexpr std::uint32_t kOfTwelveZeros = [] {
    std::uint32_t crc = 0xFFFFFFFF;
    for (int i = 0; i < 12; ++i) {
        crc = Shift(crc);
    }
    return ~crc;
}();

} // namespace

std::uint32_t Crc32(const void* bytes, std::size_t count) {
    return crc32_gzip_refl(0, static_cast<const unsigned char*>(bytes), count);
}

// A CRC is linear: what the bytes add does not depend on each other.
std::uint32_t Crc32OfTwelve(const void* bytes) {
    const auto* at = static_cast<const unsigned char*>(bytes);
    std::uint32_t crc = kOfTwelveZeros;
    for (const ByteTable& added : kAdded) {
        crc ^= added[*at++];
    }
    return crc;
}

} // namespace Vantor::Sentrix
