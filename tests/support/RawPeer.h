// A peer of the bus made from the page about the wire and the pipe calls alone: it shares no code with the library's
// packets, frames and checksum, so that the two can be held against each other.
#pragma once

#include "veyrasvc/platform/Win32.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vantor::Sentrix {

struct RawPacket {
    std::uint32_t to = 0;
    std::uint32_t from = 0;
    std::uint32_t msgId = 0;
    std::uint32_t msgType = 0;
    std::uint32_t replyMsgId = 0;
    std::uint32_t uniqMsgId = 0;
    std::uint32_t encrypted = 0;
    std::string iv = {};
    std::string body = {};

    bool operator==(const RawPacket&) const = default;
    std::string Payload() const;
    std::string Frame() const;
};

RawPacket ParseRawFrame(const std::string& frame); // what is missing stays 0
std::string RawFrame(const std::string& payload, std::uint32_t reserved = 0);
std::string RawHeader(std::uint32_t payloadLength, std::uint32_t payloadCrc, std::uint32_t reserved = 0);
std::string LittleEndian(std::uint32_t value);
std::uint32_t RawCrc(std::string_view bytes); // bit by bit

// Moves the first frame out of `held`. Nothing: it is not whole yet, or (`corrupt`) the header is no header.
std::optional<std::string> CutRawFrame(std::string& held, bool& corrupt);

// Threads: one at a time.
class RawPeer {
public:
    // Connects, waiting for a free place. A peer that could not is closed.
    enum class Place { Expected, Tried };
    explicit RawPeer(Place place = Place::Expected);
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    bool IsOpen() const { return m_pipe != INVALID_HANDLE_VALUE; }
    void Close();
    // False when the other end is gone.
    bool Send(const std::string& bytes);
    bool Send(const RawPacket& packet) { return Send(packet.Frame()); }
    bool Register(std::uint32_t pid, const std::string& text);
    // Nothing when the other end is gone.
    std::optional<std::string> NextFrame();
    std::string Read(std::size_t count);
    // Reads whatever still comes, until the other end is gone.
    void AwaitDrop();

private:
    bool ReadMore();
    // The bytes moved by the operation that was started last; 0 when it failed.
    DWORD Complete(BOOL started);

    HANDLE m_pipe = INVALID_HANDLE_VALUE;
    OVERLAPPED m_overlapped{};
    char m_buffer[16 * 1024];
    std::string m_held;
};

} // namespace Vantor::Sentrix
