// Both ends of a stream.
#include "bench/compare/Roles.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Compare {

namespace {

// At the front of every message, big-endian.
enum class Phase : std::uint32_t { Warm, Measured, Last };

struct Mark {
    Phase phase;
    std::uint32_t number; // among the measured, from 1
};

void WriteMark(std::string& message, Mark mark) {
    Put32(message.data(), static_cast<std::uint32_t>(mark.phase));
    Put32(message.data() + 4, mark.number);
}

Mark ReadMark(Bytes message) {
    return {static_cast<Phase>(Get32(message.data())), Get32(message.data() + 4)};
}

// ---- Sending -------------------------------------------------------------------------------------------------------

class Source {
public:
    Source(Client& client, const Settings& settings, std::uint32_t receivers)
        : m_client(client), m_window(settings.Get<std::uint32_t>("window")),
          m_message(settings.Get<std::size_t>("size"), 'x'), m_acknowledged(receivers) {
        Handlers handlers;
        handlers.message = [this](Bytes data) { Acknowledge(data); };
        client.SetHandlers(std::move(handlers));
    }

    ~Source() { m_client.Close(); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    template <class Emit> void Run(double seconds, const Emit& emit) {
        const double measureFrom = Now() + kWarmUpSeconds;
        const double end = measureFrom + seconds;
        // A look at the clock costs as much as a small message.
        const std::uint32_t clockEvery = m_message.size() >= kLargeBytes ? 1 : 32;
        Mark mark{Phase::Warm, 0};
        while (mark.phase != Phase::Last) {
            if (m_sent % clockEvery == 0) {
                mark.phase = PhaseAt(Now(), measureFrom, mark.number != 0 ? end : measureFrom + kForEver);
            }
            while (m_sent - Slowest() >= m_window) {
                m_client.Poll(true);
            }
            mark.number += mark.phase != Phase::Warm ? 1 : 0;
            WriteMark(m_message, mark);
            emit(m_message);
            ++m_sent;
        }
        while (Slowest() != m_sent) {
            m_client.Poll(true);
        }
    }

    std::uint32_t Sent() const { return m_sent; }

private:
    static constexpr std::size_t kLargeBytes = 64 * 1024;
    static constexpr double kForEver = 1e9; // something is measured, even if the warm-up took all the time

    static Phase PhaseAt(double now, double measureFrom, double end) {
        return now >= end ? Phase::Last : now >= measureFrom ? Phase::Measured : Phase::Warm;
    }

    // {receiver, how many it has}; on any thread, and perhaps after a later one.
    void Acknowledge(Bytes data) {
        std::atomic<std::uint32_t>& has = m_acknowledged.at(Get32(data.data()));
        const std::uint32_t count = Get32(data.data() + 4);
        std::uint32_t before = has;
        while (before < count && !has.compare_exchange_weak(before, count)) {
        }
    }

    std::uint32_t Slowest() const {
        return std::min_element(m_acknowledged.begin(), m_acknowledged.end(),
                                [](const auto& a, const auto& b) { return a.load() < b.load(); })
            ->load();
    }

    Client& m_client;
    const std::uint32_t m_window;
    std::string m_message;
    std::uint32_t m_sent = 0;
    std::vector<std::atomic<std::uint32_t>> m_acknowledged; // by receiver
};

// ---- Receiving -----------------------------------------------------------------------------------------------------

// Counts what one thread brings, in order.
class InOrder {
public:
    std::uint32_t Arrive() { return ++m_arrived; }
    std::uint32_t Arrived() const { return m_arrived; }
    std::uint32_t Measured() const { return m_measured; }
    // The thread that asks is the one that brings them.
    static void Await(const std::atomic<bool>& done, Client& client) {
        while (!done) {
            client.Poll(true);
        }
    }

    // The how many-eth of the measured it is.
    std::uint32_t Measure(std::uint32_t number) {
        if (number != ++m_measured) {
            throw std::runtime_error("a message was lost or overtaken");
        }
        return m_measured;
    }
    bool IsComplete(Mark mark) const { return mark.phase == Phase::Last; }

private:
    std::uint32_t m_arrived = 0;
    std::uint32_t m_measured = 0;
};

// Counts what many threads bring, in any order: each number once.
class AnyOrder {
public:
    std::uint32_t Arrive() { return ++m_arrived; }
    std::uint32_t Arrived() const { return m_arrived; }
    std::uint32_t Measured() const { return m_measured; }
    // The one that asks need not be woken for each.
    static void Await(const std::atomic<bool>& done, Client& /*client*/) { done.wait(false); }

