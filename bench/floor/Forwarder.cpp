// The middle: reads what a connection has, and writes every run of bytes with the same destination onward at once.
//
// It keeps nothing and blocks in its writes, which is enough for two partners that both read all the time. A frame may
// leave in parts, so two that write to one third would mix theirs; nobody does that here.
#include "bench/floor/Roles.h"
#include "bench/floor/Wire.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>

namespace Vantor::Sentrix::Floor {

namespace {

class Connection {
public:
    using Members = std::map<std::uint32_t, const Socket*>;

    explicit Connection(Socket socket) : m_socket(std::move(socket)) {}

    const Socket& GetSocket() const { return m_socket; }

    // False when the partner is gone.
    bool Forward(Members& members) {
        const std::size_t got = m_socket.Receive(m_buffer + m_end, sizeof m_buffer - m_end);
        m_end += got;
        while (m_at < m_end && (m_bodyLeft != 0 || BeginFrame(members))) {
            const std::size_t step = std::min(m_bodyLeft, m_end - m_at);
            m_at += step;
            m_bodyLeft -= step;
        }
        Flush();
        m_end -= m_at; // what is left is the front of a header
        std::memmove(m_buffer, m_buffer + m_at, m_end);
        m_at = m_runBegin = 0;
        return got != 0;
    }

private:
    // False when the header is not complete.
    bool BeginFrame(Members& members) {
        Header header{};
        if (m_end - m_at < sizeof header) {
            return false;
        }
        std::memcpy(&header, m_buffer + m_at, sizeof header);
        if (header.kind == Kind::Hello) {
            members[header.to] = &m_socket;
            Flush();
            m_at += sizeof header;
            m_runBegin = m_at;
            return true;
        }
        if (const Socket* destination = members.at(header.to); destination != m_destination) {
            Flush();
            m_destination = destination;
        }
        m_at += sizeof header;
        m_bodyLeft = header.length;
        return true;
    }

    // Sends the run that ends where we are.
    void Flush() {
        if (m_runBegin != m_at) {
            m_destination->Send({m_buffer + m_runBegin, m_at - m_runBegin});
            m_runBegin = m_at;
        }
    }

    Socket m_socket;
    const Socket* m_destination = nullptr; // of the run that is being collected
    std::size_t m_bodyLeft = 0;            // of the frame in which the bytes read so far end
    std::size_t m_runBegin = 0;
    std::size_t m_at = 0; // end of the run
    std::size_t m_end = 0;
    char m_buffer[256 * 1024];
};

class Forwarder {
public:
    explicit Forwarder(std::uint32_t name) : m_listener(Listen(name)), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
        Watch(m_listener, nullptr);
    }

    void Run() {
        for (;;) {
            epoll_event events[16];
            const int count = epoll_wait(m_epoll.Descriptor(), events, 16, -1);
            for (int i = 0; i < count; ++i) {
                if (events[i].data.ptr == nullptr) {
                    m_connections.push_back(std::make_unique<Connection>(Accept(m_listener)));
                    Watch(m_connections.back()->GetSocket(), m_connections.back().get());
                } else if (!static_cast<Connection*>(events[i].data.ptr)->Forward(m_members)) {
                    return; // one of the two has what it came for
                }
            }
        }
    }

private:
    void Watch(const Socket& socket, Connection* connection) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = connection;
        if (epoll_ctl(m_epoll.Descriptor(), EPOLL_CTL_ADD, socket.Descriptor(), &event) != 0) {
            throw std::runtime_error("epoll_ctl failed");
        }
    }

    Socket m_listener;
    Socket m_epoll;
    std::vector<std::unique_ptr<Connection>> m_connections;
    Connection::Members m_members;
};

} // namespace

void RunForwarder(const Settings& settings) {
    Forwarder forwarder(settings.Get<std::uint32_t>("socket"));
    Say(Tool::kReadyLine);
    forwarder.Run();
}

} // namespace Vantor::Sentrix::Floor
