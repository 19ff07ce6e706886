// veyra-compare-veyrasvc: the client of this project's bus, as a program that uses it would be: over the installed
// headers, checksums and logging as they come. An id is a module; a request is SendIPCMessage, everything else a post
// or a publication. Which bus it is says the environment. A program of its own, so that nobody else's clients load our
// library and what that brings along.
//
// Handlers are called straight from the library's callbacks, which run on its pool, several at once and in any order.
#include "bench/compare/Bus.h"
#include "bench/compare/Roles.h"
#include "tools/support/ModuleStatus.h"
#include "tools/support/Program.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

// The messages of the benchmark.
constexpr int kPost = 1;
constexpr int kRequest = 2;
constexpr int kAnswer = 3;      // to a sender that waits
constexpr int kLaterAnswer = 4; // to one that does not
constexpr int kFirstTopic = 16;

// A subscription names the module that publishes; in the comparison that is always this client.
constexpr std::uint32_t kPublisher = 1;

constexpr unsigned int kPatienceMs = 20000;

std::int32_t ModuleOf(std::uint32_t id) {
    constexpr std::uint32_t kFirstModule = 0x900000;
    return static_cast<std::int32_t>(kFirstModule + id);
}

Bytes BodyOf(const TagIPCMessageItem& item) {
    return item.dataLen > 0 ? Bytes(item.data, static_cast<std::size_t>(item.dataLen)) : Bytes();
}

TagIPCMessageItem MessageOf(int msgId, Bytes data) {
    TagIPCMessageItem item;
    item.msgId = msgId;
    item.dataLen = static_cast<std::int32_t>(data.size());
    item.data = const_cast<char*>(data.data()); // only read
    return item;
}

// The library keeps a process alive whose callback throws; a measurement that has failed had better end.
template <class Handling> void OrEnd(const Handling& handling) {
    try {
        handling();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "veyra-compare: in a callback: %s\n", error.what());
        std::_Exit(1);
    }
}

class VeyrasvcClient : public Client {
public:
    void Connect(std::uint32_t id) override {
        m_client = std::make_unique<IPCMessageClient>(ModuleOf(id), false, false);
        if (Support::StatusQuery(*m_client).Ask(static_cast<std::uint32_t>(ModuleOf(id))) !=
            Support::ModuleStatus::Online) {
            throw std::runtime_error("the bus does not know this module");
        }
        m_client->UnRegisterMessageCallbackAll(); // those of the question
        RegisterCallbacks();
    }

    void Send(std::uint32_t to, Bytes data) override {
        TagIPCMessageItem item = MessageOf(kPost, data);
        item.toModuleId = ModuleOf(to);
        Post(item);
    }

    void Request(std::uint32_t to, Bytes data, std::string& reply) override {
        TagIPCMessageItem item = MessageOf(kRequest, data);
        item.toModuleId = ModuleOf(to);
        item.replyMsgId = kAnswer;
        item.uniqMsgId = ++m_requests;
        const auto take = [&reply](TagIPCMessageItem& answer) { reply.assign(BodyOf(answer)); };
        if (!m_client->SendIPCMessage(item, kAnswer, kPatienceMs, take)) {
            throw std::runtime_error("a request was not answered");
        }
    }

    void RequestAsync(std::uint32_t to, Bytes data, std::uint32_t tag) override {
        TagIPCMessageItem item = MessageOf(kRequest, data);
        item.toModuleId = ModuleOf(to);
        item.replyMsgId = kLaterAnswer;
        item.uniqMsgId = static_cast<std::int32_t>(tag);
        Post(item);
    }

    // The library drops what a process did not subscribe to where it arrives, so this is in force at once.
    void Subscribe(std::uint32_t topic) override {
        m_client->SubscribeIPCMessage(static_cast<unsigned int>(ModuleOf(kPublisher)), kFirstTopic + topic);
    }

    void Publish(std::uint32_t topic, Bytes data) override {
        TagIPCMessageItem item = MessageOf(kFirstTopic + static_cast<int>(topic), data);
        if (!m_client->PublishIPCMessage(item)) {
            throw std::runtime_error("a publication was refused");
        }
    }

    void Poll(bool wait) override {
        if (wait) {
            m_waits = true;
            m_handled.wait(m_seen);
            m_waits = false;
        }
        m_seen = m_handled;
    }

    // Nothing to do for this thread: the pool handles what arrives.
    void HandleUntil(double end) override { std::this_thread::sleep_for(std::chrono::duration<double>(end - Now())); }

    void Close() override { m_client.reset(); }

private:
    // Only what is wanted: a program that only asks has no callbacks.
    void RegisterCallbacks() {
        if (m_handlers.message) {
            const auto take = [this](TagIPCMessageItem& item) {
                OrEnd([&] { m_handlers.message(BodyOf(item)); });
                Handled();
            };
            m_client->RegisterMessageCallback(kPost, take);
            m_client->RegisterPublishMessageCallback(take);
        }
        if (m_handlers.request) {
            m_client->RegisterMessageCallback(kRequest,
                                              [this](TagIPCMessageItem& item) { OrEnd([&] { Answer(item); }); });
        }
        if (m_handlers.reply) {
            m_client->RegisterMessageCallback(kLaterAnswer, [this](TagIPCMessageItem& item) {
                OrEnd([&] { m_handlers.reply(static_cast<std::uint32_t>(item.uniqMsgId), BodyOf(item)); });
                Handled();
            });
        }
    }

    void Answer(const TagIPCMessageItem& request) {
        thread_local std::string reply;
        m_handlers.request(BodyOf(request), reply);
        TagIPCMessageItem answer = MessageOf(request.replyMsgId, reply);
        answer.toModuleId = request.fromModuleId;
        answer.uniqMsgId = request.uniqMsgId;
        Post(answer);
    }

    void Post(const TagIPCMessageItem& item) const {
        if (!m_client->PostIPCMessage(item)) {
            throw std::runtime_error("a message was refused");
        }
    }

    void Handled() {
        ++m_handled;
        if (m_waits) {
            m_handled.notify_all();
        }
    }

    std::int32_t m_requests = 0;
    std::uint32_t m_seen = 0;                   // of m_handled, at the end of the last Poll()
    std::atomic<std::uint32_t> m_handled{0};    // messages and replies, by callbacks
    std::atomic<bool> m_waits{false};           // somebody is to be woken for the next
    std::unique_ptr<IPCMessageClient> m_client; // last: its callbacks use the others
};

Backend Make() {
    Backend backend;
    backend.name = "veyrasvc";
    backend.kind = Kind::Own;
    backend.makeClient = [](const std::string& /*address*/) { return std::make_unique<VeyrasvcClient>(); };
    backend.delivery = Delivery::AnyThread;
    return backend;
}

const Registration kRegistration({Make()});

} // namespace

} // namespace Vantor::Sentrix::Compare

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram("veyra-compare-veyrasvc", [&] { return Compare::RunRole({argv + 2, argv + argc}); });
}
