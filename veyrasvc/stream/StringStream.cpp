#include "veyrasvc/stream/StringStream.h"

#include "veyrasvc/stream/PositionInMemory.h"

#include <algorithm>
#include <cstring>

namespace Vantor::Sentrix {

unsigned int StringStream::Read(void* buffer, unsigned int count) {
    if (buffer == nullptr || m_position < 0 || m_position >= Size()) {
        return 0;
    }
    const auto moved = static_cast<unsigned int>(std::min<std::int64_t>(count, Size() - m_position));
    std::memcpy(buffer, m_bytes.data() + m_position, moved);
    m_position += moved;
    return moved;
}

unsigned int StringStream::Write(const void* buffer, unsigned int count) {
    if (buffer == nullptr || count == 0 || m_position < 0) {
        return 0;
    }
    const auto* bytes = static_cast<const char*>(buffer);
    if (m_position == Size()) {
        m_bytes.append(bytes, count);
    } else {
        if (m_position > Size()) {
            m_bytes.resize(static_cast<std::size_t>(m_position));
        }
        m_bytes.replace(static_cast<std::size_t>(m_position), count, bytes, count);
    }
    m_position += count;
    return count;
}

std::int64_t StringStream::Seek(std::int64_t offset, int origin) {
    m_position = SeekTarget(offset, origin, m_position, Size());
    return m_position;
}

void StringStream::SetSize(const std::int64_t newSize) {
    if (newSize < 0) {
        return;
    }
    m_bytes.resize(static_cast<std::size_t>(newSize));
    m_position = std::min(m_position, newSize);
}

} // namespace Vantor::Sentrix
