// veyra-compare-zeromq ENDPOINT: the broker that ZeroMQ itself does not bring. Hands [payload] on from one DEALER to
// another, and to the subscribers of a topic.
#include "bench/compare/ZeroMq.h"

#include <csignal>
#include <cstdio>
#include <unordered_map>

namespace Vantor::Sentrix::Compare::ZeroMq {

namespace {

class Router {
public:
    explicit Router(const char* endpoint) : m_socket(zmq_socket(zmq_ctx_new(), ZMQ_ROUTER)) {
        SetBoundless(m_socket);
        Check(zmq_bind(m_socket, endpoint), "zmq_bind");
    }

    [[noreturn]] void Run() {
        for (;;) {
            Message from;
            Message target;
            Message payload;
            from.Receive(m_socket);
            target.Receive(m_socket);
            payload.Receive(m_socket);
            Route(from, target, payload);
        }
    }

private:
    void Route(Message& from, Message& target, Message& payload) {
        const std::uint32_t number = Get32(target.Data() + 1);
        if (target.Data()[0] == kTopic) {
            Publish(m_subscribers[number], target, payload);
            return;
        }
        if (target.Data()[0] == kSubscription) {
            m_subscribers[number].emplace_back(from.View());
            target.Copy(from); // it comes back as the sign that it has been done
        }
        target.Send(m_socket, ZMQ_SNDMORE);
        from.Send(m_socket, ZMQ_SNDMORE);
        payload.Send(m_socket, 0);
    }

    void Publish(const std::vector<std::string>& subscribers, Message& target, Message& payload) {
        const Bytes topic = target.View();
        for (const std::string& subscriber : subscribers) {
            Message copy;
            copy.Copy(payload);
            Check(zmq_send(m_socket, subscriber.data(), subscriber.size(), ZMQ_SNDMORE), "zmq_send");
            Check(zmq_send(m_socket, topic.data(), topic.size(), ZMQ_SNDMORE), "zmq_send");
            copy.Send(m_socket, 0);
        }
    }

    void* m_socket;
    std::unordered_map<std::uint32_t, std::vector<std::string>> m_subscribers; // routing ids, by topic
};

} // namespace

} // namespace Vantor::Sentrix::Compare::ZeroMq

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("veyra-compare-zeromq: started by veyra-compare; it has no use of its own\n", stderr);
        return 2;
    }
    try {
        std::signal(SIGPIPE, SIG_IGN);
        Vantor::Sentrix::Compare::ZeroMq::Router(argv[1]).Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "veyra-compare-zeromq: %s\n", error.what());
        return 1;
    }
}
