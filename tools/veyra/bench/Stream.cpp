// One-way traffic from a source to one or more sinks, held back by a window: the source has at most so many messages
// under way, and each sink acknowledges every quarter of it. The sinks count; order does not matter to them, because
// callbacks may run at the same time.
#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/bench/Latencies.h"
#include "tools/veyra/bench/Workers.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>
#include <string>

namespace Vantor::Sentrix::Tool {

namespace {

using Clock = Latencies::Clock;

constexpr std::chrono::seconds kPatience{10};

// ---- Sink ----------------------------------------------------------------------------------------------------------

class Sink {
public:
    explicit Sink(const Settings& settings)
        : m_id(settings.Get<std::uint32_t>("id")), m_size(settings.Get<std::int32_t>("size")),
          m_quarter(settings.Get<std::uint32_t>("quarter")), m_client(static_cast<int>(m_id), false, false) {
        const auto take = [this](TagIPCMessageItem& item) { Take(item); };
        m_client.RegisterMessageCallback(BenchMessage::kMark, [this](TagIPCMessageItem& item) { Mark(item); });
        if (const auto publisher = settings.Get<std::uint32_t>("publisher"); publisher != 0) {
            m_client.SubscribeIPCMessage(publisher, BenchMessage::kData);
            m_client.RegisterPublishMessageCallback(take);
        } else {
            m_client.RegisterMessageCallback(BenchMessage::kData, take);
        }
        SayReady(m_client, m_id);
    }

private:
    void Take(const TagIPCMessageItem& item) {
        if (item.dataLen != m_size) {
            Say("a message came damaged");
            return; // what is missing ends the measurement
        }
        const std::uint32_t count = m_count.fetch_add(1) + 1;
        if (count % m_quarter == 0) {
            TagIPCMessageItem ack;
            ack.toModuleId = item.fromModuleId;
            ack.msgId = BenchMessage::kAck;
            m_client.PostIPCMessage(ack);
        }
        if (count == m_target) {
            const std::lock_guard guard(m_mutex); // Mark() is either before its look at the count or waiting
            m_reached.notify_all();
        }
    }

    void Mark(const TagIPCMessageItem& item) {
        std::uint32_t target = 0;
        std::memcpy(&target, item.data, sizeof target);
        {
            std::unique_lock guard(m_mutex);
            m_target = target;
            if (!m_reached.wait_for(guard, kPatience, [&] { return m_count >= target; })) {
                return; // the source gives up as well
            }
        }
        MarkReply reply{Clock::now().time_since_epoch() / std::chrono::nanoseconds(1)};
        TagIPCMessageItem answer;
        answer.toModuleId = item.fromModuleId;
        answer.msgId = BenchMessage::kMarkReply;
        answer.uniqMsgId = item.uniqMsgId;
        answer.dataLen = sizeof reply;
        answer.data = reinterpret_cast<char*>(&reply);
        m_client.PostIPCMessage(answer);
    }

    const std::uint32_t m_id;
    const std::int32_t m_size;
    const std::uint32_t m_quarter;
    std::atomic<std::uint32_t> m_count{0};
    std::atomic<std::uint32_t> m_target{std::numeric_limits<std::uint32_t>::max()};
    std::mutex m_mutex;
    std::condition_variable m_reached;
    IPCMessageClient m_client; // last, and so destroyed before what its callbacks use
};

// ---- Source --------------------------------------------------------------------------------------------------------

class Source {
public:
    explicit Source(const Settings& settings)
        : m_id(settings.Get<std::uint32_t>("id")), m_firstSink(settings.Get<std::int32_t>("to")),
          m_window(settings.Get<std::uint32_t>("window")), m_publish(settings.Number("publish") != 0),
          m_body(settings.Get<std::size_t>("size"), 'x'), m_acknowledged(settings.Get<std::size_t>("sinks")),
          m_client(static_cast<int>(m_id), false, false) {
        m_client.RegisterMessageCallback(BenchMessage::kAck, [this](TagIPCMessageItem& item) {
            auto& acknowledged = m_acknowledged.at(static_cast<std::size_t>(item.fromModuleId - m_firstSink));
            acknowledged += m_window / 4;
            acknowledged.notify_one();
        });
        SayReady(m_client, m_id);
    }

