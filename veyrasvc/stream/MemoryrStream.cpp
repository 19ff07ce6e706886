#include "veyrasvc/stream/PositionInMemory.h"
#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/stream/Utf16.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace Vantor::Sentrix {

namespace {

constexpr std::int64_t kMaxBytes = 0xFFFFFFFF;
constexpr std::int64_t kGrowthStep = 0x2000;
constexpr std::int64_t kSpareBytes = 2;

// The last step before 4 GiB is one byte short.
std::int64_t RoundedCapacity(std::int64_t bytes) {
    return std::min((bytes + kGrowthStep - 1) & ~(kGrowthStep - 1), kMaxBytes);
}

bool LiesIn(const char* place, const char* block, std::int64_t length) {
    const std::less<const char*> before; // unlike <, defined for unrelated pointers
    return block != nullptr && !before(place, block) && before(place, block + length);
}

std::int64_t LengthOf(const char* text) {
    return text == nullptr ? 0 : static_cast<std::int64_t>(std::strlen(text));
}

} // namespace

MemoryrStream::MemoryrStream(std::int64_t size) {
    MemoryrStream::SetSize(size);
}

MemoryrStream::MemoryrStream(char* buffer, int length, bool attach) : m_attached(attach) {
    if (buffer == nullptr || length < 1) {
        LOG_ERROR("invalid argument!");
        m_attached = false;
        return;
    }
    if (attach) {
        m_memory = buffer;
    } else if (MemoryrStream::Write(buffer, static_cast<unsigned int>(length)) != static_cast<unsigned int>(length)) {
        LOG_ERROR("stream write error!");
        return;
    }
    m_size = length;
    m_position = 0;
    m_capacity = length;
    m_fixedSize = length;
}

MemoryrStream::MemoryrStream(const char* data, int length) {
    AppendBytes(data, length);
}

MemoryrStream::MemoryrStream(const char* text) {
    AppendBytes(text, LengthOf(text));
}

MemoryrStream::MemoryrStream(const MemoryrStream& other) : Stream(other) {
    AppendBytes(other.m_memory, other.m_size);
}

MemoryrStream::~MemoryrStream() {
    Clear();
    if (!m_attached) {
        std::free(m_memory); // what a fixed capacity kept Clear from freeing
    }
}

unsigned int MemoryrStream::Read(void* buffer, unsigned int count) {
    const std::int64_t left = BytesLeft(m_position, m_size);
    if (buffer == nullptr || left == 0) {
        return 0;
    }
    const auto moved = static_cast<unsigned int>(std::min<std::int64_t>(count, left));
    std::memmove(buffer, m_memory + m_position, moved);
    m_position += moved;
    return moved;
}

unsigned int MemoryrStream::Write(const void* buffer, unsigned int count) {
    if (buffer == nullptr || count == 0 || m_position < 0) {
        return 0;
    }
    const char* source = static_cast<const char*>(buffer);
    // A position so far out that the sum would overflow is refused like any other end beyond the limit.
    const std::int64_t end = std::min(m_position, kMaxBytes + 1) + count;
    if (end > m_size && !Grow(end, source)) {
        return 0;
    }
    std::memmove(m_memory + m_position, source, count);
    m_position = end;
    return count;
}

// Makes `end` the size for a write from `source`, which moves along when it lies in the block itself.
bool MemoryrStream::Grow(std::int64_t end, const char*& source) {
    if (end > m_capacity) {
        const bool ownBytes = LiesIn(source, m_memory, m_capacity);
        const std::int64_t offset = ownBytes ? source - m_memory : 0;
        SetCapacity(end);
        if (end > m_capacity) {
            return false;
        }
        if (ownBytes) {
            source = m_memory + offset;
        }
    }
    if (m_position > m_size) {
        std::memset(m_memory + m_size, 0, static_cast<std::size_t>(m_position - m_size));
    }
    m_size = end;
    return true;
}

std::int64_t MemoryrStream::Seek(std::int64_t offset, int origin) {
    m_position = SeekTarget(offset, origin, m_position, m_size);
    return m_position;
}

void MemoryrStream::SetSize(const std::int64_t newSize) {
    const std::int64_t position = m_position;
    SetCapacity(newSize);
    if (newSize < 0 || newSize > m_capacity) {
        return;
    }
    if (newSize > m_size) {
        std::memset(m_memory + m_size, 0, static_cast<std::size_t>(newSize - m_size));
    }
    m_size = newSize;
    if (position > newSize) {
        Seek(0, kFromEnd);
    }
}

