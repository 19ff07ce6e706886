// Events, and the link from an event to the overlapped operation that will signal it.
#pragma once

#include "veyrasvc/platform/posix/Wait.h"

namespace Vantor::Sentrix::Platform {

class Event final : public Waitable {
public:
    Event(bool manualReset, bool initialState) : m_manualReset(manualReset), m_signalled(initialState) {}

    void Set();
    void Reset() { m_signalled.store(false, std::memory_order_seq_cst); }

    // Those who wait poll anew what their events' operations need.
    void LookAgain() { NotifyWaiters(); }

    bool TryAcquire() override;
    std::shared_ptr<ProgressSource> Source() override;

    // An operation of that source will signal this event. The link stays when the operation has ended: the source then
    // has nothing to wait for, and the next operation needs no new link.
    void SetSource(const std::shared_ptr<ProgressSource>& source);

private:
    const bool m_manualReset;
    std::atomic<bool> m_signalled;
    std::mutex m_sourceMutex;
    std::weak_ptr<ProgressSource> m_source; // guarded by m_sourceMutex
    std::atomic<bool> m_hasSource{false};
};

} // namespace Vantor::Sentrix::Platform
