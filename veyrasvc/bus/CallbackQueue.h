// The messages of one client that wait for their callback, and the callbacks that run.
//
// A message is started by a work item of its own, or by the thread that has read it (CallbackBatch.h), where callbacks
// of this client are known to be short. Either starts the one that has waited longest, so messages of a client start in
// the order in which they came, whoever starts them.
#pragma once

#include "veyrasvc/bus/BasePacket.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace Vantor::Sentrix {

class IPCMessageClient;

// Threads: any.
// Lifetime: shared; outlives its client for as long as somebody is to start a message.
class CallbackQueue : public std::enable_shared_from_this<CallbackQueue> {
public:
    // What the client does with a message: looks its callback up and runs it.
    using Receive = void (IPCMessageClient::*)(std::shared_ptr<BasePacket>);
    struct Message {
        Receive receive;
        std::shared_ptr<BasePacket> packet;
    };

    // For a thread that runs one message after the other.
    class Turn;

    explicit CallbackQueue(IPCMessageClient& client) : m_client(client) {}

    // The message is started by the batch that this thread collects, else by a work item. For all of these: nothing
    // begins once the client is gone or the engine has stopped. False: there is no memory or thread for the message,
    // and it is lost.
    bool Add(Message message) noexcept;
    // By a work item.
    bool Post(Message message) noexcept;

    // Whether this client's callbacks usually take less time than handing them to another thread does.
    bool RunsShort() const { return m_averageTime.load(std::memory_order_relaxed) < kShort.count(); }
    // A callback of this client holds a thread up.
    void NoteSlow() { NoteTime(kHeldUp); }

    // From now on no callback begins; returns when none is running. Those that the calling thread is inside of do not
    // count: the client is being destroyed from within them.
    void Close();

private:
    // A thread's stay with the client.
    class Visit {
    public:
        explicit Visit(CallbackQueue& queue);
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        // False: the client is gone, or about to be.
        bool Entered() const { return m_entered; }
        // Whether it is with that client, and nobody closes it.
        bool GoesOn(const CallbackQueue& queue) const {
            return &m_queue == &queue && m_entered && (queue.m_visits & kClosed) == 0;
        }

        // Of this thread, one inside the other.
        static std::uint32_t CountOfThisThread(const CallbackQueue& queue);

    private:
        static thread_local Visit* s_innermost;

        CallbackQueue& m_queue;
        Visit* const m_outer;
        const bool m_entered;
    };

    // Of m_visits.
    static constexpr std::uint32_t kClosed = 1;
    static constexpr std::uint32_t kVisit = 2;

    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::nanoseconds kShort = std::chrono::microseconds(20);
    // What a callback that held up its thread counts for, and what one may count for that just took long: that alone
    // does not make a client slow, because its thread may have lost its processor.
    static constexpr std::chrono::nanoseconds kHeldUp = std::chrono::milliseconds(10);
    static constexpr std::chrono::nanoseconds kLongestMeasured = std::chrono::microseconds(100);

    void RunNext() noexcept;
    void Run(Message message) noexcept;
    bool TakeFirst(Message& message);
    void Deliver(Message message) noexcept;
    bool IsTimed();
    void NoteTime(std::chrono::nanoseconds took);

    IPCMessageClient& m_client;                                  // valid inside a visit
    std::atomic<std::int64_t> m_averageTime{2 * kShort.count()}; // of a callback, in nanoseconds
    std::atomic<std::uint32_t> m_untimed{0};
    std::atomic<std::uint32_t> m_visits{0}; // kVisit for each, and kClosed
    std::mutex m_mutex;
    std::condition_variable m_left;
    std::deque<Message> m_waiting;           // guarded by m_mutex
    std::atomic<std::size_t> m_waitCount{0}; // their number, known without the mutex
};

class CallbackQueue::Turn {
public:
    // Returns when the callback has. Messages of that client that wait already go first.
    void Run(CallbackQueue& queue, Message message) noexcept;

private:
    std::optional<Visit> m_visit; // goes on while the messages are one client's
};

} // namespace Vantor::Sentrix
