#include "veyrasvc/bus/Frame.h"

#include "veyrasvc/bus/Crc32.h"
#include "veyrasvc/util/ByteOrder.h"

#include <algorithm>

namespace Vantor::Sentrix {

namespace {

// Room that is reserved at once for an announced frame; a longer one grows with its bytes.
constexpr std::size_t kReserveLimit = 16 * 1024 * 1024;

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
    std::string().swap(m_held); // an idle connection holds no buffer
    m_needed = FrameHeader::kSize;
    m_measured = false;
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
    const std::size_t taken = std::min(bytes.size(), m_needed - m_held.size());
    m_held.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
    if (m_measured || m_held.size() < m_needed) {
        return true;
    }
    if (!FrameHeader::IsIntact(m_held.data())) {
        Clear();
        return false;
    }
    m_needed += FrameHeader::PayloadLength(m_held.data());
    m_measured = true;
    m_held.reserve(std::min(m_needed, kReserveLimit));
    return true;
}

} // namespace Vantor::Sentrix
