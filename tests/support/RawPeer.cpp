#include "tests/support/RawPeer.h"

#include "tests/support/Await.h"

#include <gtest/gtest.h>

namespace Vantor::Sentrix {

namespace {

constexpr wchar_t kPipe[] = L"\\\\.\\pipe\\iVeyraService";
constexpr std::size_t kHeaderBytes = 16;
constexpr auto kLimitMs = static_cast<DWORD>(std::chrono::milliseconds(kAwaitLimit).count());

std::string BigEndian(std::uint32_t value) {
    const std::string little = LittleEndian(value);
    return {little.rbegin(), little.rend()};
}

std::uint32_t FromBigEndian(std::string_view bytes) {
    std::uint32_t value = 0;
    for (const char byte : bytes.substr(0, 4)) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

} // namespace

// ---- The wire ------------------------------------------------------------------------------------------------------

std::string LittleEndian(std::uint32_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

std::uint32_t RawCrc(std::string_view bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~crc;
}

std::string RawHeader(std::uint32_t payloadLength, std::uint32_t payloadCrc, std::uint32_t reserved) {
    const std::string words = BigEndian(payloadLength) + BigEndian(reserved) + BigEndian(payloadCrc);
    return words + BigEndian(RawCrc(words));
}

std::string RawFrame(const std::string& payload, std::uint32_t reserved) {
    return RawHeader(static_cast<std::uint32_t>(payload.size()), RawCrc(payload), reserved) + payload;
}

std::string RawPacket::Payload() const {
    std::string payload;
    for (const std::uint32_t field : {to, from, msgId, msgType, replyMsgId, uniqMsgId, encrypted}) {
        payload += BigEndian(field);
    }
    for (const std::string& text : {iv, body}) {
        payload += BigEndian(static_cast<std::uint32_t>(text.size())) + text;
    }
    return payload;
}

std::string RawPacket::Frame() const {
    return RawFrame(Payload());
}

RawPacket ParseRawFrame(const std::string& frame) {
    std::string_view rest = std::string_view(frame).substr(kHeaderBytes);
    const auto take = [&rest](std::size_t count) {
        const std::string_view taken = rest.substr(0, count);
        rest.remove_prefix(taken.size());
        return taken;
    };
    RawPacket packet;
    for (std::uint32_t* field : {&packet.to, &packet.from, &packet.msgId, &packet.msgType, &packet.replyMsgId,
                                 &packet.uniqMsgId, &packet.encrypted}) {
        *field = FromBigEndian(take(4));
    }
    packet.iv = take(FromBigEndian(take(4)));
    packet.body = take(FromBigEndian(take(4)));
    return packet;
}

std::optional<std::string> CutRawFrame(std::string& held, bool& corrupt) {
    corrupt = held.size() >= kHeaderBytes && RawCrc({held.data(), 12}) != FromBigEndian({held.data() + 12, 4});
    if (corrupt || held.size() < kHeaderBytes || held.size() - kHeaderBytes < FromBigEndian(held)) {
        return std::nullopt;
    }
    std::string frame = held.substr(0, kHeaderBytes + FromBigEndian(held));
    held.erase(0, frame.size());
    return frame;
}

// ---- The peer ------------------------------------------------------------------------------------------------------

RawPeer::RawPeer(Place place) {
    m_overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    // Between the wait and the opening somebody else may take the place.
    while (m_pipe == INVALID_HANDLE_VALUE && WaitNamedPipeW(kPipe, kLimitMs) != FALSE) {
        m_pipe =
            CreateFileW(kPipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    }
    EXPECT_TRUE(IsOpen() || place == Place::Tried) << "no place on the pipe: " << GetLastError();
}

RawPeer::~RawPeer() {
    Close();
    CloseHandle(m_overlapped.hEvent);
}

void RawPeer::Close() {
    if (IsOpen()) {
        CloseHandle(m_pipe);
        m_pipe = INVALID_HANDLE_VALUE;
    }
}

DWORD RawPeer::Complete(BOOL started) {
    if (started != FALSE || GetLastError() == ERROR_IO_PENDING) {
        DWORD bytes = 0;
        EXPECT_EQ(WaitForSingleObject(m_overlapped.hEvent, kLimitMs), WAIT_OBJECT_0) << "nothing moves on the pipe";
        return GetOverlappedResult(m_pipe, &m_overlapped, &bytes, FALSE) != FALSE ? bytes : 0;
    }
    return 0;
}

bool RawPeer::Send(const std::string& bytes) {
    const auto size = static_cast<DWORD>(bytes.size());
    return IsOpen() && Complete(WriteFile(m_pipe, bytes.data(), size, nullptr, &m_overlapped)) == size;
}

bool RawPeer::Register(std::uint32_t pid, const std::string& text) {
    return Send(RawPacket{.to = 0x10000, .from = pid, .msgId = 0x10001, .body = text});
}

bool RawPeer::ReadMore() {
    const DWORD got = !IsOpen() ? 0 : Complete(ReadFile(m_pipe, m_buffer, sizeof m_buffer, nullptr, &m_overlapped));
    m_held.append(m_buffer, got);
    return got > 0;
}

std::optional<std::string> RawPeer::NextFrame() {
    bool corrupt = false;
    std::optional<std::string> frame;
    while (!(frame = CutRawFrame(m_held, corrupt)) && !corrupt && ReadMore()) {
    }
    EXPECT_FALSE(corrupt);
    EXPECT_TRUE(!frame || RawCrc(frame->substr(kHeaderBytes)) == FromBigEndian(frame->substr(8, 4)));
    return frame;
}

std::string RawPeer::Read(std::size_t count) {
    while (m_held.size() < count && ReadMore()) {
    }
    std::string bytes = m_held.substr(0, count);
    m_held.erase(0, bytes.size());
    return bytes;
}

void RawPeer::AwaitDrop() {
    while (ReadMore()) {
        m_held.clear();
    }
}

} // namespace Vantor::Sentrix
