// The callbacks of what one read of the connection has brought.
//
// The thread that reads collects them and runs the short ones itself, in their order; the rest becomes work items. It
// may be held up by one that is not short after all. Somebody else then hands over what has not begun.
#pragma once

#include "veyrasvc/bus/CallbackQueue.h"
#include "veyrasvc/util/ThreadProbe.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Vantor::Sentrix {

// Threads: Add, Run and Clear are called by the thread that serves the connection; HandOver and Position by any.
class CallbackBatch {
public:
    // Messages that the calling thread queues go into the batch for as long as one of these lives.
    class Collecting {
    public:
        explicit Collecting(CallbackBatch& batch) { s_collected = &batch; }
        ~Collecting() { s_collected = nullptr; }
        Collecting(const Collecting&) = delete;
        Collecting& operator=(const Collecting&) = delete;
    };
    // The batch that the calling thread collects, or runs; null when there is none.
    static CallbackBatch* CollectedHere() { return s_collected; }
    static CallbackBatch* RunHere() { return s_run; }

    // `leader`: who runs it, for those who ask (Leadership.h); 0 when nobody does.
    explicit CallbackBatch(std::uint32_t leader = 0) : m_leader(leader) {}
    CallbackBatch(const CallbackBatch&) = delete;
    CallbackBatch& operator=(const CallbackBatch&) = delete;

    std::uint32_t Leader() const { return m_leader; }
    // Called by the leader before it runs anything.
    void RunsOnThisThread() { m_runner.emplace(); }
    // Any thread, while the leader runs callbacks: see ThreadProbe.
    bool CouldRun() const { return m_runner && m_runner->IsRunnable(); }

    // A message for that client. False: there is no memory for it, and it is lost.
    bool Add(CallbackQueue& queue, CallbackQueue::Message message) noexcept;
    bool Empty() const { return m_entries.empty(); }
    // Runs or hands over one after another, until all are done or somebody has handed over the rest.
    void Run();
    // While one runs: whether another follows on the same thread. Sequentially consistent: who has left something to be
    // done after the last, and asks again, either hears that somebody has handed over or is found by who does.
    bool MoreFollow() const { return m_next < m_entries.size(); }
    // Work items for all that has not begun. True: some callback among them is known to be short. The one that runs is
    // taken for slow.
    bool HandOver();
    // Only while nobody else can hand over.
    void Clear();

    // Changes whenever a callback begins.
    std::uint64_t Position() const { return m_begun.load(std::memory_order_relaxed); }

private:
    // What `m_next` is from when the rest was handed over. Counting on from it never ends in the range of an index.
    static constexpr std::size_t kHandedOver = SIZE_MAX / 2;

    static thread_local CallbackBatch* s_collected;
    static thread_local CallbackBatch* s_run;

    struct Entry {
        CallbackQueue* queue;
        CallbackQueue::Message message; // taken out by who starts it
    };

    const std::uint32_t m_leader;
    std::optional<ThreadProbe> m_runner;                  // constant once callbacks run
    std::vector<Entry> m_entries;                         // as many as they are while they run
    std::vector<std::shared_ptr<CallbackQueue>> m_queues; // keep those of the entries
    std::atomic<std::size_t> m_next{0};
    std::atomic<std::uint64_t> m_begun{0};
};

} // namespace Vantor::Sentrix
