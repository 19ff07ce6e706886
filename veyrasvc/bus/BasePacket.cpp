#include "veyrasvc/bus/BasePacket.h"

#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/bus/PayloadCipher.h"
#include "veyrasvc/stream/SpanStream.h"
#include "veyrasvc/stream/StringStream.h"
#include "veyrasvc/util/ByteOrder.h"

namespace Vantor::Sentrix {

namespace {

// Seven integers and two string lengths.
constexpr std::size_t kFixedPayloadBytes = 36;
constexpr std::size_t kIvBytes = 16;

} // namespace

void BasePacket::Serialize(StreamWriter& writer) const {
    writer.Write(m_to);
    writer.Write(m_from);
    writer.Write(m_msgId);
    writer.Write(m_msgType);
    writer.Write(m_replyMsgId);
    writer.Write(m_uniqMsgId);
    writer.Write(std::uint32_t{m_encrypted ? 1u : 0u});
    writer.Write(m_iv);
    writer.Write(m_body);
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
    m_body = reader.ReadString();
}

void BasePacket::DeserializeFrom(const char* payload, std::size_t length) {
    SpanStream stream(payload, length);
    StreamReader reader(&stream);
    Deserialize(reader);
}

bool BasePacket::BuildFrame(std::string& output) const {
    const std::size_t begin = output.size();
    output.reserve(begin + FrameHeader::kSize + kFixedPayloadBytes + m_iv.size() + m_body.size());
    output.append(FrameHeader::kSize, '\0');
    StringStream stream(output);
    StreamWriter writer(&stream);
    Serialize(writer);
    FrameHeader::Write(output.data() + begin, output.size() - begin - FrameHeader::kSize);
    return true;
}

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
    if (m_iv.size() != kIvBytes || DecryptPayload(reinterpret_cast<const unsigned char*>(m_iv.data()),
                                                  reinterpret_cast<const unsigned char*>(m_body.data()), m_body.size(),
                                                  &plain, &plainLength) != 0) {
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

bool ReadModuleIdBody(const std::string& body, std::uint32_t& moduleId) {
    if (body.size() < sizeof moduleId) {
        return false;
    }
    moduleId = LoadLittleEndian32(body.data());
    return true;
}

} // namespace Vantor::Sentrix
