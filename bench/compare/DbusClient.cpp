#include "bench/compare/Dbus.h"

#include <cstdint>
#include <stdexcept>
#include <system_error>

namespace Vantor::Sentrix::Compare {

int CheckDbus(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), what);
    }
    return result;
}

DbusConnection NewDbusConnection() {
    sd_bus* bus = nullptr;
    CheckDbus(sd_bus_new(&bus), "sd_bus_new");
    return DbusConnection(bus);
}

namespace {

constexpr const char* kPath = "/bench";
constexpr const char* kInterface = "bench.Bench";
constexpr const char* kPost = "Post";
constexpr const char* kRequest = "Request";
constexpr std::uint64_t kPatienceUs = 20'000'000;

std::string NameOf(std::uint32_t id) {
    return "bench.m" + std::to_string(id);
}

std::string SignalOf(std::uint32_t topic) {
    return "Topic" + std::to_string(topic);
}

Bytes BodyOf(sd_bus_message* message) {
    if (const sd_bus_error* error = sd_bus_message_get_error(message); error != nullptr) {
        throw std::runtime_error(std::string("D-Bus error ") + error->name);
    }
    const void* bytes = nullptr;
    std::size_t size = 0;
    CheckDbus(sd_bus_message_read_array(message, 'y', &bytes, &size), "read_array");
    return {static_cast<const char*>(bytes), size};
}

void AppendBody(const DbusMessage& message, Bytes data) {
    CheckDbus(sd_bus_message_append_array(message.get(), 'y', data.data(), data.size()), "append_array");
}

// Exceptions of handlers must not cross sd-bus, which is C: they leave from Poll() instead.
class DbusClient : public Client {
public:
    explicit DbusClient(std::string address) : m_address(std::move(address)) {}

    void Connect(std::uint32_t id) override {
        m_bus = NewDbusConnection();
        CheckDbus(sd_bus_set_address(m_bus.get(), m_address.c_str()), "set_address");
        CheckDbus(sd_bus_set_bus_client(m_bus.get(), 1), "set_bus_client");
        CheckDbus(sd_bus_start(m_bus.get()), "start");
        CheckDbus(sd_bus_add_object(m_bus.get(), nullptr, kPath, &OnCall, this), "add_object");
        CheckDbus(sd_bus_request_name(m_bus.get(), NameOf(id).c_str(), 0), "request_name");
    }

    void Send(std::uint32_t to, Bytes data) override {
        const DbusMessage call = NewCall(to, kPost, data);
        CheckDbus(sd_bus_message_set_expect_reply(call.get(), 0), "set_expect_reply");
        SendMessage(call);
    }

    void Request(std::uint32_t to, Bytes data, std::string& reply) override {
        const DbusMessage call = NewCall(to, kRequest, data);
        sd_bus_message* answer = nullptr;
        CheckDbus(sd_bus_call(m_bus.get(), call.get(), kPatienceUs, nullptr, &answer), "call");
        const DbusMessage owner(answer);
        reply.assign(BodyOf(answer));
    }

    void RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) override {
        const DbusMessage call = NewCall(to, kRequest, data);
        auto pending = std::make_unique<Pending>(Pending{this, tag});
        CheckDbus(sd_bus_call_async(m_bus.get(), nullptr, call.get(), &OnReply, pending.get(), kPatienceUs),
                  "call_async");
        static_cast<void>(pending.release()); // OnReply owns it
    }

    void Subscribe(std::uint32_t topic) override {
        const std::string rule =
            "type='signal',interface='" + std::string(kInterface) + "',member='" + SignalOf(topic) + "'";
        CheckDbus(sd_bus_add_match(m_bus.get(), nullptr, rule.c_str(), &OnSignal, this), "add_match");
    }

    void Publish(std::uint32_t topic, Bytes data) override {
        sd_bus_message* made = nullptr;
        CheckDbus(sd_bus_message_new_signal(m_bus.get(), &made, kPath, kInterface, SignalOf(topic).c_str()),
                  "new_signal");
        const DbusMessage signal(made);
        AppendBody(signal, data);
        SendMessage(signal);
    }

    void Poll(bool wait) override {
        m_handled = false;
        for (;;) {
            const int more = CheckDbus(sd_bus_process(m_bus.get(), nullptr), "process");
            if (m_failure) {
                std::rethrow_exception(m_failure);
            }
            if (more > 0) {
                continue;
            }
            if (m_handled || !wait) {
                return;
            }
            CheckDbus(sd_bus_wait(m_bus.get(), UINT64_MAX), "wait");
        }
    }

private:
    struct Pending {
        DbusClient* client;
        std::uint32_t tag;
    };

    DbusMessage NewCall(std::uint32_t to, const char* member, Bytes data) const {
        sd_bus_message* made = nullptr;
        CheckDbus(sd_bus_message_new_method_call(m_bus.get(), &made, NameOf(to).c_str(), kPath, kInterface, member),
                  "new_method_call");
        DbusMessage call(made);
        AppendBody(call, data);
        return call;
    }

    void SendMessage(const DbusMessage& message) const {
        CheckDbus(sd_bus_send(m_bus.get(), message.get(), nullptr), "send");
    }

    template <class Handling> int Handle(const Handling& handling) {
        m_handled = true;
        try {
            handling();
        } catch (...) {
            m_failure = std::current_exception();
        }
        return 1;
    }

    void Answer(sd_bus_message* call) {
        m_handlers.request(BodyOf(call), m_reply);
        sd_bus_message* made = nullptr;
        CheckDbus(sd_bus_message_new_method_return(call, &made), "new_method_return");
        const DbusMessage answer(made);
        AppendBody(answer, m_reply);
        SendMessage(answer);
    }

    void Take(sd_bus_message* message) const {
        if (m_handlers.message) {
            m_handlers.message(BodyOf(message));
        }
    }

    static int OnCall(sd_bus_message* message, void* user, sd_bus_error* /*error*/) {
        auto* self = static_cast<DbusClient*>(user);
        if (sd_bus_message_is_method_call(message, kInterface, kRequest) > 0) {
            return self->Handle([&] { self->Answer(message); });
        }
        if (sd_bus_message_is_method_call(message, kInterface, kPost) > 0) {
            return self->Handle([&] { self->Take(message); });
        }
        return 0;
    }

    static int OnSignal(sd_bus_message* message, void* user, sd_bus_error* /*error*/) {
        auto* self = static_cast<DbusClient*>(user);
        self->Handle([&] { self->Take(message); });
        return 0; // others may want it too
    }

    static int OnReply(sd_bus_message* message, void* user, sd_bus_error* /*error*/) {
        const std::unique_ptr<Pending> pending(static_cast<Pending*>(user));
        return pending->client->Handle([&] { pending->client->m_handlers.reply(pending->tag, BodyOf(message)); });
    }

    const std::string m_address;
    DbusConnection m_bus;
    bool m_handled = false;
    std::exception_ptr m_failure;
    std::string m_reply;
};

} // namespace

std::unique_ptr<Client> MakeDbusClient(const std::string& address) {
    return std::make_unique<DbusClient>(address);
}

} // namespace Vantor::Sentrix::Compare
