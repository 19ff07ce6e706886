#include "veyrasvc/bus/CallbackQueue.h"

#include "veyrasvc/bus/CallbackBatch.h"
#include "veyrasvc/bus/ModuleMessageClient.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/Succeeds.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace Vantor::Sentrix {

CallbackQueue::Visit::Visit(CallbackQueue& queue)
    : m_queue(queue), m_outer(s_innermost), m_entered((queue.m_visits.fetch_add(kVisit) & kClosed) == 0) {
    s_innermost = this;
}

CallbackQueue::Visit::~Visit() {
    s_innermost = m_outer;
    if ((m_queue.m_visits.fetch_sub(kVisit) & kClosed) != 0) {
        const std::lock_guard guard(m_queue.m_mutex); // who closes has counted, and waits by now
        m_queue.m_left.notify_all();
    }
}

std::uint32_t CallbackQueue::Visit::CountOfThisThread(const CallbackQueue& queue) {
    std::uint32_t count = 0;
    for (const Visit* visit = s_innermost; visit != nullptr; visit = visit->m_outer) {
        count += &visit->m_queue == &queue ? 1 : 0;
    }
    return count;
}

thread_local CallbackQueue::Visit* CallbackQueue::Visit::s_innermost = nullptr;

// ---- Starting messages ---------------------------------------------------------------------------------------------

bool CallbackQueue::Add(Message message) noexcept {
    CallbackBatch* const batch = CallbackBatch::CollectedHere();
    return batch != nullptr ? batch->Add(*this, std::move(message)) : Post(std::move(message));
}

bool CallbackQueue::Post(Message message) noexcept {
    const auto run = [](void* context) -> DWORD {
        const std::unique_ptr<std::shared_ptr<CallbackQueue>> queue(
            static_cast<std::shared_ptr<CallbackQueue>*>(context));
        (*queue)->RunNext();
        return 0;
    };
    return Succeeds([&] {
        auto self = std::make_unique<std::shared_ptr<CallbackQueue>>(shared_from_this());
        const std::lock_guard guard(m_mutex);
        m_waiting.push_back(std::move(message));
        const bool isPosted = QueueUserWorkItem(run, self.get(), WT_EXECUTELONGFUNCTION) != FALSE;
        if (isPosted) {
            static_cast<void>(self.release());
        } else {
            m_waiting.pop_back();
        }
        m_waitCount = m_waiting.size();
        return isPosted;
    });
}

void CallbackQueue::RunNext() noexcept {
    const Visit visit(*this);
    if (Message message{}; visit.Entered() && TakeFirst(message)) {
        Deliver(std::move(message));
    }
}

void CallbackQueue::Turn::Run(CallbackQueue& queue, Message message) noexcept {
    if (!m_visit || !m_visit->GoesOn(queue)) {
        m_visit.reset();
        m_visit.emplace(queue);
    }
    if (m_visit->Entered()) {
        queue.Run(std::move(message));
    }
}

void CallbackQueue::Run(Message message) noexcept {
    if (m_waitCount != 0) {
        try {
            const std::lock_guard guard(m_mutex);
            m_waiting.push_back(std::move(message));
        } catch (const std::bad_alloc&) {
            return;
        }
        if (!TakeFirst(message)) {
            return;
        }
    }
    Deliver(std::move(message));
}

bool CallbackQueue::TakeFirst(Message& message) {
    const std::lock_guard guard(m_mutex);
    if (m_waiting.empty()) {
        return false; // the client was closed
    }
    message = std::move(m_waiting.front());
    m_waiting.pop_front();
    m_waitCount = m_waiting.size();
    return true;
}

void CallbackQueue::Deliver(Message message) noexcept {
    if (BaseMessageClient::Instance().IsStopped()) {
        return;
    }
    const auto msgId = message.packet->GetMsgId();
    const bool timed = IsTimed();
    const auto begin = timed ? Clock::now() : Clock::time_point();
    try {
        (m_client.*message.receive)(std::move(message.packet));
    } catch (const std::exception& exception) {
        LOG_ERROR("ipc message callback threw. messageid=" << msgId << ", what=" << exception.what());
    } catch (...) {
        LOG_ERROR("ipc message callback threw. messageid=" << msgId);
    }
    if (timed) {
        NoteTime(std::min<std::chrono::nanoseconds>(Clock::now() - begin, kLongestMeasured));
    }
}

// A look at the clock costs as much as a short callback, so of those only some are timed.
bool CallbackQueue::IsTimed() {
    constexpr std::uint32_t kInterval = 64;
    return !RunsShort() || m_untimed.fetch_add(1, std::memory_order_relaxed) % kInterval == 0;
}

// A sample that is lost between two threads does no harm.
void CallbackQueue::NoteTime(std::chrono::nanoseconds took) {
    constexpr std::int64_t kWeight = 8;
    const std::int64_t average = m_averageTime.load(std::memory_order_relaxed);
    m_averageTime.store(average + (took.count() - average) / kWeight, std::memory_order_relaxed);
}

void CallbackQueue::Close() {
    const std::uint32_t own = Visit::CountOfThisThread(*this);
    m_visits |= kClosed;
    std::unique_lock guard(m_mutex);
    m_waiting.clear(); // a new container would need memory
    m_left.wait(guard, [&] { return m_visits / kVisit <= own; });
}

} // namespace Vantor::Sentrix
