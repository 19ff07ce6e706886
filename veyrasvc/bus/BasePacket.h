// One message of the bus.
#pragma once

#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vantor::Sentrix {

// What tells where a packet goes.
struct PacketHeader {
    std::uint32_t to;
    std::uint32_t from;
    std::uint32_t msgId;
    std::uint32_t msgType;
};

// From the packet's whole frame (see Frame.h), without reading the rest of it. What a short payload lacks is 0.
PacketHeader ReadHeader(std::string_view frame);

// A plain value: copying it copies every field. Integers travel unsigned; callers commonly store -1 as 0xFFFFFFFF.
// Payload, every integer 4 bytes big-endian, every string a 4-byte length and its bytes:
//     to, from, message id, type, reply id, correlation id, encrypted (0 or 1), IV, body
// Threads: none of its own; once a packet crosses threads it is held by std::shared_ptr. A receiver may change the
// bytes of the body, so each has a packet of its own (see OwnCopy).
class BasePacket {
public:
    // Valid as long as this packet. A zero byte follows it, except where DeserializeFrame says otherwise.
    std::string_view GetBody() const {
        return m_body.storage ? m_body.bytes : std::string_view(m_short + kHeadRoom, m_shortLength);
    }
    void SetBody(std::string_view body); // copies
    const std::string& GetIv() const { return m_iv; }
    void SetIv(std::string iv) { m_iv = std::move(iv); }
    bool GetEncrypted() const { return m_encrypted; }
    void SetEncrypted(bool encrypted) { m_encrypted = encrypted; }
    std::uint32_t GetReplyMsgId() const { return m_replyMsgId; }
    void SetReplyMsgId(std::uint32_t id) { m_replyMsgId = id; }
    std::uint32_t GetUniqMsgId() const { return m_uniqMsgId; }
    void SetUniqMsgId(std::uint32_t id) { m_uniqMsgId = id; }
    std::uint32_t GetTo() const { return m_to; }
    void SetTo(std::uint32_t moduleId) { m_to = moduleId; }
    std::uint32_t GetFrom() const { return m_from; }
    void SetFrom(std::uint32_t moduleId) { m_from = moduleId; }
    std::uint32_t GetMsgId() const { return m_msgId; }
    void SetMsgId(std::uint32_t id) { m_msgId = id; }
    std::uint32_t GetMsgType() const { return m_msgType; }
    void SetMsgType(std::uint32_t type) { m_msgType = type; }

    void Serialize(StreamWriter& writer) const;
    // Reads the payload. Fields that a short payload lacks read as zero or empty; there is no error.
    void Deserialize(StreamReader& reader);
    // The same from a frame (see Frame.h), which is only read. Its storage, if it has one, becomes the body's, and what
    // follows the frame follows the body; else the body is copied.
    void DeserializeFrame(const SharedBytes& frame);

    // A copy with a body of its own; a plain copy shares the storage of a long one.
    // Fails: std::bad_alloc.
    std::shared_ptr<BasePacket> OwnCopy() const;

    // The packet as one frame. A body that was set is not copied: the frame's head is written in front of it. So of a
    // packet and its copies only one may do this at a time, and the frame shares their storage. Without a storage the
    // frame, which is short then, is valid as long as this packet.
    SharedBytes ToFrame() const;
    // Appends the frame to `output`. Always true.
    bool BuildFrame(std::string& output) const;

    // Enciphers `length` bytes. False leaves both outputs alone: the arguments are unusable, or the cipher or the
    // random source failed.
    static bool EncryptData(const char* data, std::size_t length, std::string& ciphertext, std::string& iv);

    // Deciphers the body into a new buffer, which the caller owns and gives back with operator delete.
    // False, and nothing allocated: the IV is not 16 bytes, the body is no ciphertext, or its text is empty.
    bool DecryptBody(char*& output, std::size_t& outputLength) const;

private:
    // Room for a frame's head in front of a body: 16 bytes of header, 36 of payload and an IV, rounded up, so that the
    // body is aligned for whatever callers put there.
    static constexpr std::size_t kHeadRoom = 80;
    // A body up to this length, with the zero byte behind it, needs no storage.
    static constexpr std::size_t kShortBody = 175;

    bool TakeWhole(const SharedBytes& frame);
    void CopyBody(std::string_view body, std::size_t headRoom);

    SharedBytes m_body; // the ciphertext when m_encrypted is set; ends with its storage when that has head room
    std::size_t m_headRoom = kHeadRoom; // bytes in front of the body that a frame's head may be written to
    std::size_t m_shortLength = 0;      // of a body without storage
    alignas(16) mutable char m_short[kHeadRoom + kShortBody + 1];
    std::string m_iv; // 16 bytes for an encrypted body
    bool m_encrypted = false;
    std::uint32_t m_replyMsgId = 0;
    std::uint32_t m_uniqMsgId = 0;
    std::uint32_t m_to = 0;
    std::uint32_t m_from = 0;
    std::uint32_t m_msgId = 0;
    std::uint32_t m_msgType = 0;
};

// A module id as the 4 bytes of a status notice or query, little-endian unlike every integer of the payload.
std::string ModuleIdBody(std::uint32_t moduleId);
// The id in such a body; false when it is shorter than 4 bytes.
bool ReadModuleIdBody(std::string_view body, std::uint32_t& moduleId);

} // namespace Vantor::Sentrix
