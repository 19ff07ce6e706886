// The arithmetic of a position that may stand anywhere, shared by the streams that keep one of their own.
#pragma once

#include "veyrasvc/stream/SimpleStream.h"

namespace Vantor::Sentrix {

// Bytes from the position to the end; 0 when the position is negative or past it.
inline std::int64_t BytesLeft(std::int64_t position, std::int64_t size) {
    return position < 0 || position >= size ? 0 : size - position;
}

// Where a seek leads; an origin that does not exist leads nowhere. Wraps around instead of overflowing.
inline std::int64_t SeekTarget(std::int64_t offset, int origin, std::int64_t position, std::int64_t size) {
    const auto from = [offset](std::int64_t base) {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(offset));
    };
    switch (origin) {
    case Stream::kFromStart:
        return offset;
    case Stream::kFromCurrent:
        return from(position);
    case Stream::kFromEnd:
        return from(size);
    default:
        return position;
    }
}

// The next `count` bytes of a block, with the position moved past them; null when fewer are left.
inline const char* TakeBytes(const char* block, std::int64_t size, std::int64_t& position, unsigned int count) {
    if (BytesLeft(position, size) < count) {
        return nullptr;
    }
    const char* bytes = block + position;
    position += count;
    return bytes;
}

} // namespace Vantor::Sentrix
