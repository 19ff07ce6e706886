// NATS: nats-server on 127.0.0.1, for it has no Unix socket, and a small client of its text protocol that sends what it
// has in pieces of 32 KiB, as the official clients do. An id is the subject m.ID; a request names the protocol's own
// reply subject, i.ID.TAG; a publication is t.TOPIC.
#include "bench/compare/Processes.h"
#include "bench/compare/SocketClient.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

constexpr std::uint32_t kAwaitedTag = 0xFFFFFFFF;
constexpr Bytes kOwnSubscription = "1";
constexpr Bytes kReplySubscription = "2";

std::uint32_t NumberOf(Bytes digits) {
    std::uint32_t number = 0;
    for (const char digit : digits) {
        number = number * 10 + static_cast<std::uint32_t>(digit - '0');
    }
    return number;
}

class NatsClient : public SocketClient {
public:
    explicit NatsClient(const std::string& address) : m_port(std::stoi(address)) {}

    void Connect(std::uint32_t id) override {
        m_id = std::to_string(id);
        m_socket = ConnectTcp(m_port);
        m_output = R"(CONNECT {"verbose":false,"pedantic":false,"echo":true,"lang":"cpp","version":"0","protocol":1})";
        m_output.append("\r\nSUB m.").append(m_id).append(" ").append(kOwnSubscription);
        m_output.append("\r\nSUB i.").append(m_id).append(".* ").append(kReplySubscription).append("\r\n");
        AwaitServer();
    }
    void Subscribe(std::uint32_t topic) override {
        const std::string subject = std::to_string(topic);
        m_output.append("SUB t.").append(subject).append(" topic").append(subject).append("\r\n");
        AwaitServer();
    }
    void Send(std::uint32_t to, Bytes data) override { Emit("m.", to, nullptr, data); }
    void Publish(std::uint32_t topic, Bytes data) override { Emit("t.", topic, nullptr, data); }
    void RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) override { Emit("m.", to, &tag, data); }
    void Request(std::uint32_t to, Bytes data, std::string& reply) override {
        Emit("m.", to, &kAwaitedTag, data);
        AwaitReply(reply);
    }

