// MQTT: mosquitto on a Unix socket with libmosquitto, quality of service 0. An id is the topic m/ID, a topic t/TOPIC.
#include "bench/compare/EmulatedRpc.h"
#include "bench/compare/Processes.h"

#include <mosquitto.h>

#include <deque>
#include <stdexcept>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

void Check(int result, const char* what) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
    }
}

struct MosquittoRelease {
    void operator()(mosquitto* client) const {
        mosquitto_disconnect(client);
        mosquitto_destroy(client);
    }
};

class MosquittoClient : public EmulatedRpc {
public:
    explicit MosquittoClient(std::string address) : m_address(std::move(address)) { mosquitto_lib_init(); }

    void Connect(std::uint32_t id) override {
        m_id = id;
        m_client.reset(mosquitto_new(("c" + std::to_string(id)).c_str(), true, this));
        if (m_client == nullptr) {
            FailWithErrno("mosquitto_new");
        }
        mosquitto_message_callback_set(m_client.get(), &OnMessage);
        mosquitto_connect_callback_set(m_client.get(), [](mosquitto*, void* user, int result) {
            static_cast<MosquittoClient*>(user)->m_confirmed = result == 0;
        });
        mosquitto_subscribe_callback_set(m_client.get(), [](mosquitto*, void* user, int, int, const int*) {
            static_cast<MosquittoClient*>(user)->m_confirmed = true;
        });
        constexpr int kKeepAliveSeconds = 600;
        m_confirmed = false;
        Check(mosquitto_connect(m_client.get(), m_address.c_str(), 0, kKeepAliveSeconds), "mosquitto_connect");
        AwaitConfirmation();
        SubscribeTo("m/" + std::to_string(id));
    }
    void Subscribe(std::uint32_t topic) override { SubscribeTo("t/" + std::to_string(topic)); }
    void Publish(std::uint32_t topic, Bytes data) override { Emit("t/" + std::to_string(topic), data); }

protected:
    void SendParts(std::uint32_t to, Bytes prefix, Bytes data) override {
        m_message.assign(prefix).append(data);
        Emit("m/" + std::to_string(to), m_message);
    }

    void Receive(bool wait) override {
        for (bool any = false; !any;) {
            Loop(wait ? kLoopMs : 0);
            any = !wait || !m_arrived.empty();
            while (!m_arrived.empty()) {
                const auto [own, data] = std::move(m_arrived.front());
                m_arrived.pop_front();
                own ? Arrived(data) : Published(data);
            }
        }
    }

private:
    static constexpr int kLoopMs = 1000;

    // Handled when the library's loop has returned: a publication made inside this callback would only be queued.
    static void OnMessage(mosquitto* /*client*/, void* user, const mosquitto_message* message) {
        static_cast<MosquittoClient*>(user)->m_arrived.emplace_back(
            message->topic[0] == 'm',
            std::string(static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)));
    }

    void Loop(int timeoutMs) const { Check(mosquitto_loop(m_client.get(), timeoutMs, 1), "mosquitto_loop"); }

    void AwaitConfirmation() const {
        while (!m_confirmed) {
            Loop(kLoopMs);
        }
    }

    void SubscribeTo(const std::string& topic) {
        m_confirmed = false;
        Check(mosquitto_subscribe(m_client.get(), nullptr, topic.c_str(), 0), "mosquitto_subscribe");
        AwaitConfirmation();
    }

    void Emit(const std::string& topic, Bytes data) const {
        Check(mosquitto_publish(m_client.get(), nullptr, topic.c_str(), static_cast<int>(data.size()), data.data(), 0,
                                false),
              "mosquitto_publish");
    }

    const std::string m_address;
    std::string m_message;
    bool m_confirmed = false;
    std::deque<std::pair<bool, std::string>> m_arrived; // to our own topic or to another, payload
    std::unique_ptr<mosquitto, MosquittoRelease> m_client;
};

class MosquittoServer : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        m_path = folder + "/mqtt.socket";
        const std::string configuration = folder + "/mosquitto.conf";
        WriteTextFile(configuration, "listener 0 " + m_path +
                                         "\nallow_anonymous true\npersistence false\nmax_queued_messages 0\n"
                                         "max_inflight_messages 0\nlog_dest stderr\nlog_type error\nuser root\n");
        m_process = StartProcess({{"mosquitto", "-c", configuration}, folder + "/broker.log"});
        AwaitUnix(m_path, m_process);
    }
    std::string Address() const override { return m_path; }

private:
    std::string m_path;
};

const Registration kRegistration({BackendOf<MosquittoServer, MosquittoClient>(
    "mosquitto", "mosquitto",
    "libmosquitto, one write and about three reads a message; request and reply emulated over topics")});

} // namespace

} // namespace Vantor::Sentrix::Compare
