// A stream that writes straight into a caller's string: how values become a string without a copy.
#pragma once

#include "veyrasvc/stream/SimpleStream.h"

namespace Vantor::Sentrix {

// Starts at the end of the string, so that writes append; the position counts from the beginning of the string.
// Owns: nothing; the string must outlive the stream and may be used directly between its calls.
// Fails: like the string, by std::bad_alloc or std::length_error. A write at a negative position returns 0.
class StringStream final : public Stream {
public:
    explicit StringStream(std::string& bytes) : m_bytes(bytes), m_position(Size()) {}

    unsigned int Read(void* buffer, unsigned int count) override;
    unsigned int Write(const void* buffer, unsigned int count) override;
    std::int64_t Seek(std::int64_t offset, int origin) override;
    std::int64_t GetSize() override { return Size(); }
    void SetSize(const std::int64_t newSize) override;

private:
    std::int64_t Size() const { return static_cast<std::int64_t>(m_bytes.size()); }

    std::string& m_bytes;
    std::int64_t m_position;
};

} // namespace Vantor::Sentrix
