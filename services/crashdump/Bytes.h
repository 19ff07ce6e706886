// Bytes of unknown origin, read with care.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Vantor::Sentrix::CrashDump {

enum class ByteOrder { Little, Big };

// Every read beyond the end gives nothing, at whatever offset, and no sum of offsets wraps around unseen.
// Lifetime: the bytes outlive it.
class Bytes {
public:
    explicit Bytes(std::string_view bytes, ByteOrder order = ByteOrder::Little) : m_bytes(bytes), m_order(order) {}

    std::optional<std::uint64_t> Number(std::uint64_t offset, std::size_t width) const {
        const auto part = Part(offset, width);
        if (!part) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width; ++i) {
            const std::size_t at = m_order == ByteOrder::Big ? i : width - 1 - i;
            value = value << 8 | static_cast<unsigned char>((*part)[at]);
        }
        return value;
    }
    std::optional<std::uint64_t> Half(std::uint64_t offset) const { return Number(offset, 2); }
    std::optional<std::uint64_t> Word(std::uint64_t offset) const { return Number(offset, 4); }

    std::optional<std::string_view> Part(std::uint64_t offset, std::uint64_t length) const {
        if (offset > m_bytes.size() || length > m_bytes.size() - offset) {
            return std::nullopt;
        }
        return m_bytes.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(length));
    }
    // As much of it as is there.
    std::string_view UpTo(std::uint64_t offset, std::uint64_t length) const {
        const std::uint64_t left = offset > m_bytes.size() ? 0 : m_bytes.size() - offset;
        return left == 0 ? std::string_view() : *Part(offset, length < left ? length : left);
    }

    ByteOrder Order() const { return m_order; }

private:
    std::string_view m_bytes;
    ByteOrder m_order;
};

} // namespace Vantor::Sentrix::CrashDump
