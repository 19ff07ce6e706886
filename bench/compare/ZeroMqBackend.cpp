// ZeroMQ: DEALER clients of a ROUTER process, over ipc.
#include "bench/compare/EmulatedRpc.h"
#include "bench/compare/Processes.h"
#include "bench/compare/ZeroMq.h"

#include <unistd.h>

#include <cstring>

namespace Vantor::Sentrix::Compare {

namespace {

using ZeroMq::Check;
using ZeroMq::Message;
using ZeroMq::Target;

constexpr Bytes kEcho = "e";
constexpr Bytes kPublication = "P";

// Never ended: its I/O threads end with the process.
void* SharedContext() {
    static void* const context = [] {
        void* made = zmq_ctx_new();
        constexpr int kMostSockets = 4096;
        zmq_ctx_set(made, ZMQ_MAX_SOCKETS, kMostSockets);
        return made;
    }();
    return context;
}

struct SocketRelease {
    void operator()(void* socket) const { zmq_close(socket); }
};

class ZeroMqClient : public EmulatedRpc {
public:
    explicit ZeroMqClient(std::string address) : m_address(std::move(address)) {}

    void Connect(std::uint32_t id) override {
        m_id = id;
        m_socket.reset(zmq_socket(SharedContext(), ZMQ_DEALER));
        ZeroMq::SetBoundless(m_socket.get());
        const int none = 0;
        zmq_setsockopt(m_socket.get(), ZMQ_LINGER, &none, sizeof none);
        const Target own(ZeroMq::kClient, id);
        zmq_setsockopt(m_socket.get(), ZMQ_ROUTING_ID, own.bytes, sizeof own.bytes);
        Check(zmq_connect(m_socket.get(), m_address.c_str()), "zmq_connect");
        AwaitEcho(own);
    }
    void Subscribe(std::uint32_t topic) override { AwaitEcho({ZeroMq::kSubscription, topic}); }
    void Publish(std::uint32_t topic, Bytes data) override { Emit({ZeroMq::kTopic, topic}, kPublication, data); }

protected:
    void SendParts(std::uint32_t to, Bytes prefix, Bytes data) override { Emit({ZeroMq::kClient, to}, prefix, data); }

    void Receive(bool wait) override {
        while (ReceiveOne(wait) && !m_awaitsEcho) {
            wait = false; // what else is there
        }
    }

private:
    // False: there is none.
    bool ReceiveOne(bool wait) {
        Message source;
        while (zmq_msg_recv(source.Get(), m_socket.get(), wait ? 0 : ZMQ_DONTWAIT) < 0) {
            if (errno == EAGAIN) {
                return false;
            }
            Check(errno == EINTR ? 0 : -1, "zmq_msg_recv");
        }
        Message message;
        message.Receive(m_socket.get());
        if (message.View() == kEcho) {
            m_awaitsEcho = false;
        } else if (source.Data()[0] == ZeroMq::kTopic) {
            Published(message.View().substr(kPublication.size()));
        } else {
            Arrived(message.View());
        }
        return true;
    }

    // The router sends it back, so it has then seen all that was sent before.
    void AwaitEcho(const Target& target) {
        m_awaitsEcho = true;
        Emit(target, kEcho, {});
        while (m_awaitsEcho) {
            Receive(true);
        }
    }

    void Emit(const Target& target, Bytes first, Bytes second) {
        Check(zmq_send(m_socket.get(), target.bytes, sizeof target.bytes, ZMQ_SNDMORE), "zmq_send");
        Message message(first.size() + second.size());
        std::memcpy(message.Data(), first.data(), first.size());
        if (!second.empty()) {
            std::memcpy(message.Data() + first.size(), second.data(), second.size());
        }
        message.Send(m_socket.get(), 0);
    }

    const std::string m_address;
    bool m_awaitsEcho = false;
    std::unique_ptr<void, SocketRelease> m_socket;
};

class ZeroMqServer : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        m_path = folder + "/zeromq.socket";
        m_process = StartProcess({{ProgramBeside("veyra-compare-zeromq"), Address()}, folder + "/broker.log"});
        AwaitBroker(m_process, m_path, [&] { return access(m_path.c_str(), F_OK) == 0; }); // clients connect again
    }
    std::string Address() const override { return "ipc://" + m_path; }

private:
    std::string m_path;
};

const Registration kRegistration({BackendOf<ZeroMqServer, ZeroMqClient>(
    "zeromq", ProgramBeside("veyra-compare-zeromq"),
    "libzmq, DEALER to ROUTER; its I/O thread batches by itself; request and reply emulated")});

} // namespace

} // namespace Vantor::Sentrix::Compare
