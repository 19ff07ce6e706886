// The checksum of the frames: the standard reflected CRC-32 (polynomial 0xEDB88320), zlib's values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantor::Sentrix {

// 0 for no bytes.
// Threads: any.
std::uint32_t Crc32(const void* bytes, std::size_t count);

} // namespace Vantor::Sentrix
