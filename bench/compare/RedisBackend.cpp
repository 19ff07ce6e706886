// Redis: publications over a Unix socket with hiredis. A connection that subscribes cannot publish, so a client has
// two; the one that publishes asks for no replies. An id is the channel mID, a topic the channel tTOPIC.
#include "bench/compare/EmulatedRpc.h"
#include "bench/compare/Processes.h"

#include <hiredis/hiredis.h>
#include <poll.h>

#include <stdexcept>

namespace Vantor::Sentrix::Compare {

namespace {

struct ContextRelease {
    void operator()(redisContext* context) const { redisFree(context); }
};
struct ReplyRelease {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Connection = std::unique_ptr<redisContext, ContextRelease>;
using Reply = std::unique_ptr<redisReply, ReplyRelease>;

Connection Open(const std::string& path) {
    Connection connection(redisConnectUnix(path.c_str()));
    if (connection == nullptr || connection->err != 0) {
        throw std::runtime_error(std::string("redis: ") + (connection != nullptr ? connection->errstr : "no memory"));
    }
    return connection;
}

void Check(const Connection& connection, int result) {
    if (result != REDIS_OK) {
        throw std::runtime_error(std::string("redis: ") + connection->errstr);
    }
}

void WriteOut(const Connection& connection) {
    for (int done = 0; done == 0;) {
        Check(connection, redisBufferWrite(connection.get(), &done));
    }
}

Bytes TextOf(const redisReply* reply) {
    return {reply->str, reply->len};
}

class RedisClient : public EmulatedRpc {
public:
    explicit RedisClient(std::string address) : m_address(std::move(address)) {}

    void Connect(std::uint32_t id) override {
        m_id = id;
        m_subscriber = Open(m_address);
        m_publisher = Open(m_address);
        redisAppendCommand(m_publisher.get(), "CLIENT REPLY OFF");
        Flush();
        SubscribeTo('m' + std::to_string(id));
    }
    void Subscribe(std::uint32_t topic) override { SubscribeTo('t' + std::to_string(topic)); }
    void Publish(std::uint32_t topic, Bytes data) override { Emit('t' + std::to_string(topic), data, {}); }
    void Flush() override {
        WriteOut(m_publisher);
        m_held = 0;
    }

protected:
    void SendParts(std::uint32_t to, Bytes prefix, Bytes data) override {
        Emit('m' + std::to_string(to), prefix, data);
    }

    void Receive(bool wait) override {
        for (bool any = false; !any;) {
            pollfd readable{m_subscriber->fd, POLLIN, 0};
            if (!wait && poll(&readable, 1, 0) <= 0) {
                return;
            }
            Check(m_subscriber, redisBufferRead(m_subscriber.get()));
            while (const Reply reply = NextReply()) {
                any |= Handle(*reply);
            }
            any |= !wait;
        }
    }

private:
    static constexpr std::size_t kBatchBytes = 32 * 1024;

    Reply NextReply() const {
        void* reply = nullptr;
        Check(m_subscriber, redisReaderGetReply(m_subscriber->reader, &reply));
        return Reply(static_cast<redisReply*>(reply));
    }

    // {kind, channel, payload or count}. True: it was one.
    bool Handle(const redisReply& reply) {
        if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 3) {
            return false;
        }
        if (TextOf(reply.element[0]) == "subscribe") {
            ++m_subscribed;
        } else if (reply.element[1]->str[0] == 'm') {
            Arrived(TextOf(reply.element[2]));
        } else {
            Published(TextOf(reply.element[2]));
        }
        return true;
    }

    void SubscribeTo(const std::string& channel) {
        const int before = m_subscribed;
        redisAppendCommand(m_subscriber.get(), "SUBSCRIBE %s", channel.c_str());
        WriteOut(m_subscriber);
        while (m_subscribed == before) {
            Receive(true);
        }
    }

    // PUBLISH with a payload of two parts, written straight into one text.
    void Emit(const std::string& channel, Bytes first, Bytes second) {
        m_command.assign("*3\r\n$7\r\nPUBLISH\r\n$").append(std::to_string(channel.size())).append("\r\n");
        m_command.append(channel).append("\r\n$").append(std::to_string(first.size() + second.size()));
        m_command.append("\r\n").append(first).append(second).append("\r\n");
        redisAppendFormattedCommand(m_publisher.get(), m_command.data(), m_command.size());
        m_held += m_command.size();
        if (m_held >= kBatchBytes) {
            Flush();
        }
    }

    const std::string m_address;
    Connection m_publisher;
    Connection m_subscriber;
    std::string m_command;
    std::size_t m_held = 0;
    int m_subscribed = 0;
};

class RedisServer : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        m_path = folder + "/redis.socket";
        const std::string configuration = folder + "/redis.conf";
        WriteTextFile(configuration, "port 0\nunixsocket " + m_path +
                                         "\nsave \"\"\nappendonly no\ndaemonize no\nmaxclients 10000\n"
                                         "client-output-buffer-limit pubsub 0 0 0\ndir " +
                                         folder + '\n');
        m_process = StartProcess({{"redis-server", configuration}, folder + "/broker.log"});
        AwaitUnix(m_path, m_process);
    }
    std::string Address() const override { return m_path; }

private:
    std::string m_path;
};

const Registration kRegistration({BackendOf<RedisServer, RedisClient>(
    "redis", "redis-server",
    "hiredis, two connections a client, writes of 32 KiB; request and reply emulated over channels")});

} // namespace

} // namespace Vantor::Sentrix::Compare
