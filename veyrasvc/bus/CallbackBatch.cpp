#include "veyrasvc/bus/CallbackBatch.h"

#include "veyrasvc/bus/CallbackQueue.h"
#include "veyrasvc/util/Succeeds.h"

#include <new>
#include <utility>

namespace Vantor::Sentrix {

thread_local CallbackBatch* CallbackBatch::s_collected = nullptr;
thread_local CallbackBatch* CallbackBatch::s_run = nullptr;

bool CallbackBatch::Add(CallbackQueue& queue, CallbackQueue::Message message) noexcept {
    return Succeeds([&] {
        if (m_entries.empty() || m_entries.back().queue != &queue) {
            m_queues.push_back(queue.shared_from_this());
        }
        m_entries.push_back({&queue, std::move(message)});
        return true;
    });
}

void CallbackBatch::Run() {
    s_run = this;
    CallbackQueue::Turn turn;
    for (std::size_t i = 0; (i = m_next.fetch_add(1, std::memory_order_acq_rel)) < m_entries.size();) {
        m_begun.store(m_begun.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        auto& [queue, message] = m_entries[i];
        if (queue->RunsShort()) {
            turn.Run(*queue, std::move(message));
        } else {
            queue->Post(std::move(message));
        }
    }
    s_run = nullptr;
}

bool CallbackBatch::HandOver() {
    const std::size_t first = m_next.exchange(kHandedOver);
    if (first > 0 && first <= m_entries.size()) {
        m_entries[first - 1].queue->NoteSlow();
    }
    bool anyShort = false;
    for (std::size_t i = first; i < m_entries.size(); ++i) {
        auto& [queue, message] = m_entries[i];
        anyShort = anyShort || queue->RunsShort();
        queue->Post(std::move(message));
    }
    return anyShort;
}

void CallbackBatch::Clear() {
    m_entries.clear();
    m_queues.clear();
    m_next.store(0, std::memory_order_relaxed);
}

} // namespace Vantor::Sentrix
