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
    std::string().swap(m_rest);
    m_needed = FrameHeader::kSize;
    m_measured = false;
}

std::string_view FrameCutter::Join(std::string_view bytes) {
    if (m_rest.empty()) {
        return bytes; // whole frames are handed out from where they are
    }
    m_rest.append(bytes);
    return m_rest;
}

bool FrameCutter::Measure(std::string_view held) {
    if (m_measured) {
        return true;
    }
    if (!FrameHeader::IsIntact(held.data())) {
        return false;
    }
    m_needed = FrameHeader::kSize + std::size_t{FrameHeader::PayloadLength(held.data())};
    m_measured = true;
    return true;
}

void FrameCutter::Keep(std::string_view rest) {
    if (!m_rest.empty() && rest.size() == m_rest.size()) {
        return; // nothing was cut off
    }
    std::string kept; // an idle connection holds no buffer
    if (!rest.empty()) {
        kept.reserve(m_measured ? std::min(m_needed, kReserveLimit) : rest.size());
        kept.assign(rest);
    }
    m_rest.swap(kept);
}

} // namespace Vantor::Sentrix
