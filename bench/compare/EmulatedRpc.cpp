#include "bench/compare/EmulatedRpc.h"

#include <utility>

namespace Vantor::Sentrix::Compare {

void EmulatedRpc::Emit(std::uint32_t to, Purpose kind, std::uint32_t tag, Bytes data) {
    char prefix[kPrefixBytes];
    Put32(prefix, static_cast<std::uint32_t>(kind));
    Put32(prefix + 4, m_id);
    Put32(prefix + 8, tag);
    SendParts(to, {prefix, sizeof prefix}, data);
}

void EmulatedRpc::Send(std::uint32_t to, Bytes data) {
    Emit(to, Purpose::Post, 0, data);
}

void EmulatedRpc::Request(std::uint32_t to, Bytes data, std::string& reply) {
    m_awaited = &reply;
    Emit(to, Purpose::Request, kAwaitedTag, data);
    Flush();
    while (m_awaited != nullptr) {
        Receive(true);
    }
}

void EmulatedRpc::RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) {
    Emit(to, Purpose::Request, tag, data);
}

void EmulatedRpc::Poll(bool wait) {
    Flush();
    Receive(wait);
    Flush(); // replies that the handlers gave
}

void EmulatedRpc::Arrived(Bytes message) {
    if (message.size() < kPrefixBytes) {
        return;
    }
    const auto kind = static_cast<Purpose>(Get32(message.data()));
    const std::uint32_t from = Get32(message.data() + 4);
    const std::uint32_t tag = Get32(message.data() + 8);
    const Bytes data = message.substr(kPrefixBytes);
    if (kind == Purpose::Post) {
        Published(data);
    } else if (kind == Purpose::Request) {
        if (m_handlers.request) {
            m_handlers.request(data, m_reply);
            Emit(from, Purpose::Reply, tag, m_reply);
        }
    } else if (tag == kAwaitedTag) {
        if (m_awaited != nullptr) {
            std::exchange(m_awaited, nullptr)->assign(data);
        }
    } else if (m_handlers.reply) {
        m_handlers.reply(tag, data);
    }
}

void EmulatedRpc::Published(Bytes data) const {
    if (m_handlers.message) {
        m_handlers.message(data);
    }
}

} // namespace Vantor::Sentrix::Compare
