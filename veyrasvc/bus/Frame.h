// Frames: how payloads are told apart on the pipe.
//
// A frame is a header of 16 bytes and N payload bytes. There is no magic number: the header's own CRC is the only way
// to recognise the start of a frame. CRC is CRC-32/ISO-HDLC, the value of zlib's crc32.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vantor::Sentrix {

struct FrameHeader {
    // All big-endian.
    static constexpr std::size_t kLengthOffset = 0;     // N
    static constexpr std::size_t kReservedOffset = 4;   // written as 0, ignored on reading
    static constexpr std::size_t kPayloadCrcOffset = 8; // of the N payload bytes
    static constexpr std::size_t kHeaderCrcOffset = 12; // of the 12 bytes before it
    static constexpr std::size_t kSize = 16;

    // Fills in the header in front of a payload: `frame` points at kSize bytes followed by the payload.
    static void Write(char* frame, std::size_t payloadLength);
    // Both take at least kSize bytes.
    static bool IsIntact(const char* header);
    static std::uint32_t PayloadLength(const char* header);
    // `frame` is whole.
    static bool IsPayloadIntact(std::string_view frame);
};

// Cuts a byte stream into frames. It takes the bytes as they come and keeps what does not make a whole frame yet.
// No bound is put on a frame's length; the memory follows the bytes that arrived, not the length that was announced.
// Threads: one at a time.
class FrameCutter {
public:
    // Hands every frame that is whole now to `handle(std::string_view frame)`, header included, valid during that
    // call. False when the bytes are out of step: everything held is dropped and nothing of these bytes is kept.
    template <class Handler> bool Feed(std::string_view bytes, Handler&& handle) {
        std::string_view held = Join(bytes);
        while (held.size() >= m_needed) {
            if (!Measure(held)) {
                Clear();
                return false;
            }
            if (held.size() < m_needed) {
                break;
            }
            const std::string_view frame = held.substr(0, m_needed);
            m_needed = FrameHeader::kSize;
            m_measured = false;
            handle(frame);
            held.remove_prefix(frame.size());
        }
        Keep(held);
        return true;
    }

    void Clear();

private:
    // The bytes that are left from before followed by `bytes`, in one piece.
    std::string_view Join(std::string_view bytes);
    // Reads the header at the front and sets m_needed to the whole frame; false when it is corrupt.
    bool Measure(std::string_view held);
    void Keep(std::string_view rest);

    std::string m_rest;
    std::size_t m_needed = FrameHeader::kSize; // bytes without which nothing can be done
    bool m_measured = false;                   // m_needed is the length of the frame at the front
};

} // namespace Vantor::Sentrix
