// The "limit" rows: plain Unix stream sockets, directly between two processes or through the forwarder. One that spins
// asks the kernel again and again for a while, yielding its processor each time, before it sleeps.
#include "bench/compare/LimitFrame.h"
#include "bench/compare/Processes.h"
#include "bench/compare/SocketClient.h"

#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <utility>

namespace Vantor::Sentrix::Compare::Limit {

namespace {

struct Mode {
    bool direct = false;
    bool checksums = false;
    bool batch = false;
    bool spinClient = false;
    bool spinBroker = false;
};

class LimitClient : public SocketClient {
public:
    LimitClient(std::string address, Mode mode)
        : m_address(std::move(address)), m_mode(mode), m_format(mode.checksums) {}

    void Connect(std::uint32_t id) override {
        m_id = id;
        if (m_mode.direct) {
            m_listener = ListenUnix(m_address + '/' + std::to_string(id));
        } else {
            m_socket = ConnectUnix(m_address);
            Control(kHello, 0);
        }
    }
    void Send(std::uint32_t to, Bytes data) override { Write(to, FrameKind::Post, 0, data); }
    void Request(std::uint32_t to, Bytes data, std::string& reply) override {
        Write(to, FrameKind::Request, kAwaitedTag, data);
        AwaitReply(reply);
    }
    void RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) override {
        Write(to, FrameKind::Request, tag, data);
    }
    void Subscribe(std::uint32_t topic) override { Control(kSubscribe, topic); }
    void Publish(std::uint32_t topic, Bytes data) override { Write(kTopicBit | topic, FrameKind::Post, 0, data); }

private:
    static constexpr std::size_t kBatchBytes = 32 * 1024;
    static constexpr std::size_t kSmallBytes = 16 * 1024; // what is worth a copy to be sent along with others

    // Returns when the forwarder has done it.
    void Control(std::uint32_t what, std::uint32_t topic) {
        char payload[4];
        Put32(payload, topic);
        m_obeyed = false;
        Write(0, FrameKind::Control, what, {payload, sizeof payload});
        Flush();
        while (!m_obeyed) {
            Receive(true);
        }
    }

    void Write(std::uint32_t to, FrameKind kind, std::uint32_t tag, Bytes data) {
        if (!m_socket.IsOpen()) {
            m_socket = ConnectUnix(m_address + '/' + std::to_string(to)); // direct
        }
        char header[FrameFormat::kMostHeaderBytes];
        m_format.Write(header, {static_cast<std::uint32_t>(data.size()), to, m_id, kind, tag}, data.data());
        if (m_mode.batch && data.size() < kSmallBytes) {
            m_output.append(header, m_format.HeaderBytes()).append(data);
            if (m_output.size() >= kBatchBytes) {
                Flush();
            }
        } else {
            Flush();
            WriteTogether({header, m_format.HeaderBytes()}, data);
        }
    }