void MemoryrStream::SetCapacity(std::int64_t newCapacity) {
    if (m_fixedSize > 0 || newCapacity < 0 || newCapacity > kMaxBytes) {
        LOG_ERROR("Can not set capacity!");
        return;
    }
    char* block = Realloc(newCapacity);
    if (block == nullptr && newCapacity > 0) {
        return;
    }
    SetPointer(block, m_size);
    m_capacity = newCapacity;
    m_size = std::min(m_size, m_capacity);
}

char* MemoryrStream::Realloc(std::int64_t& newCapacity) {
    if (newCapacity > 0 && newCapacity != m_size) {
        newCapacity = RoundedCapacity(newCapacity);
    }
    if (newCapacity == m_capacity) {
        return m_memory;
    }
    if (newCapacity == 0) {
        std::free(m_memory);
        m_memory = nullptr;
        return nullptr;
    }
    auto* block = static_cast<char*>(std::realloc(m_memory, static_cast<std::size_t>(newCapacity + kSpareBytes)));
    if (block == nullptr) {
        LOG_ERROR("Realloc Failed!");
        return nullptr;
    }
    m_memory = nullptr;
    return block;
}

void MemoryrStream::SetPointer(char* block, std::int64_t /*size*/) {
    if (block != nullptr) {
        m_memory = block;
    }
}

void MemoryrStream::Clear() {
    SetCapacity(0);
    SetSize(0);
    SetPosition(0);
}

std::string MemoryrStream::ToString() const {
    return m_size < 1 ? std::string() : std::string(m_memory, static_cast<std::size_t>(m_size));
}

std::wstring MemoryrStream::ToWString() const {
    return WideFromUtf16(static_cast<std::size_t>(m_size + 1) / sizeof(char16_t), [this](std::size_t i) {
        const auto offset = static_cast<std::int64_t>(i * sizeof(char16_t));
        char16_t unit = 0;
        std::memcpy(&unit, m_memory + offset, m_size - offset >= 2 ? 2 : 1);
        return unit;
    });
}

MemoryrStream& MemoryrStream::Append(const MemoryrStream& other) {
    if (other.m_memory != nullptr) {
        Seek(0, kFromEnd);
        AppendBytes(other.m_memory, other.m_size);
    }
    return *this;
}

MemoryrStream& MemoryrStream::Append(const char* data, int length) {
    if (data != nullptr && length > 0) {
        Seek(0, kFromEnd);
        AppendBytes(data, length);
    }
    return *this;
}

MemoryrStream& MemoryrStream::Append(const char* text) {
    if (LengthOf(text) > 0) {
        Seek(0, kFromEnd);
        AppendBytes(text, LengthOf(text));
    }
    return *this;
}

MemoryrStream& MemoryrStream::Append(char value, int count) {
    if (count >= 1) {
        Seek(0, kFromEnd);
        SetSize(m_size + count);
        if (m_size > m_position) { // else refused, perhaps without any block
            std::memset(m_memory + m_position, value, static_cast<std::size_t>(m_size - m_position));
        }
        m_position = m_size;
    }
    return *this;
}

MemoryrStream& MemoryrStream::Assign(const MemoryrStream& other) {
    Clear();
    if (other.m_memory != m_memory) {
        AppendBytes(other.m_memory, other.m_size);
    }
    return *this;
}

MemoryrStream& MemoryrStream::Assign(const char* data, int length) {
    Clear();
    AppendBytes(data, length);
    return *this;
}

MemoryrStream& MemoryrStream::Assign(const char* text) {
    Clear();
    AppendBytes(text, LengthOf(text));
    return *this;
}

MemoryrStream& MemoryrStream::Assign(char value, int count) {
    Clear();
    return Append(value, count);
}

void MemoryrStream::LoadFromStream(Stream& source) {
    Clear();
    CopyFrom(source, 0);
}

void MemoryrStream::AppendBytes(const char* data, std::int64_t length) {
    if (data == nullptr || length < 1) {
        return;
    }
    if (length > kMaxBytes || Write(data, static_cast<unsigned int>(length)) != static_cast<unsigned int>(length)) {
        LOG_ERROR("stream write error!");
    }
}

} // namespace Vantor::Sentrix
