#include "veyrasvc/bus/CallbackBatch.h"

#include "veyrasvc/bus/CallbackQueue.h"

#include <new>
#include <utility>

namespace Vantor::Sentrix {

thread_local CallbackBatch* CallbackBatch::s_collected = nullptr;
thread_local CallbackBatch* CallbackBatch::s_run = nullptr;

bool CallbackBatch::Add(std::shared_ptr<CallbackQueue> queue) noexcept {
    try {
        m_queues.push_back(std::move(queue));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CallbackBatch::Run() {
    s_run = this;
    for (std::size_t i = 0; (i = m_next.fetch_add(1, std::memory_order_acq_rel)) < m_queues.size();) {
        m_begun.store(m_begun.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        CallbackQueue& queue = *m_queues[i];
        if (queue.RunsShort()) {
            queue.RunNext();
        } else {
            queue.StartWorkItem();
        }
    }
    s_run = nullptr;
}

bool CallbackBatch::HandOver() {
    const std::size_t first = m_next.exchange(kHandedOver, std::memory_order_acq_rel);
    if (first > 0 && first <= m_queues.size()) {
        m_queues[first - 1]->NoteSlow();
    }
    bool anyShort = false;
    for (std::size_t i = first; i < m_queues.size(); ++i) {
        anyShort = anyShort || m_queues[i]->RunsShort();
        m_queues[i]->StartWorkItem();
    }
    return anyShort;
}

void CallbackBatch::Clear() {
    m_queues.clear();
    m_next.store(0, std::memory_order_relaxed);
}

} // namespace Vantor::Sentrix
