// Request and reply for buses that only deliver opaque messages: a prefix of 12 bytes {kind, sender, tag} before each.
#pragma once

#include "bench/compare/Bus.h"

#include <cstddef>

namespace Vantor::Sentrix::Compare {

// A client of such a bus sends and receives; this class does the rest. Threads and failures are those of Client.
class EmulatedRpc : public Client {
public:
    void Send(std::uint32_t to, Bytes data) override;
    void Request(std::uint32_t to, Bytes data, std::string& reply) override;
    void RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) override;
    void Poll(bool wait) override;

protected:
    static constexpr std::size_t kPrefixBytes = 12;

    // Delivers both, in one message.
    virtual void SendParts(std::uint32_t to, Bytes prefix, Bytes data) = 0;
    // Gives Arrived() every message to this client that is there, Published() every publication.
    virtual void Receive(bool wait) = 0;

    void Arrived(Bytes message);
    void Published(Bytes data) const;

    std::uint32_t m_id = 0; // of this client; Connect() sets it

private:
    enum class Purpose : std::uint32_t { Post, Request, Reply };
    static constexpr std::uint32_t kAwaitedTag = 0xFFFFFFFF; // of Request(); no RequestAsync() has it

    void Emit(std::uint32_t to, Purpose kind, std::uint32_t tag, Bytes data);

    std::string* m_awaited = nullptr; // where the reply to Request() goes, while one waits
    std::string m_reply;
};

} // namespace Vantor::Sentrix::Compare
