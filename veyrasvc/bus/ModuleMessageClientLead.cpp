// Which thread serves the connection: the I/O thread, and the leaders it gives it to.
#include "veyrasvc/bus/ModuleMessageClient.h"
#include "veyrasvc/util/LogStatement.h"

#include <new>

namespace Vantor::Sentrix {

namespace {

constexpr DWORD kConnectTimeoutMs = 1000;

// How often a leader that runs callbacks is looked at, and for how many ticks after its last callback: about as many as
// cost what waking the I/O thread for the next one does.
constexpr DWORD kTickMs = 1;
constexpr int kQuietTicks = 3;
// How long a leader that could run may stay in one callback. It computes, or other programs have its processor: then a
// relief would hand its callbacks to threads that would have to wait for a processor as well.
constexpr std::chrono::milliseconds kBusyPatience{10};

} // namespace

// ---- The I/O thread ------------------------------------------------------------------------------------------------

DWORD BaseMessageClient::WorkerProc(void* engine) {
    LOG_DEBUG("ModuleMessageClient WorkerProc Thread Id:" << GetCurrentThreadId());
    LOG_DEBUG("ModuleMessageClient NotifyProc Thread Id:" << GetCurrentThreadId()); // which dispatches as well
    static_cast<BaseMessageClient*>(engine)->RunConnection();
    return 0;
}

void BaseMessageClient::RunConnection() {
    while (m_stop == 0) {
        if (m_leadersBatch) {
            StandBy();
        } else if (!m_connected) {
            Reconnect();
        } else if (m_broken || !MovePipe()) {
            EndConnection();
        } else if (m_candidate.exchange(false)) {
            HandOverConnection();
        } else if (m_wantsLeader) {
            AskForLeader();
        }
    }
    while (m_leadersBatch) {
        StandBy();
    }
    Disconnect();
}

void BaseMessageClient::Reconnect() {
    m_connected = Connect(kConnectTimeoutMs);
    if (m_connected) {
        m_connectedAt = std::chrono::steady_clock::now();
    } else {
        Pause(m_pauses.Next());
    }
}

void BaseMessageClient::EndConnection() {
    Disconnect();
    Pause(m_pauses.AfterConnection(std::chrono::steady_clock::now() - m_connectedAt));
}

// Until the stop at the longest.
void BaseMessageClient::Pause(std::chrono::milliseconds time) const {
    WaitForSingleObject(m_exitEvent, static_cast<DWORD>(time.count()));
}

// This thread goes on serving until a leader is there, so nothing depends on when the pool has a thread for it.
void BaseMessageClient::AskForLeader() {
    m_wantsLeader = false;
    m_leaderAsked = m_leaderAsked || QueueUserWorkItem(LeadProc, this, WT_EXECUTELONGFUNCTION) != FALSE;
}

void BaseMessageClient::HandOverConnection() {
    try {
        m_leadersBatch = std::make_shared<CallbackBatch>(m_lastLeader + 1);
    } catch (const std::bad_alloc&) {
        m_candidate = true; // it goes on waiting
        return;
    }
    m_batch = m_leadersBatch.get();
    m_leadership.Give(++m_lastLeader);
    SetEvent(m_leadEvent);
}

// While a leader serves: until it returns the connection, until the next tick if it is watched, or until the stop.
void BaseMessageClient::StandBy() {
    const HANDLE events[] = {m_standByEvent, m_exitEvent};
    const bool stopping = m_stop != 0; // then the exit event says nothing any more
    const DWORD result =
        WaitForMultipleObjects(stopping ? 1 : 2, events, FALSE, stopping || m_watched ? kTickMs : INFINITE);
    const bool running = m_leadership.RunsCallbacks();
    const std::uint64_t position = m_leadersBatch->Position();
    const bool moved = position != m_watchedPosition;
    m_watchedPosition = position;
    if (!running || moved) {
        m_stuckSince.reset();
    }
    const bool isHeldUp = running && !moved && result == WAIT_TIMEOUT && LeaderIsHeldUp();
    if (running && (stopping || isHeldUp) && m_leadership.Relieve(m_lastLeader)) {
        m_leadersBatch->HandOver();
    }
    if (m_leadership.IsIoThreads()) {
        TakeConnectionBack();
    } else if (running || moved) {
        m_quietTicks = 0;
    } else if (++m_quietTicks == kQuietTicks) {
        m_quietTicks = 0;
        m_watched = false;
        m_watched = m_leadership.RunsCallbacks(); // it has begun meanwhile, perhaps before it could see that
    }
}

// Asked when it was in one callback for a tick.
bool BaseMessageClient::LeaderIsHeldUp() {
    const auto now = std::chrono::steady_clock::now();
    m_stuckSince = m_stuckSince.value_or(now);
    return !m_leadersBatch->CouldRun() || now - *m_stuckSince >= kBusyPatience;
}

void BaseMessageClient::TakeConnectionBack() {
    m_batch = &m_ownBatch;
    m_stuckSince.reset();
    m_leadersBatch.reset(); // a leader that was relieved still holds it
    m_watched = false;
    m_watchedPosition = 0;
    m_quietTicks = 0;
    m_leaderAsked = false;
}

// ---- Leaders -------------------------------------------------------------------------------------------------------

DWORD BaseMessageClient::LeadProc(void* engine) {
    static_cast<BaseMessageClient*>(engine)->Lead();
    return 0;
}

void BaseMessageClient::Lead() {
    if (!AwaitConnection()) {
        return;
    }
    const auto batch = m_leadersBatch;
    batch->RunsOnThisThread();
    bool works = true;
    while (works && m_stop == 0) {
        works = MovePipe();
    }
    if (m_leadership.IsOf(batch->Leader())) {
        m_broken = !works;
        batch->Clear();
        m_leadership.Return();
        SetEvent(m_standByEvent);
    }
}

// False: the engine stops, and the I/O thread does not hand the connection over any more.
bool BaseMessageClient::AwaitConnection() {
    m_candidate = true;
    SetEvent(m_sendEvent); // the I/O thread may be waiting for work
    const HANDLE events[] = {m_leadEvent, m_exitEvent};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0) {
        return true;
    }
    return !m_candidate.exchange(false) && WaitForSingleObject(m_leadEvent, INFINITE) == WAIT_OBJECT_0;
}

// Before the calling thread waits: if it is the leader, in a callback, somebody else has to read on.
void BaseMessageClient::StepDown() {
    CallbackBatch* const batch = CallbackBatch::RunHere();
    if (batch != nullptr && m_leadership.Relieve(batch->Leader())) {
        batch->HandOver();
        SetEvent(m_standByEvent);
    }
}

// What was read is decoded; now its callbacks. False: the connection is another's, and nothing of it may be touched.
bool BaseMessageClient::RunCallbacks() {
    CallbackBatch& batch = *m_batch;
    if (batch.Empty()) {
        return true;
    }
    const std::uint32_t leader = batch.Leader();
    if (leader == 0) {
        m_wantsLeader = batch.HandOver() || m_wantsLeader;
        batch.Clear();
        return true;
    }
    m_leadership.BeginCallbacks(leader);
    BeWatched();
    batch.Run();
    WriteHeldBack();
    if (!m_leadership.EndCallbacks(leader)) {
        return false;
    }
    batch.Clear();
    return true;
}

void BaseMessageClient::BeWatched() {
    if (!m_watched) {
        m_watched = true;
        SetEvent(m_standByEvent);
    }
}

} // namespace Vantor::Sentrix
