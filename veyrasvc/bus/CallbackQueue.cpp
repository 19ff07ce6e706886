#include "veyrasvc/bus/CallbackQueue.h"

#include "veyrasvc/bus/CallbackBatch.h"
#include "veyrasvc/bus/ModuleMessageClient.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace Vantor::Sentrix {

// A thread's stay with the client, for the message that has waited longest.
class CallbackQueue::Visit {
public:
    explicit Visit(CallbackQueue& queue) : m_queue(queue), m_outer(s_innermost) {
        const std::lock_guard guard(queue.m_mutex);
        m_entered = !queue.m_closed && !queue.m_waiting.empty();
        if (m_entered) {
            m_message = std::move(queue.m_waiting.front());
            queue.m_waiting.pop_front();
            ++queue.m_visits;
        }
        s_innermost = this;
    }
    ~Visit() {
        s_innermost = m_outer;
        const std::lock_guard guard(m_queue.m_mutex);
        m_queue.m_visits -= m_entered ? 1 : 0;
        if (m_queue.m_closed) {
            m_queue.m_left.notify_all();
        }
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    bool Entered() const { return m_entered; }
    Message& TheMessage() { return m_message; }

    // Of this thread, one inside the other.
    static int CountOfThisThread(const CallbackQueue& queue) {
        int count = 0;
        for (const Visit* visit = s_innermost; visit != nullptr; visit = visit->m_outer) {
            count += &visit->m_queue == &queue && visit->m_entered ? 1 : 0;
        }
        return count;
    }

private:
    static thread_local Visit* s_innermost;

    CallbackQueue& m_queue;
    Visit* const m_outer;
    bool m_entered;
    Message m_message{};
};

thread_local CallbackQueue::Visit* CallbackQueue::Visit::s_innermost = nullptr;

void CallbackQueue::Add(Receive receive, std::shared_ptr<BasePacket> packet) {
    try {
        const std::lock_guard guard(m_mutex);
        m_waiting.push_back({receive, std::move(packet)});
    } catch (const std::bad_alloc&) {
        return;
    }
    if (CallbackBatch* const batch = CallbackBatch::CollectedHere();
        batch == nullptr || !batch->Add(shared_from_this())) {
        StartWorkItem();
    }
}

void CallbackQueue::StartWorkItem() {
    const auto run = [](void* context) -> DWORD {
        const std::unique_ptr<std::shared_ptr<CallbackQueue>> queue(
            static_cast<std::shared_ptr<CallbackQueue>*>(context));
        (*queue)->RunNext();
        return 0;
    };
    std::unique_ptr<std::shared_ptr<CallbackQueue>> self(new (std::nothrow) std::shared_ptr(shared_from_this()));
    const std::lock_guard guard(m_mutex);
    if (self && QueueUserWorkItem(run, self.get(), WT_EXECUTELONGFUNCTION) != FALSE) {
        static_cast<void>(self.release());
    } else if (!m_waiting.empty()) {
        m_waiting.pop_back();
    }
}

void CallbackQueue::RunNext() noexcept {
    Visit visit(*this);
    if (!visit.Entered() || BaseMessageClient::Instance().IsStopped()) {
        return;
    }
    auto& [receive, packet] = visit.TheMessage();
    const auto msgId = packet->GetMsgId();
    const bool timed = IsTimed();
    const auto begin = timed ? Clock::now() : Clock::time_point();
    try {
        (m_client.*receive)(std::move(packet));
    } catch (const std::exception& exception) {
        LOG_ERROR("ipc message callback threw. messageid=" << msgId << ", what=" << exception.what());
    } catch (...) {
        LOG_ERROR("ipc message callback threw. messageid=" << msgId);
    }
    if (timed) {
        NoteTime(Clock::now() - begin);
    }
}

// A look at the clock costs as much as a short callback, so of those only some are timed.
bool CallbackQueue::IsTimed() {
    constexpr std::uint32_t kInterval = 16;
    return !RunsShort() || m_untimed.fetch_add(1, std::memory_order_relaxed) % kInterval == 0;
}

// A sample that is lost between two threads does no harm.
void CallbackQueue::NoteTime(std::chrono::nanoseconds took) {
    constexpr std::int64_t kWeight = 8;
    const std::int64_t average = m_averageTime.load(std::memory_order_relaxed);
    const std::int64_t sample = std::min(took, kLongestNoted).count();
    m_averageTime.store(average + (sample - average) / kWeight, std::memory_order_relaxed);
}

void CallbackQueue::Close() {
    const int own = Visit::CountOfThisThread(*this);
    std::deque<Message> dropped; // destroyed when the mutex is free
    std::unique_lock guard(m_mutex);
    m_closed = true;
    dropped.swap(m_waiting);
    m_left.wait(guard, [&] { return m_visits <= own; });
}

} // namespace Vantor::Sentrix
