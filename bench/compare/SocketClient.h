// What clients of our own over one stream socket have in common: output that is held back, and a reply that is awaited.
#pragma once

#include "bench/compare/Bus.h"
#include "bench/compare/Sockets.h"

#include <string>
#include <utility>

namespace Vantor::Sentrix::Compare {

class SocketClient : public Client {
public:
    void Flush() override {
        WriteAll(m_socket, m_output);
        m_output.clear();
    }
    void Poll(bool wait) override {
        Flush();
        Receive(wait);
        Flush();
    }

protected:
    // Handles what has arrived; with `wait`, at least one thing.
    virtual void Receive(bool wait) = 0;

    // The request is written or in the output.
    void AwaitReply(std::string& reply) {
        m_awaited = &reply;
        Flush();
        while (m_awaited != nullptr) {
            Receive(true);
        }
    }
    void TakeReply(Bytes data) {
        if (m_awaited != nullptr) {
            std::exchange(m_awaited, nullptr)->assign(data);
        }
    }

    Descriptor m_socket;
    std::string m_output; // small messages that are held back
    std::string m_reply;  // to a request of somebody else

private:
    std::string* m_awaited = nullptr;
};

} // namespace Vantor::Sentrix::Compare