private:
    static constexpr std::size_t kBatchBytes = 32 * 1024;
    static constexpr std::size_t kReadBytes = 64 * 1024; // room for at least so much before a read

    // The server answers in order, so what was sent before is then in force.
    void AwaitServer() {
        m_output += "PING\r\n";
        m_answered = false;
        Flush();
        while (!m_answered) {
            Receive(true);
        }
    }

    void Emit(const char* kind, std::uint32_t to, const std::uint32_t* tag, Bytes data) {
        m_output.append("PUB ").append(kind).append(std::to_string(to));
        if (tag != nullptr) {
            m_output.append(" i.").append(m_id).append(".").append(std::to_string(*tag));
        }
        AppendBody(data);
    }

    void AppendBody(Bytes data) {
        m_output.append(" ").append(std::to_string(data.size())).append("\r\n").append(data).append("\r\n");
        if (m_output.size() >= kBatchBytes) {
            Flush();
        }
    }

    void Receive(bool wait) override {
        for (bool any = false; !any;) {
            MakeRoom();
            const std::size_t got = ReadSome(m_socket, m_bytes.get() + m_end, m_capacity - m_end, wait);
            m_end += got;
            while (Step(any)) {
            }
            if (m_begin == m_end) {
                m_begin = m_end = 0;
            }
            any |= !wait && got == 0;
        }
    }

    void MakeRoom() {
        if (m_capacity - m_end >= kReadBytes && m_capacity - m_begin >= m_needed) {
            return;
        }
        const std::size_t kept = m_end - m_begin;
        if (const std::size_t wanted = std::max(m_needed, kept) + m_bytesAtFirst; wanted > m_capacity) {
            std::unique_ptr<char[]> larger(new char[wanted]);
            std::memcpy(larger.get(), m_bytes.get() + m_begin, kept);
            m_bytes = std::move(larger);
            m_capacity = wanted;
        } else {
            std::memmove(m_bytes.get(), m_bytes.get() + m_begin, kept);
        }
        m_begin = 0;
        m_end = kept;
    }

    // Handles one item of the protocol. False: more bytes are needed.
    bool Step(bool& any) {
        const Bytes bytes(m_bytes.get() + m_begin, m_end - m_begin);
        if (bytes.size() < m_needed) {
            return false;
        }
        m_needed = 0;
        const std::size_t lineEnd = bytes.find('\n');
        if (lineEnd == Bytes::npos) {
            return false;
        }
        const Bytes line = bytes.substr(0, lineEnd - 1); // it ends in \r\n
        if (line.starts_with("MSG ")) {
            return StepMessage(line.substr(4), bytes, any);
        }
        m_begin += lineEnd + 1;
        if (line == "PONG") {
            m_answered = any = true;
        } else if (line == "PING") {
            m_output += "PONG\r\n";
        } else if (line.starts_with("-ERR")) {
            throw std::runtime_error(std::string(line));
        }
        return true;
    }

    // SUBJECT SUBSCRIPTION [REPLY-TO] LENGTH, then the payload on lines of its own.
    bool StepMessage(Bytes words, Bytes bytes, bool& any) {
        Bytes word[4];
        std::size_t count = 0;
        const char* const lineEnd = words.data() + words.size();
        while (count < 4 && !words.empty()) {
            word[count] = words.substr(0, words.find(' '));
            words.remove_prefix(std::min(words.size(), word[count++].size() + 1));
        }
        const std::size_t length = NumberOf(word[count - 1]);
        const auto head = static_cast<std::size_t>(lineEnd + 2 - bytes.data());
        if (bytes.size() < head + length + 2) {
            m_needed = head + length + 2;
            return false;
        }
        m_begin += head + length + 2;
        any = true;
        Handle(word[0], word[1], count == 4 ? word[2] : Bytes(), bytes.substr(head, length));
        return true;
    }

    void Handle(Bytes subject, Bytes subscription, Bytes replyTo, Bytes data) {
        if (subscription == kReplySubscription) {
            const std::uint32_t tag = NumberOf(subject.substr(subject.rfind('.') + 1));
            if (tag != kAwaitedTag) {
                m_handlers.reply(tag, data);
            } else {
                TakeReply(data);
            }
        } else if (!replyTo.empty()) {
            m_handlers.request(data, m_reply);
            m_output.append("PUB ").append(replyTo);
            AppendBody(m_reply);
        } else if (m_handlers.message) {
            m_handlers.message(data);
        }
    }

    const int m_port;
    std::string m_id;
    bool m_answered = false;

    const std::size_t m_bytesAtFirst = 256 * 1024;
    std::size_t m_capacity = m_bytesAtFirst;
    std::unique_ptr<char[]> m_bytes{new char[m_capacity]};
    std::size_t m_begin = 0; // of what has not been handled
    std::size_t m_end = 0;
    std::size_t m_needed = 0; // for the item at the front; 0: not known
};

class NatsServer : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        m_port = FreeTcpPort();
        const std::string configuration = folder + "/nats.conf";
        WriteTextFile(configuration,
                      "listen: \"127.0.0.1:" + std::to_string(m_port) + "\"\nmax_payload: 8MB\nmax_pending: 256MB\n");
        m_process = StartProcess({{"nats-server", "-c", configuration}, folder + "/broker.log"});
        AwaitTcp(m_port, m_process);
    }
    std::string Address() const override { return std::to_string(m_port); }

private:
    int m_port = 0;
};

const Registration kRegistration({BackendOf<NatsServer, NatsClient>(
    "nats", "nats-server",
    "a client of our own on TCP, writes of 32 KiB as the official clients do; native request and reply")});

} // namespace

} // namespace Vantor::Sentrix::Compare
