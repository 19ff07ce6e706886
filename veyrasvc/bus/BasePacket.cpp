#include "veyrasvc/bus/BasePacket.h"

#include "veyrasvc/bus/PayloadCipher.h"
#include "veyrasvc/stream/SpanStream.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/Storage.h"

#include <algorithm>
#include <limits>

namespace Vantor::Sentrix {

namespace {

// Seven integers and two string lengths.
constexpr std::size_t kFixedPayloadBytes = 36;
constexpr std::size_t kIvBytes = 16;
constexpr std::size_t kIvLengthOffset = 28;
constexpr std::size_t kFixedFrameBytes = FrameHeader::kSize + kFixedPayloadBytes;

std::size_t Length32(const char* at) {
    return LoadBigEndian32(at);
}

} // namespace

void BasePacket::SetBody(std::string_view body) {
    static_assert(kFixedFrameBytes + kIvBytes <= kHeadRoom && kHeadRoom % 16 == 0);
    CopyBody(body, kHeadRoom);
}

void BasePacket::CopyBody(std::string_view body, std::size_t headRoom) {
    if (body.size() <= kShortBody) {
        m_body = {};
        m_headRoom = kHeadRoom;
        m_shortLength = body.copy(m_short + kHeadRoom, body.size());
        m_short[kHeadRoom + m_shortLength] = '\0';
        return;
    }
    auto storage = AllocateStorage(headRoom + body.size() + 1);
    char* const bytes = storage.get() + headRoom;
    body.copy(bytes, body.size());
    bytes[body.size()] = '\0';
    m_headRoom = headRoom;
    m_body = {std::move(storage), {bytes, body.size()}};
}

// ---- Payloads ------------------------------------------------------------------------------------------------------

void BasePacket::Serialize(StreamWriter& writer) const {
    writer.Write(m_to);
    writer.Write(m_from);
    writer.Write(m_msgId);
    writer.Write(m_msgType);
    writer.Write(m_replyMsgId);
    writer.Write(m_uniqMsgId);
    writer.Write(std::uint32_t{m_encrypted ? 1u : 0u});
    writer.Write(m_iv);
    writer.Write(std::string(GetBody()));
}

void BasePacket::Deserialize(StreamReader& reader) {
    m_to = reader.ReadUInt();
    m_from = reader.ReadUInt();
    m_msgId = reader.ReadUInt();
    m_msgType = reader.ReadUInt();
    m_replyMsgId = reader.ReadUInt();
    m_uniqMsgId = reader.ReadUInt();
    m_encrypted = reader.ReadUInt() != 0;
    m_iv = reader.ReadString();
    SetBody(reader.ReadString());
}

// ---- Frames --------------------------------------------------------------------------------------------------------

PacketHeader ReadHeader(std::string_view frame) {
    char fields[4 * sizeof(std::uint32_t)] = {};
    frame.copy(fields, sizeof fields, FrameHeader::kSize);
    return {LoadBigEndian32(fields), LoadBigEndian32(fields + 4), LoadBigEndian32(fields + 8),
            LoadBigEndian32(fields + 12)};
}

void BasePacket::DeserializeFrame(const SharedBytes& frame) {
    if (!TakeWhole(frame)) {
        SpanStream stream(frame.bytes.data() + FrameHeader::kSize, frame.bytes.size() - FrameHeader::kSize);
        StreamReader reader(&stream);
        Deserialize(reader);
    }
}

// The usual case, which needs no reader: nothing is missing. False, and nothing is changed: something is.
bool BasePacket::TakeWhole(const SharedBytes& frame) {
    const std::string_view bytes = frame.bytes;
    const char* const payload = bytes.data() + FrameHeader::kSize;
    const std::size_t ivLength = bytes.size() < kFixedFrameBytes ? bytes.size() : Length32(payload + kIvLengthOffset);
    if (ivLength > bytes.size() - std::min(bytes.size(), kFixedFrameBytes)) {
        return false;
    }
    const std::string_view body = bytes.substr(kFixedFrameBytes + ivLength);
    if (Length32(body.data() - 4) != body.size() || body.size() > std::numeric_limits<std::int32_t>::max()) {
        return false;
    }
    m_to = LoadBigEndian32(payload);
    m_from = LoadBigEndian32(payload + 4);
    m_msgId = LoadBigEndian32(payload + 8);
    m_msgType = LoadBigEndian32(payload + 12);
    m_replyMsgId = LoadBigEndian32(payload + 16);
    m_uniqMsgId = LoadBigEndian32(payload + 20);
    m_encrypted = LoadBigEndian32(payload + 24) != 0;
    m_iv.assign(payload + kIvLengthOffset + 4, ivLength);
    if (frame.storage) {
        m_body = {frame.storage, body};
        m_headRoom = 0;
    } else {
        CopyBody(body, 0); // which is rarely sent on
    }
    return true;
}

std::shared_ptr<BasePacket> BasePacket::OwnCopy() const {
    auto copy = std::make_shared<BasePacket>(*this);
    copy->SetBody(GetBody());
    return copy;
}

SharedBytes BasePacket::ToFrame() const {
    const std::string_view body = GetBody();
    const std::size_t headBytes = kFixedFrameBytes + m_iv.size();
    const std::size_t frameBytes = headBytes + body.size();
    SharedBytes frame{m_body.storage, {}};
    char* head = nullptr;
    if (headBytes <= m_headRoom) {
        head = (m_body.storage ? m_body.storage.get() : m_short) + m_headRoom - headBytes;
    } else {
        frame.storage = AllocateStorage(frameBytes);
        head = frame.storage.get();
        body.copy(head + headBytes, body.size());
    }
    frame.bytes = {head, frameBytes};

    char* at = head + FrameHeader::kSize;
    const auto append = [&at](std::size_t value) {
        StoreBigEndian32(at, static_cast<std::uint32_t>(value));
        at += sizeof(std::uint32_t);
    };
    for (const std::uint32_t value : {m_to, m_from, m_msgId, m_msgType, m_replyMsgId, m_uniqMsgId}) {
        append(value);
    }
    append(m_encrypted ? 1 : 0);
    append(m_iv.size());
    at += m_iv.copy(at, m_iv.size());
    append(body.size());
    FrameHeader::Write(head, frameBytes - FrameHeader::kSize);
    return frame;
}

bool BasePacket::BuildFrame(std::string& output) const {
    output.append(ToFrame().bytes);
    return true;
}

// ---- Ciphers -------------------------------------------------------------------------------------------------------

bool BasePacket::EncryptData(const char* data, std::size_t length, std::string& ciphertext, std::string& iv) {
    unsigned char* cipherBytes = nullptr;
    unsigned char* ivBytes = nullptr;
    std::size_t cipherLength = 0;
    if (EncryptPayload(reinterpret_cast<const unsigned char*>(data), length, &cipherBytes, &cipherLength, &ivBytes) !=
        0) {
        return false;
    }
    ciphertext.assign(reinterpret_cast<const char*>(cipherBytes), cipherLength);
    iv.assign(reinterpret_cast<const char*>(ivBytes), kIvBytes);
    ::operator delete(cipherBytes);
    ::operator delete(ivBytes);
    return true;
}

bool BasePacket::DecryptBody(char*& output, std::size_t& outputLength) const {
    unsigned char* plain = nullptr;
    std::size_t plainLength = 0;
    const std::string_view body = GetBody();
    if (m_iv.size() != kIvBytes ||
        DecryptPayload(reinterpret_cast<const unsigned char*>(m_iv.data()),
                       reinterpret_cast<const unsigned char*>(body.data()), body.size(), &plain, &plainLength) != 0) {
        return false;
    }
    if (plainLength == 0) {
        ::operator delete(plain);
        return false;
    }
    output = reinterpret_cast<char*>(plain);
    outputLength = plainLength;
    return true;
}

std::string ModuleIdBody(std::uint32_t moduleId) {
    std::string body(sizeof moduleId, '\0');
    StoreLittleEndian32(body.data(), moduleId);
    return body;
}

bool ReadModuleIdBody(std::string_view body, std::uint32_t& moduleId) {
    if (body.size() < sizeof moduleId) {
        return false;
    }
    moduleId = LoadLittleEndian32(body.data());
    return true;
}

} // namespace Vantor::Sentrix
