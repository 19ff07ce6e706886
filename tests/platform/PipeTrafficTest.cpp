// Heavy traffic in both directions between a completion port and event-driven clients, every byte compared.
#include "tests/platform/Pipes.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace Vantor::Sentrix {
namespace {

constexpr unsigned kMostBytes = 40'000;  // of most operations
constexpr unsigned kHugeBytes = 3 << 20; // more than any system keeps for a reader that does not read

// One direction of a connection: `stream` tells its bytes from those of all others.
class Stream {
public:
    Stream(unsigned stream, std::size_t total) : m_stream(stream), m_total(total), m_random(stream + 1) {}

    DWORD NextSize() {
        const auto kind = m_random() % 32;
        return 1 + static_cast<DWORD>(m_random() % (kind == 0 ? kHugeBytes : kind < 8 ? kMostBytes : 200));
    }
    bool IsAtEnd() const { return m_position >= m_total; }
    void Produce(std::vector<char>& piece) {
        piece.resize(std::min<std::size_t>(NextSize(), m_total - m_position));
        for (char& byte : piece) {
            byte = PatternAt(m_stream, m_position++);
        }
    }
    void Check(const char* bytes, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i, ++m_position) {
            ASSERT_EQ(bytes[i], PatternAt(m_stream, m_position)) << "stream " << m_stream << " at " << m_position;
        }
    }

private:
    const unsigned m_stream;
    const std::size_t m_total;
    std::size_t m_position = 0;
    std::minstd_rand m_random;
};

// The server's end. Keeps operations outstanding in both directions. Their bytes are in the order of their start; the
// port may bring the completions in another.
// With one a direction, any thread of the port may bring a completion: it may even come before the call that started
// the operation has returned, and its OVERLAPPED goes at once.
class PortEnd {
public:
    PortEnd(HANDLE port, unsigned id, std::size_t total, int outstanding)
        : m_connection(port, reinterpret_cast<ULONG_PTR>(this)), m_in(2 * id, total), m_out(2 * id + 1, total),
          m_outstanding(outstanding) {}

    void Start() {
        for (int i = 0; i < m_outstanding; ++i) {
            Begin(false);
            Begin(true);
        }
    }
    // True with the last one.
    bool OnCompletion(const Completion& done) {
        auto* const completed = reinterpret_cast<Operation*>(done.overlapped);
        completed->done = done;
        auto& started = completed->writes ? m_writes : m_reads;
        std::vector<std::unique_ptr<Operation>> ended; // all first: what starts anew belongs to the thread it ends on
        while (!started.empty() && started.front()->done) {
            ended.push_back(std::move(started.front()));
            started.pop_front();
        }
        for (const auto& operation : ended) {
            Take(*operation);
        }
        return (m_live -= static_cast<int>(ended.size())) == 0;
    }

    Connection m_connection;

private:
    struct Operation {
        OVERLAPPED overlapped{}; // first: a completion names it
        std::vector<char> buffer;
        bool writes = false;
        std::optional<Completion> done;
    };

    void Take(const Operation& operation) {
        const Completion& done = *operation.done;
        if (operation.writes) {
            EXPECT_TRUE(done.succeeded && done.bytes == operation.buffer.size()) << done.error;
        } else if (done.succeeded) {
            m_in.Check(operation.buffer.data(), done.bytes);
        } else {
            EXPECT_EQ(done.error, ERROR_BROKEN_PIPE);
            EXPECT_TRUE(m_in.IsAtEnd()) << "bytes were lost before the end";
        }
        if (done.succeeded) {
            Begin(operation.writes);
        }
    }

    void Begin(bool writes) {
        if (writes && m_out.IsAtEnd()) {
            return;
        }
        auto& started = writes ? m_writes : m_reads;
        Operation* const operation = started.emplace_back(std::make_unique<Operation>()).get();
        operation->writes = writes;
        writes ? m_out.Produce(operation->buffer) : operation->buffer.resize(m_in.NextSize());
        ++m_live;
        char* const data = operation->buffer.data();
        const auto size = static_cast<DWORD>(operation->buffer.size());
        const HANDLE pipe = m_connection.server;
        if (!Begun(writes ? WriteFile(pipe, data, size, nullptr, &operation->overlapped)
                          : ReadFile(pipe, data, size, nullptr, &operation->overlapped))) {
            EXPECT_TRUE(!writes && GetLastError() == ERROR_BROKEN_PIPE) << GetLastError();
            started.pop_back();
            --m_live;
        }
    }

