// The two ends: echo and caller, sink and source.
#include "bench/floor/Roles.h"
#include "bench/floor/Wire.h"
#include "tools/veyra/bench/Latencies.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace Vantor::Sentrix::Floor {

namespace {

using Tool::kWarmUp;
using Tool::Latencies;
using Clock = Latencies::Clock;

constexpr std::uint32_t kCallerId = 0x7FFFFFFF;

Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

void Expect(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

} // namespace

void RunEcho(const Settings& settings) {
    const Socket socket = Join(settings.Get<std::uint32_t>("socket"), settings.Get<std::uint32_t>("id"));
    FrameReader reader(socket);
    Say(Tool::kReadyLine);
    for (std::string_view body;;) {
        reader.Next(body);
        socket.SendFrame(kCallerId, Kind::Reply, body);
    }
}

void RunCaller(const Settings& settings) {
    const Socket socket = Join(settings.Get<std::uint32_t>("socket"), kCallerId);
    FrameReader reader(socket);
    Say(Tool::kReadyLine);
    const auto to = settings.Get<std::uint32_t>("to");
    const std::string request(settings.Get<std::size_t>("size"), 'x');
    Latencies latencies;
    const auto measureFrom = Clock::now() + kWarmUp;
    const auto end = measureFrom + Seconds(settings.Number("seconds"));
    for (auto begin = Clock::now(); begin < end; begin = Clock::now()) {
        socket.SendFrame(to, Kind::Request, request);
        std::string_view reply;
        reader.Next(reply);
        Expect(reply.size() == request.size(), "a reply came damaged");
        if (begin >= measureFrom) {
            latencies.Add(Clock::now() - begin);
        }
    }
    const std::chrono::duration<double> measured = Clock::now() - measureFrom;
    Say(Tool::ResultLine(Settings()
                             .Set("p50", latencies.Microseconds(0.50))
                             .Set("p99", latencies.Microseconds(0.99))
                             .Set("rate", static_cast<double>(latencies.Count()) / measured.count())));
}

// ---- One way -------------------------------------------------------------------------------------------------------

void RunSink(const Settings& settings) {
    const Socket socket = Join(settings.Get<std::uint32_t>("socket"), settings.Get<std::uint32_t>("id"));
    FrameReader reader(socket);
    Say(Tool::kReadyLine);
    const auto size = settings.Get<std::size_t>("size");
    const auto quarter = settings.Get<std::uint32_t>("quarter");
    std::uint32_t count = 0;
    for (std::string_view body;;) {
        if (reader.Next(body).kind == Kind::Mark) {
            std::uint32_t sent = 0;
            std::memcpy(&sent, body.data(), sizeof sent);
            Expect(sent == count, "not everything that was sent has arrived");
            const std::int64_t now = Clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
            socket.SendFrame(kCallerId, Kind::MarkReply, {reinterpret_cast<const char*>(&now), sizeof now});
            continue;
        }
        Expect(body.size() == size, "a message came damaged");
        if (++count % quarter == 0) {
            socket.SendFrame(kCallerId, Kind::Ack, {});
        }
    }
}

namespace {

class Source {
public:
    explicit Source(const Settings& settings)
        : m_socket(Join(settings.Get<std::uint32_t>("socket"), kCallerId)), m_reader(m_socket),
          m_to(settings.Get<std::uint32_t>("to")), m_window(settings.Get<std::uint32_t>("window")),
          m_body(settings.Get<std::size_t>("size"), 'x') {}

    double Measure(double seconds) {
        SendFor(kWarmUp);
        const std::int64_t begin = AwaitSink();
        const std::uint32_t before = m_sent;
        SendFor(Seconds(seconds));
        const std::int64_t end = AwaitSink();
        return static_cast<double>(m_sent - before) * 1e9 / static_cast<double>(end - begin);
    }

private:
    void SendFor(Clock::duration time) {
        for (const auto end = Clock::now() + time; Clock::now() < end;) {
            while (m_sent - m_acknowledged >= m_window) {
                Take();
            }
            m_socket.SendFrame(m_to, Kind::Data, m_body);
            ++m_sent;
        }
    }

    // The sink's clock when it had everything.
    std::int64_t AwaitSink() {
        m_socket.SendFrame(m_to, Kind::Mark, {reinterpret_cast<const char*>(&m_sent), sizeof m_sent});
        while (Take() != Kind::MarkReply) {
        }
        std::int64_t nanoseconds = 0;
        std::memcpy(&nanoseconds, m_received.data(), sizeof nanoseconds);
        return nanoseconds;
    }

    Kind Take() {
        const Kind kind = m_reader.Next(m_received).kind;
        m_acknowledged += kind == Kind::Ack ? m_window / 4 : 0;
        return kind;
    }

    Socket m_socket;
    FrameReader m_reader;
    const std::uint32_t m_to;
    const std::uint32_t m_window;
    const std::string m_body;
    std::string_view m_received;
    std::uint32_t m_sent = 0;
    std::uint32_t m_acknowledged = 0;
};

} // namespace

void RunSource(const Settings& settings) {
    Source source(settings);
    Say(Tool::kReadyLine);
    Say(Tool::ResultLine(Settings().Set("rate", source.Measure(settings.Number("seconds")))));
}

} // namespace Vantor::Sentrix::Floor
