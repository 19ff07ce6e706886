// A read-only stream over bytes that lie elsewhere: how payloads that were cut short are decoded.
#pragma once

#include "veyrasvc/stream/PositionInMemory.h"

#include <algorithm>
#include <cstring>

namespace Vantor::Sentrix {

// Unlike a MemoryrStream over a buffer it takes const bytes, takes none at all, and leaves the log alone when it ends.
// Owns: nothing; the bytes must outlive the stream and stay as they are.
class SpanStream final : public Stream {
public:
    SpanStream(const char* bytes, std::size_t size) : m_bytes(bytes), m_size(static_cast<std::int64_t>(size)) {}

    unsigned int Read(void* buffer, unsigned int count) override {
        const auto moved = static_cast<unsigned int>(std::min<std::int64_t>(count, BytesLeft(m_position, m_size)));
        if (buffer == nullptr || moved == 0) {
            return 0;
        }
        std::memcpy(buffer, TakeInPlace(moved), moved);
        return moved;
    }

    // Nothing can be written.
    unsigned int Write(const void* /*buffer*/, unsigned int /*count*/) override { return 0; }

    std::int64_t Seek(std::int64_t offset, int origin) override {
        m_position = SeekTarget(offset, origin, m_position, m_size);
        return m_position;
    }

    std::int64_t GetSize() override { return m_size; }

    // The next `count` bytes where they lie; null when fewer are left.
    const char* TakeInPlace(unsigned int count) { return TakeBytes(m_bytes, m_size, m_position, count); }

private:
    const char* m_bytes;
    std::int64_t m_size;
    std::int64_t m_position = 0;
};

} // namespace Vantor::Sentrix
