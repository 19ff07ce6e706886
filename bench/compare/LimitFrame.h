// The frames between the "limit" clients, directly or through the forwarder, and the buffer that holds them.
//
// A frame: a header of 16 bytes, big-endian {payload length, destination, source, kind << 30 | tag}, then the payload.
// With checksums eight more bytes follow the header: CRC-32 of its 16 bytes and CRC-32 of the payload, both made by the
// sender and checked by the forwarder and by the receiver.
#pragma once

#include "bench/compare/Bus.h"

#include <isa-l/crc.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace Vantor::Sentrix::Compare::Limit {

enum class FrameKind : std::uint32_t { Post, Request, Reply, Control };

inline constexpr std::uint32_t kTopicBit = 0x80000000; // of a destination: a topic, not a client
inline constexpr std::uint32_t kTagMask = 0x3FFFFFFF;
inline constexpr std::uint32_t kAwaitedTag = kTagMask; // of a request whose sender waits

// Tags of control frames, which come back to their sender as the sign that they have been obeyed.
inline constexpr std::uint32_t kHello = 1;     // the source says who it is
inline constexpr std::uint32_t kSubscribe = 2; // payload: the topic

inline constexpr double kSpinSeconds = 50e-6; // how long one that spins looks before it sleeps

inline std::uint32_t Checksum(const char* bytes, std::size_t count) {
    return crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(bytes), count);
}

struct Header {
    std::uint32_t length;
    std::uint32_t to;
    std::uint32_t from;
    FrameKind kind;
    std::uint32_t tag;
};

class FrameFormat {
public:
    explicit FrameFormat(bool checksums) : m_checksums(checksums) {}

    static constexpr std::size_t kPlainBytes = 16;
    static constexpr std::size_t kMostHeaderBytes = 24;
    std::size_t HeaderBytes() const { return m_checksums ? kMostHeaderBytes : kPlainBytes; }

    void Write(char* to, const Header& header, const char* payload) const {
        Put32(to, header.length);
        Put32(to + 4, header.to);
        Put32(to + 8, header.from);
        Put32(to + 12, static_cast<std::uint32_t>(header.kind) << 30 | (header.tag & kTagMask));
        if (m_checksums) {
            Put32(to + kPlainBytes, Checksum(to, kPlainBytes));
            Put32(to + kPlainBytes + 4, Checksum(payload, header.length));
        }
    }

    static Header Read(const char* from) {
        const std::uint32_t last = Get32(from + 12);
        return {Get32(from), Get32(from + 4), Get32(from + 8), static_cast<FrameKind>(last >> 30), last & kTagMask};
    }

    // Of a whole frame.
    void Check(const char* frame, std::size_t length) const {
        if (m_checksums && (Checksum(frame, kPlainBytes) != Get32(frame + kPlainBytes) ||
                            Checksum(frame + kMostHeaderBytes, length) != Get32(frame + kPlainBytes + 4))) {
            throw std::runtime_error("a checksum is wrong");
        }
    }

private:
    bool m_checksums;
};

// Received bytes, whole frames in one piece.
class FrameBuffer {
public:
    char* Begin() { return m_bytes.get() + m_begin; }
    std::size_t Size() const { return m_end - m_begin; }
    char* Free() { return m_bytes.get() + m_end; }
    std::size_t FreeBytes() const { return m_capacity - m_end; }
    void Filled(std::size_t count) { m_end += count; }
    void Consume(std::size_t count) { m_begin += count; }

    // Makes room for the frame that begins there, as far as its header is known, and for something to read.
    void Reserve(const FrameFormat& format) {
        const std::size_t header = format.HeaderBytes();
        const std::size_t needed = Size() < header ? header : header + Get32(Begin());
        if (m_begin == m_end) {
            m_begin = m_end = 0;
        }
        if (m_begin + needed <= m_capacity && m_end < m_capacity) {
            return;
        }
        if (needed > m_capacity) {
            std::unique_ptr<char[]> larger(new char[needed]);
            std::memcpy(larger.get(), Begin(), Size());
            m_bytes = std::move(larger);
            m_capacity = needed;
        } else {
            std::memmove(m_bytes.get(), Begin(), Size());
        }
        m_end = Size();
        m_begin = 0;
    }

    // The frame at the front if all of it is there.
    bool HasFrame(const FrameFormat& format) {
        return Size() >= format.HeaderBytes() && Size() >= format.HeaderBytes() + Get32(Begin());
    }

private:
    std::size_t m_capacity = 256 * 1024;
    std::unique_ptr<char[]> m_bytes{new char[m_capacity]};
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

} // namespace Vantor::Sentrix::Compare::Limit
