// What every compared bus implements: a connection, the broker in the middle, and a line that says what they are.
//
// To compare one more bus, derive from Client and Broker, make a Registration at namespace scope in a file of its own,
// and name that file in CMakeLists.txt. Roles, flow control, timing and the watch on the machine are done elsewhere.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vantor::Sentrix::Compare {

using Bytes = std::string_view;

// Seconds of the steady clock, which all processes of the machine share.
inline double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// What a role wants to know. One that is empty is not wanted, so a client need not ask its bus for it.
struct Handlers {
    std::function<void(Bytes)> message;                     // posts and publications
    std::function<void(Bytes, std::string& reply)> request; // fills `reply`, which may hold what was there before
    std::function<void(std::uint32_t tag, Bytes)> reply;    // to RequestAsync()
};

// One connection to a bus.
// Threads: one at a time. Handlers run inside Poll(), HandleUntil() and, for what arrives meanwhile, Request(). Those
// of a backend with Delivery::AnyThread run on threads of the bus's library, several at once, and may send from there.
// Owns: nothing of what it is given; the bytes given to a handler are valid until it returns.
// Fails: by exception, which ends the process and with it the measurement.
class Client {
public:
    Client() = default;
    virtual ~Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Requires: called before Connect(), or never.
    void SetHandlers(Handlers handlers) { m_handlers = std::move(handlers); }

    // When it returns, other clients reach this one by the id.
    virtual void Connect(std::uint32_t id) = 0;
    // May hold the message back until Flush() or Poll().
    virtual void Send(std::uint32_t to, Bytes data) = 0;
    // Waits for the reply.
    virtual void Request(std::uint32_t to, Bytes data, std::string& reply) = 0;
    // The reply comes to the handler.
    virtual void RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) = 0;
    // When it returns, the subscription is in force.
    virtual void Subscribe(std::uint32_t topic) = 0;
    virtual void Publish(std::uint32_t topic, Bytes data) = 0;
    // Pushes out what the others held back.
    virtual void Flush() {}
    // Flushes and lets handlers have what has arrived; with `wait` it returns after at least one had something since
    // the last call.
    virtual void Poll(bool wait) = 0;
    // Lets handlers have what arrives until that time, and then until the next thing arrives.
    virtual void HandleUntil(double end) {
        while (Now() < end) {
            Poll(true);
        }
    }
    // When it returns, no handler runs, and none will.
    virtual void Close() {}

protected:
    Handlers m_handlers;
};

// The process in the middle, which is never that of a client.
// Lifetime: Stop() comes before the end, and once.
class Broker {
public:
    Broker() = default;
    virtual ~Broker() = default;
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Returns when clients can connect. What it writes goes into `folder`, its output to broker.log there.
    virtual void Start(const std::string& folder) = 0;
    // Ends the processes in good order, or after a second in any.
    virtual void Stop();
    virtual std::string Address() const = 0;
    // Whose processor time, switches and memory are the broker's.
    virtual std::vector<pid_t> Processes() const = 0;
};

enum class Kind {
    Own,   // this project's bus
    Peer,  // another bus
    Limit, // no bus: what the machine allows
};

enum class Delivery { InOrder, AnyThread };

struct Backend {
    std::string name;
    std::string note; // what its client does, in one line
    Kind kind = Kind::Peer;
    std::string program; // of the broker; a name that the PATH does not know leaves the bus out
    std::function<std::unique_ptr<Broker>()> makeBroker;
    std::function<std::unique_ptr<Client>(const std::string& address)> makeClient; // unless another program makes it:
    std::string roleProgram; // knows the backend by the same name, and plays the roles
    Delivery delivery = Delivery::InOrder;
    bool hasBroker = true;             // else it has no fan-out either, and no cost of a broker
    bool connectionPerProcess = false; // the clients of a process share one
    bool onlyLatency = false;          // a variant that is there for the round trips alone
    bool inQuickRun = true;
};

// A broker that is one process.
class ProcessBroker : public Broker {
public:
    std::vector<pid_t> Processes() const override { return {m_process}; }

protected:
    pid_t m_process = 0;
};

template <class Server, class Connection> Backend BackendOf(std::string name, std::string program, std::string note) {
    Backend backend;
    backend.name = std::move(name);
    backend.program = std::move(program);
    backend.note = std::move(note);
    backend.makeBroker = [] { return std::make_unique<Server>(); };
    backend.makeClient = [](const std::string& address) { return std::make_unique<Connection>(address); };
    return backend;
}

struct Registration {
    explicit Registration(std::vector<Backend> backends);
};

// All that were compiled in: ours, the peers by name, the limits.
const std::vector<Backend>& Backends();
// Fails: std::invalid_argument.
const Backend& FindBackend(std::string_view name);

inline void Put32(char* to, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        to[i] = static_cast<char>(value >> (24 - 8 * i));
    }
}

inline std::uint32_t Get32(const char* from) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(from[i]);
    }
    return value;
}

} // namespace Vantor::Sentrix::Compare
