// veyra-compare-forwarder SOCKET CHECKSUMS SPIN: forwards frames between connections, one thread, the shortest way that
// does not lose or mix any. What a bus with a broker cannot beat by much.
#include "bench/compare/LimitFrame.h"
#include "bench/compare/Sockets.h"

#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace Vantor::Sentrix::Compare::Limit {

namespace {

struct Connection {
    explicit Connection(Descriptor accepted) : socket(std::move(accepted)) {}

    std::size_t Queued() const { return output.size() - sent; }

    Descriptor socket;
    std::uint32_t id = 0;
    std::uint32_t awaited = EPOLLIN; // what epoll looks for
    bool paused = false;             // not read, because a receiver is behind
    FrameBuffer input;
    std::string output; // what the socket did not take
    std::size_t sent = 0;
    std::vector<std::uint32_t> topics;
    std::vector<int> waiting; // descriptors paused until `output` is shorter
};

class Forwarder {
public:
    Forwarder(const std::string& path, FrameFormat format, bool spin)
        : m_format(format), m_spin(spin), m_listener(ListenUnix(path)), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
        Watch(EPOLL_CTL_ADD, m_listener, EPOLLIN);
    }

    [[noreturn]] void Run() {
        std::vector<epoll_event> events(64);
        for (;;) {
            const int count = Wait(events);
            for (int i = 0; i < count; ++i) {
                Handle(events[static_cast<std::size_t>(i)]);
            }
        }
    }

private:
    void Watch(int operation, const Descriptor& descriptor, std::uint32_t what) const {
        epoll_event event{};
        event.events = what;
        event.data.fd = descriptor.Get();
        if (epoll_ctl(m_epoll.Get(), operation, descriptor.Get(), &event) != 0) {
            FailWithErrno("epoll_ctl");
        }
    }

    int Wait(std::vector<epoll_event>& events) const {
        const auto ask = [&](int timeout) {
            return epoll_wait(m_epoll.Get(), events.data(), static_cast<int>(events.size()), timeout);
        };
        int count = 0;
        for (const double end = m_spin ? Now() + kSpinSeconds : 0; m_spin && count == 0 && Now() < end;) {
            count = ask(0);
            if (count == 0) {
                sched_yield();
            }
        }
        return count != 0 ? count : ask(-1); // an interrupted wait gives -1, which is no events
    }

    void Handle(const epoll_event& event) {
        if (event.data.fd == m_listener.Get()) {
            auto connection = std::make_unique<Connection>(Accept(m_listener));
            Watch(EPOLL_CTL_ADD, connection->socket, EPOLLIN);
            m_connections[connection->socket.Get()] = std::move(connection);
            return;
        }
        const auto found = m_connections.find(event.data.fd);
        if (found == m_connections.end()) {
            return;
        }
        Connection& connection = *found->second;
        if ((event.events & EPOLLOUT) != 0) {
            Drain(connection);
        }
        if ((event.events & EPOLLIN) != 0 ? !Read(connection) : (event.events & (EPOLLHUP | EPOLLERR)) != 0) {
            Close(connection);
        }
    }

    // Asks epoll for what the connection now waits for.
    void Arm(Connection& connection) const {
        const std::uint32_t wanted = (connection.paused ? 0U : static_cast<std::uint32_t>(EPOLLIN)) |
                                     (connection.Queued() != 0 ? static_cast<std::uint32_t>(EPOLLOUT) : 0U);
        if (wanted != connection.awaited) {
            connection.awaited = wanted;
            Watch(EPOLL_CTL_MOD, connection.socket, wanted);
        }
    }

    void Resume(Connection& receiver) {
        for (const int descriptor : std::exchange(receiver.waiting, {})) {
            if (const auto sender = m_connections.find(descriptor); sender != m_connections.end()) {
                sender->second->paused = false;
                Arm(*sender->second);
            }
        }
    }