    std::uint32_t Measure(std::uint32_t number) {
        if (number >= kMost) {
            throw std::runtime_error("more messages than are kept count of");
        }
        const std::uint64_t bit = std::uint64_t{1} << number % 64;
        if ((m_seen[number / 64].fetch_or(bit, std::memory_order_relaxed) & bit) != 0) {
            throw std::runtime_error("a message came twice");
        }
        return ++m_measured;
    }

    // The last of the source need not be the last to come.
    bool IsComplete(Mark mark) {
        if (mark.phase == Phase::Last) {
            m_expected = mark.number;
        }
        return m_measured == m_expected;
    }

private:
    static constexpr std::uint32_t kMost = 1 << 26;

    std::atomic<std::uint32_t> m_arrived{0};
    std::atomic<std::uint32_t> m_measured{0};
    std::atomic<std::uint32_t> m_expected{0xFFFFFFFF};
    std::unique_ptr<std::atomic<std::uint64_t>[]> m_seen { new std::atomic<std::uint64_t>[ kMost / 64 ]() };
};

template <class Count> class Sink {
public:
    Sink(Client& client, const Settings& settings, std::uint32_t index)
        : m_client(client), m_index(index), m_size(settings.Get<std::size_t>("size")),
          m_quarter(std::max(1U, settings.Get<std::uint32_t>("window") / 4)) {
        Handlers handlers;
        handlers.message = [this](Bytes data) { Take(data); };
        client.SetHandlers(std::move(handlers));
    }

    ~Sink() { m_client.Close(); }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    void AwaitAll() {
        Count::Await(m_done, m_client);
        while (m_begin == 0) {
            std::this_thread::yield(); // the thread that took the first was slower than the one that took the last
        }
    }

    Settings Result() const {
        return Settings()
            .Set("count", m_count.Measured())
            .Set("begin", m_begin)
            .Set("end", m_end)
            .Set("total", m_count.Arrived());
    }

private:
    void Take(Bytes data) {
        if (data.size() != m_size) {
            throw std::runtime_error("a message has " + std::to_string(data.size()) + " bytes");
        }
        const Mark mark = ReadMark(data);
        const std::uint32_t arrived = m_count.Arrive();
        if (mark.phase != Phase::Warm) {
            if (m_count.Measure(mark.number) == 1) {
                m_begin = Now();
            }
            if (m_count.IsComplete(mark)) {
                m_end = Now();
                m_done = true;
                m_done.notify_all();
            }
        }
        if (m_done || arrived % m_quarter == 0) {
            Acknowledge();
        }
    }

    void Acknowledge() {
        char data[8];
        Put32(data, m_index);
        Put32(data + 4, m_count.Arrived());
        m_client.Send(kFirstClient, {data, sizeof data});
    }

    Client& m_client;
    const std::uint32_t m_index;
    const std::size_t m_size;
    const std::uint32_t m_quarter;
    Count m_count;
    std::atomic<double> m_begin{0}; // of the measured messages
    std::atomic<double> m_end{0};
    std::atomic<bool> m_done{false};
};

template <class Count> void Receive(Client& client, const Settings& settings, bool subscribe) {
    const auto index = subscribe ? settings.Get<std::uint32_t>("index") : 0;
    Sink<Count> sink(client, settings, index);
    client.Connect(subscribe ? kFirstSubscriber + index : kServerClient);
    if (subscribe) {
        client.Subscribe(kTopic);
    }
    SayReady();
    if (!AwaitLine()) {
        return;
    }
    sink.AwaitAll();
    client.Flush();
    SayResult(sink.Result());
    constexpr double kLongerThanAnybodyWaits = 60;
    client.HandleUntil(Now() + kLongerThanAnybodyWaits); // the driver ends it
}

} // namespace

void RunSource(Client& client, const Settings& settings, bool publish) {
    const auto receivers = publish ? settings.Get<std::uint32_t>("receivers") : 1;
    Source source(client, settings, receivers);
    client.Connect(kFirstClient);
    SayReady();
    if (!AwaitLine()) {
        return;
    }
    const double seconds = settings.Number("seconds");
    if (publish) {
        source.Run(seconds, [&](Bytes message) { client.Publish(kTopic, message); });
    } else {
        source.Run(seconds, [&](Bytes message) { client.Send(kServerClient, message); });
    }
    SayResult(Settings().Set("sent", source.Sent()));
}

void RunSink(Client& client, Delivery delivery, const Settings& settings, bool subscribe) {
    if (delivery == Delivery::AnyThread) {
        Receive<AnyOrder>(client, settings, subscribe);
    } else {
        Receive<InOrder>(client, settings, subscribe);
    }
}

} // namespace Vantor::Sentrix::Compare