    // Messages per second, counted at the sinks: from the time when all before had arrived at all of them until the
    // last has its last.
    double Measure(double seconds) {
        SendFor(kWarmUp);
        const std::int64_t begin = AwaitSinks();
        const std::uint32_t before = m_sent;
        SendFor(std::chrono::duration<double>(seconds));
        const std::int64_t end = AwaitSinks();
        const auto deliveries = static_cast<double>(m_sent - before) * static_cast<double>(m_acknowledged.size());
        return deliveries * 1e9 / static_cast<double>(end - begin);
    }

private:
    void SendFor(std::chrono::duration<double> time) {
        const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
        while (Clock::now() < end) {
            for (auto& acknowledged : m_acknowledged) {
                AwaitWindow(acknowledged);
            }
            SendOne();
        }
    }

    void AwaitWindow(const std::atomic<std::uint32_t>& acknowledged) const {
        for (auto arrived = acknowledged.load(); m_sent - arrived >= m_window; arrived = acknowledged.load()) {
            acknowledged.wait(arrived);
        }
    }

    void SendOne() {
        TagIPCMessageItem item;
        item.toModuleId = m_publish ? -1 : m_firstSink;
        item.msgId = BenchMessage::kData;
        item.dataLen = static_cast<std::int32_t>(m_body.size());
        item.data = m_body.data();
        if (!(m_publish ? m_client.PublishIPCMessage(item) : m_client.PostIPCMessage(item))) {
            throw BenchFailure("a message was refused");
        }
        ++m_sent;
    }

    // When the last sink had everything, in nanoseconds.
    std::int64_t AwaitSinks() {
        std::int64_t latest = 0;
        for (std::size_t i = 0; i < m_acknowledged.size(); ++i) {
            latest = std::max(latest, AwaitSink(m_firstSink + static_cast<std::int32_t>(i)));
        }
        return latest;
    }

    std::int64_t AwaitSink(std::int32_t sink) {
        TagIPCMessageItem mark;
        mark.toModuleId = sink;
        mark.msgId = BenchMessage::kMark;
        mark.uniqMsgId = ++m_marks;
        mark.dataLen = sizeof m_sent;
        mark.data = reinterpret_cast<char*>(&m_sent);
        MarkReply reply{};
        const auto read = [&reply](TagIPCMessageItem& answer) {
            std::memcpy(&reply, answer.data, std::min(sizeof reply, static_cast<std::size_t>(answer.dataLen)));
        };
        const auto patience = static_cast<unsigned int>(kPatience / std::chrono::milliseconds(1));
        if (!m_client.SendIPCMessage(mark, BenchMessage::kMarkReply, patience, read)) {
            throw BenchFailure("not everything that was sent has arrived");
        }
        return reply.nanoseconds;
    }

    const std::uint32_t m_id;
    const std::int32_t m_firstSink;
    const std::uint32_t m_window;
    const bool m_publish;
    std::string m_body;
    std::uint32_t m_sent = 0;
    std::int32_t m_marks = 0;
    std::deque<std::atomic<std::uint32_t>> m_acknowledged; // by each sink
    IPCMessageClient m_client;                             // last, as above
};

} // namespace

void RunSink(const Settings& settings) {
    const Sink sink(settings);
    Linger();
}

void RunSource(const Settings& settings) {
    Source source(settings);
    Support::WriteOutput(ResultLine(Settings().Set("rate", source.Measure(settings.Number("seconds")))) + '\n');
}

} // namespace Vantor::Sentrix::Tool