    void Drain(Connection& connection) {
        while (connection.Queued() != 0) {
            const ssize_t sent = send(connection.socket.Get(), connection.output.data() + connection.sent,
                                      connection.Queued(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent <= 0) {
                break;
            }
            connection.sent += static_cast<std::size_t>(sent);
        }
        if (connection.Queued() == 0) {
            connection.output.clear();
            connection.sent = 0;
        }
        if (connection.Queued() <= kHighWater / 2) {
            Resume(connection);
        }
        Arm(connection);
    }

    void Deliver(Connection& from, Connection& to, Bytes frames) {
        if (to.Queued() == 0) {
            const ssize_t sent = send(to.socket.Get(), frames.data(), frames.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            frames.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
            if (frames.empty()) {
                return;
            }
        }
        to.output.append(frames);
        Arm(to);
        if (to.Queued() > kHighWater && !from.paused && &from != &to) {
            from.paused = true;
            to.waiting.push_back(from.socket.Get());
            Arm(from);
        }
    }

    void Close(Connection& connection) {
        Resume(connection);
        if (const auto named = m_byId.find(connection.id); named != m_byId.end() && named->second == &connection) {
            m_byId.erase(named);
        }
        m_connections.erase(connection.socket.Get());
    }

    // Frames in a row for one destination leave in one send.
    struct Row {
        Connection* to = nullptr;
        const char* begin = nullptr;
        std::size_t size = 0;
    };

    void EndRow(Connection& from, Row& row) {
        if (row.to != nullptr) {
            Deliver(from, *row.to, {row.begin, row.size});
        }
        row = {};
    }

    // False: the other side is gone.
    bool Read(Connection& from) {
        from.input.Reserve(m_format);
        const ssize_t got = recv(from.socket.Get(), from.input.Free(), from.input.FreeBytes(), MSG_DONTWAIT);
        if (got <= 0) {
            return got < 0 && (errno == EAGAIN || errno == EINTR);
        }
        from.input.Filled(static_cast<std::size_t>(got));
        Row row;
        m_published.clear();
        while (from.input.HasFrame(m_format)) {
            const char* frame = from.input.Begin();
            const Header header = FrameFormat::Read(frame);
            m_format.Check(frame, header.length);
            const std::size_t size = m_format.HeaderBytes() + header.length;
            from.input.Consume(size);
            Route(from, header, {frame, size}, row);
        }
        EndRow(from, row);
        for (Connection* subscriber : m_published) {
            Drain(*subscriber);
        }
        return true;
    }

    void Route(Connection& from, const Header& header, Bytes frame, Row& row) {
        if (header.kind == FrameKind::Control) {
            EndRow(from, row);
            Obey(from, header, frame);
        } else if ((header.to & kTopicBit) != 0) {
            EndRow(from, row);
            Publish(header.to & ~kTopicBit, frame);
        } else if (const auto to = m_byId.find(header.to); to != m_byId.end()) {
            if (row.to != to->second || row.begin + row.size != frame.data()) {
                EndRow(from, row);
                row = {to->second, frame.data(), 0};
            }
            row.size += frame.size();
        }
    }

    void Obey(Connection& from, const Header& header, Bytes frame) {
        if (header.tag == kHello) {
            from.id = header.from;
            m_byId[from.id] = &from;
        } else {
            from.topics.push_back(Get32(frame.data() + m_format.HeaderBytes()));
        }
        Deliver(from, from, frame);
    }

    void Publish(std::uint32_t topic, Bytes frame) {
        for (const auto& [descriptor, connection] : m_connections) {
            if (std::find(connection->topics.begin(), connection->topics.end(), topic) == connection->topics.end()) {
                continue;
            }
            if (connection->Queued() == 0) {
                m_published.push_back(connection.get());
            }
            connection->output.append(frame);
        }
    }

    static constexpr std::size_t kHighWater = 1 << 20; // of bytes that a receiver has not taken

    const FrameFormat m_format;
    const bool m_spin;
    Descriptor m_listener;
    Descriptor m_epoll;
    std::unordered_map<int, std::unique_ptr<Connection>> m_connections; // by descriptor
    std::unordered_map<std::uint32_t, Connection*> m_byId;
    std::vector<Connection*> m_published; // whose output has begun with the read that is being handled
};

} // namespace

} // namespace Vantor::Sentrix::Compare::Limit

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix::Compare;
    if (argc != 4) {
        std::fputs("veyra-compare-forwarder: started by veyra-compare; it has no use of its own\n", stderr);
        return 2;
    }
    try {
        Limit::Forwarder(argv[1], Limit::FrameFormat(argv[2] == std::string_view("1")),
                         argv[3] == std::string_view("1"))
            .Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "veyra-compare-forwarder: %s\n", error.what());
        return 1;
    }
}