    Stream m_in;
    Stream m_out;
    const int m_outstanding;
    std::deque<std::unique_ptr<Operation>> m_reads; // in the order of their start, which is that of the bytes
    std::deque<std::unique_ptr<Operation>> m_writes;
    std::atomic<int> m_live{0};
};

// The client's end: one thread waits for both directions; writes are its own, or those of a sender thread.
class EventEnd {
public:
    EventEnd(HANDLE pipe, unsigned id, std::size_t total)
        : m_pipe(pipe), m_in(2 * id + 1, total), m_out(2 * id, total) {}

    void Run(bool hasSender) {
        const Thread sender([this, hasSender] { // it stays for its last write, which would be cancelled with it
            while (hasSender) {
                ASSERT_EQ(WaitForSingleObject(m_maySend, kPatienceMs), WAIT_OBJECT_0);
                if (m_out.IsAtEnd()) {
                    return;
                }
                Write();
            }
        });
        const auto sendMore = [&] { hasSender ? static_cast<void>(SetEvent(m_maySend)) : Write(); };
        const HANDLE events[] = {m_reading.event, m_writing.event};
        bool sending = true;
        Read();
        sendMore();
        while (sending || !m_in.IsAtEnd()) {
            const DWORD got = WaitForMultipleObjects(2, events, FALSE, kPatienceMs);
            ASSERT_LT(got, 2U) << "sending: " << sending;
            DWORD bytes = 0;
            EventIo& io = got == 0 ? m_reading : m_writing;
            EXPECT_EQ(io.Await(&bytes), NO_ERROR);
            ResetEvent(io.event);
            if (got == 0) {
                m_in.Check(m_buffer.data(), bytes);
                m_in.IsAtEnd() ? void() : Read();
            } else {
                EXPECT_EQ(bytes, m_piece.size());
                sending = !m_out.IsAtEnd();
                sending || hasSender ? sendMore() : void();
            }
        }
    }

private:
    void Read() {
        m_buffer.resize(m_in.NextSize());
        EXPECT_TRUE(Begun(m_reading.Read(m_pipe, m_buffer.data(), static_cast<DWORD>(m_buffer.size()))));
    }
    void Write() {
        m_out.Produce(m_piece);
        EXPECT_TRUE(Begun(m_writing.Write(m_pipe, m_piece.data(), static_cast<DWORD>(m_piece.size()))));
    }

    const HANDLE m_pipe;
    Stream m_in;
    Stream m_out;
    EventIo m_reading;
    EventIo m_writing;
    std::vector<char> m_buffer;
    std::vector<char> m_piece;
    const Owned m_maySend = NewEvent(false);
};

void RunTraffic(unsigned connections, std::size_t bytes, unsigned portThreads, int outstanding, bool hasSenders) {
    SCOPED_TRACE(connections);
    const Owned port = NewPort();
    std::vector<std::unique_ptr<PortEnd>> ends;
    for (unsigned id = 0; id < connections; ++id) {
        ends.push_back(std::make_unique<PortEnd>(port, id, bytes, outstanding));
    }
    for (const auto& end : ends) {
        end->Start(); // on a thread that asks the port no more
    }
    std::atomic<std::size_t> live{ends.size()};
    std::deque<Thread> threads;
    for (unsigned i = 0; i < portThreads; ++i) {
        threads.emplace_back([&] {
            for (Completion done = Next(port); done.overlapped != nullptr; done = Next(port)) {
                if (reinterpret_cast<PortEnd*>(done.key)->OnCompletion(done) && --live == 0) {
                    for (unsigned posts = 0; posts < portThreads; ++posts) {
                        PostQueuedCompletionStatus(port, 0, 0, nullptr);
                    }
                }
            }
        });
    }
    for (unsigned id = 0; id < connections; ++id) {
        threads.emplace_back([&, id] {
            Owned& client = ends[id]->m_connection.client;
            EventEnd(client, id, bytes).Run(hasSenders && id % 2 == 0);
            client.Close();
        });
    }
    threads.clear();
    EXPECT_EQ(live, 0U);
}

TEST(PipeTrafficTest, ArrivesCompleteAndInOrder) {
    RunTraffic(1, 8 << 20, 1, 4, false);
    RunTraffic(1, 5 << 20, 1, 4, true);
    RunTraffic(24, 200 << 10, 1, 2, true);
    RunTraffic(6, 400 << 10, 3, 1, true);
}

} // namespace
} // namespace Vantor::Sentrix
