// Bytes that a read of a socket brought along beyond what was asked for.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace Vantor::Sentrix::Platform {

// The buffer is borrowed from a small process-wide stock for as long as it holds bytes, so a quiet connection has none.
class ReadAhead {
public:
    static constexpr std::size_t kBytes = 64 * 1024;

    ReadAhead() = default;
    ~ReadAhead() { Return(); }
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    bool Empty() const { return m_begin == m_end; }

    // Room for a read; only while empty. Null when memory is short.
    char* Borrow();
    // The first `bytes` of that room now hold data; 0 gives the room back.
    void Filled(std::size_t bytes) {
        m_begin = 0;
        m_end = bytes;
        if (bytes == 0) {
            Return();
        }
    }

    std::size_t Take(char* to, std::size_t most) {
        const std::size_t bytes = std::min(most, m_end - m_begin);
        std::memcpy(to, m_buffer.get() + m_begin, bytes);
        m_begin += bytes;
        if (Empty()) {
            Return();
        }
        return bytes;
    }

private:
    void Return();

    std::unique_ptr<char[]> m_buffer;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

} // namespace Vantor::Sentrix::Platform
