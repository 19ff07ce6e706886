#include "bench/compare/Roles.h"

#include "tools/veyra/bench/Latencies.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace Vantor::Sentrix::Compare {

void SayReady() {
    std::cout << Tool::kReadyLine << std::endl;
}

std::optional<std::string> AwaitLine() {
    std::string line;
    return std::getline(std::cin, line) ? std::optional(line) : std::nullopt;
}

void SayResult(const Settings& results) {
    std::cout << Tool::ResultLine(results) << std::endl;
    while (AwaitLine()) {
    }
}

namespace {

constexpr unsigned int kLifeSeconds = 60; // nobody is left for ever when the driver was killed

void RequireSize(Bytes reply, std::size_t size) {
    if (reply.size() != size) {
        throw std::runtime_error("a reply has " + std::to_string(reply.size()) + " bytes");
    }
}

void RunEcho(Client& client) {
    Handlers handlers;
    handlers.request = [](Bytes data, std::string& reply) { reply.assign(data); };
    client.SetHandlers(std::move(handlers));
    client.Connect(kServerClient);
    SayReady();
    client.HandleUntil(Now() + kLifeSeconds);
}

void RunCaller(Client& client, const Settings& settings) {
    client.Connect(kFirstClient);
    const std::string request(settings.Get<std::size_t>("size"), 'x');
    std::string reply;
    Tool::Latencies latencies;
    SayReady();
    if (!AwaitLine()) {
        return;
    }
    std::size_t warm = 0;
    for (const double end = Now() + kWarmUpSeconds; Now() < end; ++warm) {
        client.Request(kServerClient, request, reply);
    }
    using Clock = Tool::Latencies::Clock;
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end =
        begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(settings.Number("seconds")));
    Clock::time_point last = begin;
    while (last < end) {
        client.Request(kServerClient, request, reply);
        const Clock::time_point now = Clock::now();
        latencies.Add(now - last);
        last = now;
    }
    RequireSize(reply, request.size());
    const auto count = static_cast<double>(latencies.Count());
    SayResult(Settings()
                  .Set("p50", latencies.Microseconds(0.50))
                  .Set("p99", latencies.Microseconds(0.99))
                  .Set("min", latencies.Microseconds(0))
                  .Set("rate", count / std::chrono::duration<double>(last - begin).count())
                  .Set("total", count + static_cast<double>(warm)));
}

// Each reply sends the next request, from the thread that got it.
class Pipeline {
public:
    Pipeline(Client& client, std::size_t size) : m_client(client), m_request(size, 'x') {
        Handlers handlers;
        handlers.reply = [this](std::uint32_t /*tag*/, Bytes reply) { Take(reply); };
        client.SetHandlers(std::move(handlers));
    }

    ~Pipeline() { m_client.Close(); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void Ask() {
        const std::uint32_t number = m_sent.fetch_add(1, std::memory_order_relaxed);
        m_client.RequestAsync(kServerClient, m_request, number & kMostTag);
    }
    std::uint32_t Done() const { return m_done; }

    void Finish() {
        m_stop = true;
        while (m_done < m_sent) {
            m_client.Poll(true);
        }
    }

private:
    static constexpr std::uint32_t kMostTag = 0xFFFF;

    void Take(Bytes reply) {
        RequireSize(reply, m_request.size());
        if (!m_stop) {
            Ask(); // before it counts as done, so that Finish() sees what it sent
        }
        ++m_done;
    }

    Client& m_client;
    const std::string m_request;
    std::atomic<std::uint32_t> m_sent{0};
    std::atomic<std::uint32_t> m_done{0};
    std::atomic<bool> m_stop{false};
};

void RunPipeline(Client& client, const Settings& settings) {
    Pipeline pipeline(client, settings.Get<std::size_t>("size"));
    client.Connect(kFirstClient);
    SayReady();
    if (!AwaitLine()) {
        return;
    }
    for (auto left = settings.Get<unsigned int>("outstanding"); left != 0; --left) {
        pipeline.Ask();
    }
    client.Flush();
    client.HandleUntil(Now() + kWarmUpSeconds);
    const std::uint32_t before = pipeline.Done();
    const double begin = Now();
    client.HandleUntil(begin + settings.Number("seconds"));
    const std::uint32_t after = pipeline.Done();
    const double end = Now();
    pipeline.Finish();
    SayResult(Settings().Set("rate", (after - before) / (end - begin)).Set("total", pipeline.Done()));
}

void RunIdle(const Backend& backend, const std::string& address, const Settings& settings) {
    std::vector<std::unique_ptr<Client>> clients(settings.Get<std::size_t>("count"));
    auto id = settings.Get<std::uint32_t>("first");
    for (auto& client : clients) {
        client = backend.makeClient(address);
        client->Connect(id++);
        client->Subscribe(kTopic);
    }
    SayReady();
    AwaitLine();
}

bool RunWithClient(const std::string& role, const Backend& backend, Client& client, const Settings& settings) {
    if (role == "echo") {
        RunEcho(client);
    } else if (role == "caller") {
        RunCaller(client, settings);
    } else if (role == "pipeline") {
        RunPipeline(client, settings);
    } else if (role == "source" || role == "publisher") {
        RunSource(client, settings, role == "publisher");
    } else if (role == "sink" || role == "subscriber") {
        RunSink(client, backend.delivery, settings, role == "subscriber");
    } else {
        return false;
    }
    return true;
}

} // namespace

int RunRole(const std::vector<std::string>& arguments) {
    alarm(kLifeSeconds);
    std::signal(SIGPIPE, SIG_IGN);
    const std::string& role = arguments.at(0);
    const Backend& backend = FindBackend(arguments.at(1));
    const std::string& address = arguments.at(2);
    const Settings settings({arguments.begin() + 3, arguments.end()});
    if (role == "idle") {
        RunIdle(backend, address, settings);
        return 0;
    }
    const std::unique_ptr<Client> client = backend.makeClient(address);
    if (!RunWithClient(role, backend, *client, settings)) {
        throw std::invalid_argument("there is no role " + role);
    }
    return 0;
}

} // namespace Vantor::Sentrix::Compare
