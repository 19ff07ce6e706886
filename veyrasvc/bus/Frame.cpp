#include "veyrasvc/bus/Frame.h"

#include "veyrasvc/bus/Crc32.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/Storage.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Vantor::Sentrix {

namespace {

// Room that is reserved at once for an announced frame; a longer one grows with its bytes.
constexpr std::size_t kReserveLimit = 16 * 1024 * 1024;

// In front of a frame that is put together: with it the body of a plain packet, 52 bytes into the frame, is aligned for
// whatever callers put there.
constexpr std::size_t kLead = 12;

} // namespace

void FrameHeader::Write(char* frame, std::size_t payloadLength) {
    StoreBigEndian32(frame + kLengthOffset, static_cast<std::uint32_t>(payloadLength));
    StoreBigEndian32(frame + kReservedOffset, 0);
    StoreBigEndian32(frame + kPayloadCrcOffset, Crc32(frame + kSize, payloadLength));
    StoreBigEndian32(frame + kHeaderCrcOffset, Crc32(frame, kHeaderCrcOffset));
}

bool FrameHeader::IsIntact(const char* header) {
    return LoadBigEndian32(header + kHeaderCrcOffset) == Crc32(header, kHeaderCrcOffset);
}

std::uint32_t FrameHeader::PayloadLength(const char* header) {
    return LoadBigEndian32(header + kLengthOffset);
}

bool FrameHeader::IsPayloadIntact(std::string_view frame) {
    return LoadBigEndian32(frame.data() + kPayloadCrcOffset) == Crc32(frame.data() + kSize, frame.size() - kSize);
}

void FrameCutter::Clear() {
    m_storage.reset(); // an idle connection holds no buffer
    m_capacity = m_size = 0;
    m_needed = FrameHeader::kSize;
    m_measured = false;
}

char* FrameCutter::Held() const {
    return m_storage.get() + kLead;
}

SharedBytes FrameCutter::TakeHeld() {
    const std::size_t size = m_size;
    SharedBytes frame{std::move(m_storage), {}};
    frame.bytes = {frame.storage.get() + kLead, size};
    Clear();
    return frame;
}

std::size_t FrameCutter::LengthOfFirst(std::string_view bytes) {
    if (bytes.size() < FrameHeader::kSize) {
        return kIncomplete;
    }
    if (!FrameHeader::IsIntact(bytes.data())) {
        return kCorrupt;
    }
    const std::size_t length = FrameHeader::kSize + std::size_t{FrameHeader::PayloadLength(bytes.data())};
    return length <= bytes.size() ? length : kIncomplete;
}

bool FrameCutter::Gather(std::string_view& bytes) {
    const std::size_t taken = std::min(bytes.size(), m_needed - m_size);
    Reserve(m_size + taken);
    std::memcpy(Held() + m_size, bytes.data(), taken);
    m_size += taken;
    bytes.remove_prefix(taken);
    if (m_measured || m_size < m_needed) {
        return true;
    }
    if (!FrameHeader::IsIntact(Held())) {
        Clear();
        return false;
    }
    m_needed += FrameHeader::PayloadLength(Held());
    m_measured = true;
    return true;
}

// What is announced is reserved at once up to a limit; beyond it the room doubles as the bytes come.
void FrameCutter::Reserve(std::size_t bytes) {
    if (bytes <= m_capacity) {
        return;
    }
    const std::size_t doubled = std::max(2 * m_capacity, m_measured ? kReserveLimit : bytes);
    const std::size_t capacity =
        m_measured && m_needed <= doubled + doubled / 4 ? m_needed : std::min(m_needed, doubled);
    m_capacity = std::max(bytes, capacity);
    auto grown = AllocateStorage(kLead + m_capacity);
    if (m_size > 0) {
        std::memcpy(grown.get() + kLead, Held(), m_size);
    }
    m_storage = std::move(grown);
}

std::span<char> FrameCutter::Room(std::size_t worthwhile) {
    if (!m_measured || m_needed - m_size < worthwhile) {
        return {};
    }
    if (m_size == m_capacity) {
        Reserve(m_size + 1);
    }
    return {Held() + m_size, m_capacity - m_size};
}

} // namespace Vantor::Sentrix
