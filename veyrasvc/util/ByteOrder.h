// Integers in the byte orders of the wire, at any address.
#pragma once

#include <cstdint>
#include <cstring>

namespace Vantor::Sentrix {

inline std::uint32_t LoadBigEndian32(const void* from) {
    unsigned char b[4];
    std::memcpy(b, from, sizeof b);
    return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) | b[3];
}

inline void StoreBigEndian32(void* to, std::uint32_t value) {
    const unsigned char b[4] = {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
                                static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    std::memcpy(to, b, sizeof b);
}

inline std::uint32_t LoadLittleEndian32(const void* from) {
    unsigned char b[4];
    std::memcpy(b, from, sizeof b);
    return (std::uint32_t{b[3]} << 24) | (std::uint32_t{b[2]} << 16) | (std::uint32_t{b[1]} << 8) | b[0];
}

inline void StoreLittleEndian32(void* to, std::uint32_t value) {
    const unsigned char b[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                                static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    std::memcpy(to, b, sizeof b);
}

} // namespace Vantor::Sentrix