    void WriteTogether(Bytes header, Bytes data) const {
        iovec parts[] = {{const_cast<char*>(header.data()), header.size()},
                         {const_cast<char*>(data.data()), data.size()}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        const ssize_t result = sendmsg(m_socket.Get(), &message, MSG_NOSIGNAL);
        if (result < 0) {
            FailWithErrno("sendmsg");
        }
        const auto sent = static_cast<std::size_t>(result);
        if (sent < header.size()) {
            WriteAll(m_socket, header.substr(sent));
        }
        WriteAll(m_socket, data.substr(sent > header.size() ? sent - header.size() : 0));
    }

    std::size_t Fill(bool wait) {
        m_input.Reserve(m_format);
        const bool spin = m_mode.spinClient && wait;
        for (const double end = spin ? Now() + kSpinSeconds : 0; spin && Now() < end; sched_yield()) {
            if (const std::size_t got = ReadSome(m_socket, m_input.Free(), m_input.FreeBytes(), false)) {
                return got;
            }
        }
        return ReadSome(m_socket, m_input.Free(), m_input.FreeBytes(), wait);
    }

    void Receive(bool wait) override {
        if (!m_socket.IsOpen()) {
            if (!wait) {
                return;
            }
            m_socket = Accept(m_listener);
        }
        for (bool any = false; !any;) {
            const std::size_t got = Fill(wait);
            m_input.Filled(got);
            while (m_input.HasFrame(m_format)) {
                const char* frame = m_input.Begin();
                const Header header = FrameFormat::Read(frame);
                m_format.Check(frame, header.length);
                m_input.Consume(m_format.HeaderBytes() + header.length);
                Handle(header, {frame + m_format.HeaderBytes(), header.length});
                any = true;
            }
            any |= !wait && got == 0;
        }
    }

    void Handle(const Header& header, Bytes data) {
        switch (header.kind) {
        case FrameKind::Post:
            if (m_handlers.message) {
                m_handlers.message(data);
            }
            break;
        case FrameKind::Request:
            if (m_handlers.request) {
                m_handlers.request(data, m_reply);
                Write(header.from, FrameKind::Reply, header.tag, m_reply);
            }
            break;
        case FrameKind::Reply:
            if (header.tag != kAwaitedTag) {
                m_handlers.reply(header.tag, data);
            } else {
                TakeReply(data);
            }
            break;
        case FrameKind::Control:
            m_obeyed = true;
            break;
        }
    }

    const std::string m_address;
    const Mode m_mode;
    const FrameFormat m_format;
    std::uint32_t m_id = 0;
    bool m_obeyed = false;
    Descriptor m_listener; // direct only
    FrameBuffer m_input;
};

class ForwarderBroker : public ProcessBroker {
public:
    explicit ForwarderBroker(Mode mode) : m_mode(mode) {}

    void Start(const std::string& folder) override {
        m_path = folder + "/forwarder.socket";
        m_process = StartProcess({{ProgramBeside("veyra-compare-forwarder"), m_path, m_mode.checksums ? "1" : "0",
                                   m_mode.spinBroker ? "1" : "0"},
                                  folder + "/broker.log"});
        AwaitUnix(m_path, m_process);
    }
    std::string Address() const override { return m_path; }

private:
    const Mode m_mode;
    std::string m_path;
};

// The address is the folder in which clients listen.
class NoBroker : public Broker {
public:
    void Start(const std::string& folder) override { m_folder = folder; }
    std::string Address() const override { return m_folder; }
    std::vector<pid_t> Processes() const override { return {}; }

private:
    std::string m_folder;
};

enum class Runs { Always, Full, FullLatency };

Backend Make(const char* name, const char* note, Mode mode, Runs runs) {
    Backend backend;
    backend.name = name;
    backend.note = note;
    backend.kind = Kind::Limit;
    backend.program = ProgramBeside("veyra-compare-forwarder");
    if (mode.direct) {
        backend.makeBroker = [] { return std::make_unique<NoBroker>(); };
    } else {
        backend.makeBroker = [mode] { return std::make_unique<ForwarderBroker>(mode); };
    }
    backend.makeClient = [mode](const std::string& address) { return std::make_unique<LimitClient>(address, mode); };
    backend.hasBroker = !mode.direct;
    backend.onlyLatency = runs == Runs::FullLatency;
    backend.inQuickRun = runs == Runs::Always;
    return backend;
}

const Registration kRegistration(
    {Make("limit-direct", "two processes, no broker, one write a message", {.direct = true}, Runs::Full),
     Make("limit-fwd", "an epoll forwarder, one write a message", {}, Runs::Always),
     Make("limit-fwd-crc", "as limit-fwd; CRC-32 of header and payload, made once, checked by forwarder and receiver",
          {.checksums = true}, Runs::Full),
     Make("limit-fwd-batch", "as limit-fwd; the client sends small messages together, 32 KiB at a time",
          {.batch = true}, Runs::Always),
     Make("limit-fwd-spin", "as limit-fwd; everyone looks for 50 us before it sleeps",
          {.spinClient = true, .spinBroker = true}, Runs::Always),
     Make("limit-fwd-spin-c", "as limit-fwd-spin, the clients only", {.spinClient = true}, Runs::FullLatency),
     Make("limit-fwd-spin-b", "as limit-fwd-spin, the forwarder only", {.spinBroker = true}, Runs::FullLatency)});

} // namespace

} // namespace Vantor::Sentrix::Compare::Limit
