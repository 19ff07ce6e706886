// Frames: how payloads are told apart on the pipe.
//
// A frame is a header of 16 bytes and N payload bytes. There is no magic number: the header's own CRC is the only way
// to recognise the start of a frame. CRC is CRC-32/ISO-HDLC, the value of zlib's crc32.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

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

// Bytes and what keeps them. Threads: as for the bytes; the last holder, on whatever thread, gives them back.
struct SharedBytes {
    std::shared_ptr<char[]> storage; // null: somebody else sees to it
    std::string_view bytes;
};

// Cuts a byte stream into frames. It takes the bytes as they come and keeps what does not make a whole frame yet.
// No bound is put on a frame's length; the memory follows the bytes that arrived, not the length that was announced.
// Threads: one at a time.
class FrameCutter {
public:
    // Hands every frame that is whole now to `handle(const SharedBytes&)`: the header is included. It has the storage
    // of the bytes, or one of its own when it came in pieces; without a storage it is valid during the call only. A
    // storage of its own has a zero byte behind the frame. False when the bytes are out of step: everything held is
    // dropped and nothing of these bytes is kept.
    template <class Handler> bool Feed(const SharedBytes& bytes, Handler&& handle) {
        SharedBytes frame = bytes; // one for all, as a count of holders is not free
        for (std::string_view rest = bytes.bytes; !rest.empty();) {
            const std::size_t whole = m_size == 0 ? LengthOfFirst(rest) : kIncomplete;
            if (whole == kCorrupt) {
                return false;
            }
            if (whole != kIncomplete) {
                frame.bytes = rest.substr(0, whole); // from where it is, without a copy
                handle(std::as_const(frame));
                rest.remove_prefix(whole);
            } else if (!Gather(rest)) {
                return false;
            } else if (IsWhole()) {
                handle(TakeHeld());
            }
        }
        return true;
    }

    // Where the next bytes may be stored directly instead of being fed: inside a frame that misses at least
    // `worthwhile` bytes, else nowhere. Valid until the next call of another operation. `Filled` says how many have
    // been.
    std::span<char> Room(std::size_t worthwhile);
    template <class Handler> void Filled(std::size_t bytes, Handler&& handle) {
        m_size += bytes;
        if (IsWhole()) {
            handle(TakeHeld());
        }
    }
    // Keeps the room while a read into it is outstanding.
    const std::shared_ptr<char[]>& Storage() const { return m_storage; }

    void Clear();

private:
    static constexpr std::size_t kIncomplete = 0;
    static constexpr std::size_t kCorrupt = ~std::size_t{0};

    // Of the frame that the bytes begin with, if it is whole.
    static std::size_t LengthOfFirst(std::string_view bytes);
    // Moves bytes over to the storage, as far as the header or the frame there needs them. False: the header is
    // corrupt.
    bool Gather(std::string_view& bytes);
    void Reserve(std::size_t bytes);
    bool IsWhole() const { return m_measured && m_size == m_needed; }
    char* Held() const;
    SharedBytes TakeHeld();

    std::shared_ptr<char[]> m_storage; // holds the front of a frame
    std::size_t m_capacity = 0;
    std::size_t m_size = 0;
    std::size_t m_needed = FrameHeader::kSize; // the bytes it should have: a header, or the whole frame
    bool m_measured = false;                   // the header has been read
    bool m_growsInPlace = false;               // address space for the whole frame is reserved
};

} // namespace Vantor::Sentrix
