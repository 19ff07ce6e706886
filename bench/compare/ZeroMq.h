// What the ZeroMQ client and its router share. Frames from a client: [target][payload]. A target is a letter and a
// number: M a client, T a topic to publish to, S a topic to subscribe to.
#pragma once

#include "bench/compare/Bus.h"

#include <zmq.h>

#include <cerrno>
#include <stdexcept>

namespace Vantor::Sentrix::Compare::ZeroMq {

inline constexpr char kClient = 'M';
inline constexpr char kTopic = 'T';
inline constexpr char kSubscription = 'S';

struct Target {
    char bytes[5];

    Target(char kind, std::uint32_t number) : bytes{kind} { Put32(bytes + 1, number); }
};

inline void Check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + zmq_strerror(errno));
    }
}

class Message {
public:
    Message() { zmq_msg_init(&m_message); }
    explicit Message(std::size_t size) { Check(zmq_msg_init_size(&m_message, size), "zmq_msg_init_size"); }
    ~Message() { zmq_msg_close(&m_message); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    zmq_msg_t* Get() { return &m_message; }
    char* Data() { return static_cast<char*>(zmq_msg_data(&m_message)); }
    Bytes View() { return {Data(), zmq_msg_size(&m_message)}; }
    // Shares the bytes.
    void Copy(Message& other) { Check(zmq_msg_copy(&m_message, other.Get()), "zmq_msg_copy"); }
    void Receive(void* socket) { Check(zmq_msg_recv(&m_message, socket, 0), "zmq_msg_recv"); }
    void Send(void* socket, int flags) { Check(zmq_msg_send(&m_message, socket, flags), "zmq_msg_send"); }

private:
    zmq_msg_t m_message;
};

// Neither drops nor blocks at any number of messages: the harness's windows bound them.
inline void SetBoundless(void* socket) {
    const int none = 0;
    zmq_setsockopt(socket, ZMQ_SNDHWM, &none, sizeof none);
    zmq_setsockopt(socket, ZMQ_RCVHWM, &none, sizeof none);
}

} // namespace Vantor::Sentrix::Compare::ZeroMq
