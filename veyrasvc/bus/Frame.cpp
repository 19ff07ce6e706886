#include "veyrasvc/bus/Frame.h"

#include "veyrasvc/bus/Crc32.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/Storage.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Vantor::Sentrix {

namespace {

// Memory that is taken at once for an announced frame; that of a longer one grows with its bytes.
constexpr std::size_t kTakenAtOnce = 16 * 1024 * 1024;

// In front of a frame that is put together: with it the body of a plain packet, 52 bytes into the frame, is aligned for
// whatever callers put there.
constexpr std::size_t kLead = 12;
// And behind it: a body that is text can be read as a C string.
constexpr std::size_t kTail = 1;

} // namespace

void FrameHeader::Write(char* frame, std::size_t payloadLength) {
    StoreBigEndian32(frame + kLengthOffset, static_cast<std::uint32_t>(payloadLength));
    StoreBigEndian32(frame + kReservedOffset, 0);
    StoreBigEndian32(frame + kPayloadCrcOffset, Crc32(frame + kSize, payloadLength));
    StoreBigEndian32(frame + kHeaderCrcOffset, Crc32OfTwelve(frame));
}

bool FrameHeader::IsIntact(const char* header) {
    return LoadBigEndian32(header + kHeaderCrcOffset) == Crc32OfTwelve(header);
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
    m_measured = m_growsInPlace = false;
}

char* FrameCutter::Held() const {
    return m_storage.get() + kLead;
}

SharedBytes FrameCutter::TakeHeld() {
    const std::size_t size = m_size;
    Held()[size] = '\0';
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

// Where a frame is announced that is longer than what is taken at once, all of its address space is reserved, so that
// it stays where it is while memory for it comes.
void FrameCutter::Reserve(std::size_t bytes) {
    if (bytes <= m_capacity) {
        return;
    }
    const std::size_t capacity =
        m_measured ? std::min(m_needed, std::max({bytes, kTakenAtOnce, 2 * m_capacity})) : bytes;
    const bool grows = m_growsInPlace || (m_measured && capacity < m_needed);
    auto storage = m_storage;
    if (!m_growsInPlace) {
        storage = grows ? ReserveStorage(kLead + m_needed + kTail) : AllocateStorage(kLead + capacity + kTail);
    }
    if (grows) {
        CommitStorage(storage, kLead + capacity + kTail);
    }
    if (storage != m_storage && m_size > 0) {
        std::memcpy(storage.get() + kLead, Held(), m_size);
    }
    m_storage = std::move(storage);
    m_growsInPlace = grows;
    m_capacity = capacity;
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
