// The checksum of the frames: the standard reflected CRC-32 (polynomial 0xEDB88320), zlib's values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantor::Sentrix {

// Threads: any.

// 0 for no bytes.
std::uint32_t Crc32(const void* bytes, std::size_t count);
// The same of exactly twelve bytes, which is what a header has: several times as fast, because so few gain nothing from
// what the other does for many.
std::uint32_t Crc32OfTwelve(const void* bytes);

} // namespace Vantor::Sentrix
