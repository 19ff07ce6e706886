// The client engine: the one connection of a process to the bus.
//
// The road of a frame out: the sender's thread writes it when nothing is queued before it and it is short. What the
// pipe does not take at once, long frames, and a rush of frames are queued for who serves the connection, short ones
// joined.
// The road in: who serves the connection reads, cuts frames, decodes and routes. Routing wakes waiting senders and
// collects messages for callbacks; a long body stays where it was read to.
//
// Who serves (the leader/followers pattern): the I/O thread connects and serves, and makes work items of callbacks.
// Once callbacks are found to be short, it gives the connection to a leader, a pool thread, which runs them where it
// has read their messages, so that no thread has to be woken for them. The I/O thread then watches: a leader that a
// callback blocks for a tick, or keeps busy for some, is relieved of the connection, and one that is about to wait for
// an answer gives it up by itself. So a slow callback holds up nobody for longer.
//
// Waits are woken exactly once: a ReplyWait is on the list from before its request leaves; whoever finds it there (an
// answer, an offline notice, the end of the connection) stores the outcome, takes it off and then signals. What nobody
// has found by the end of its time the sender takes off.
//
// Each connection begins with the registration, because the host can answer only whom it knows. What was queued before
// there was a connection follows in order.
//
// Memory may be short at any time. An operation that cannot have it is false and leaves nothing behind; the serving
// thread has one place that catches this (MovePipe), and it costs the connection. Waiting and stopping need none.
#pragma once

#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/CallbackBatch.h"
#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/bus/Leadership.h"
#include "veyrasvc/bus/NamedPipeIOCP.h"
#include "veyrasvc/bus/ReconnectPauses.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/AdaptiveSpin.h"
#include "veyrasvc/util/LockedContainers.h"
#include "veyrasvc/util/SlimLock.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Vantor::Sentrix {

class IPCMessageClient;

// Where packets go in this process. Both functions must not block and must not register or unregister anything.
struct PacketReceiver {
    std::function<bool(const BasePacket&)> wants;
    // Queues work for the packet, whose bytes nobody else has. False: there was no memory or thread for it.
    std::function<bool(std::shared_ptr<BasePacket>)> take;
};

// A message client of this process, or the receiver of its publications.
struct ClientEntry {
    std::uint32_t moduleId;
    const IPCMessageClient* owner;
    bool forwardPosts; // posts to it from this process go through the router
    PacketReceiver receiver;
};

struct PublishEntry {
    std::uint32_t moduleId;
    const IPCMessageClient* owner;
    PacketReceiver receiver;
};

// Threads: every public operation may be called from any thread.
// Lifetime: made by the first Instance() of a process and never destroyed; stopped when the process exits.
class BaseMessageClient {
public:
    // Fails: std::bad_alloc.
    static BaseMessageClient& Instance();

    BaseMessageClient(const BaseMessageClient&) = delete;
    BaseMessageClient& operator=(const BaseMessageClient&) = delete;

    // True when the engine runs. False: it was stopped, or an event or a thread could not be had, and nothing of it is
    // left; whatever needs the engine tries again.
    bool Start();
    // Ends the I/O thread (it is waited for at most 1000 ms), discards frames that are not written yet, and ends every
    // wait without an answer. Nothing is sent or received any more.
    void Stop();
    bool IsStopped() const { return m_stop != 0; }

    // Each registration of a client tells the router the process's module ids anew. False, and nothing is registered:
    // memory is short. Unregistering needs no memory and is always true.
    bool RegisterClient(const IPCMessageClient* owner, std::uint32_t moduleId, bool forwardPosts,
                        PacketReceiver receiver);
    bool UnregisterClient(const IPCMessageClient* owner);
    bool RegisterPublishHandler(const IPCMessageClient* owner, std::uint32_t moduleId, PacketReceiver receiver);
    bool UnregisterPublishHandler(const IPCMessageClient* owner);
    // +1 when a publish handler begins to want packets, -1 when it wants none any more. While there is none that does,
    // publications that arrive are not even decoded.
    void CountPublishReceivers(int change) { m_publishReceivers += change; }

    // Delivers within the process, or queues for the router, or both (published and broadcast packets). For these
    // three: false when the engine cannot run. Fails: std::bad_alloc, and nothing was queued or delivered.
    bool PostPacket(const std::shared_ptr<BasePacket>& packet);
    // The same for a synchronous request: a client of this process always gets it directly.
    bool SendPacket(const std::shared_ptr<BasePacket>& packet);
    // Queues for the router. Frames leave in the order of these calls, also across a reconnection.
    bool QueueFrame(const std::shared_ptr<BasePacket>& packet);
    // Routes within the process. False: a receiver that wanted the packet has lost it, because memory is short.
    bool DispatchRecvPackage(const std::shared_ptr<BasePacket>& packet) { return Dispatch(packet, false); }

    // Hands the request over and waits for the packet that answers it: message id `msgId`, correlation id as in the
    // request, or an offline notice about its destination. Null: it could not be handed over, nothing came in time
    // (INFINITE: no limit), the connection was lost or the engine stopped.
    std::shared_ptr<BasePacket> WaitForMessage(std::uint32_t msgId, DWORD timeoutMs,
                                               const std::shared_ptr<BasePacket>& request);
    // Offers a packet to the waits; every match is woken, with bytes of its own. `isFree`: nobody else has the packet.
    void WakeupReplyMsg(const std::shared_ptr<BasePacket>& packet, bool isFree);
    // Whether a waiting sender would take the packet.
    bool IsAwaited(const BasePacket& packet);

    // Queues the registration packet; not while there is no connection, which begins with one.
    // Fails: std::bad_alloc, and nothing is queued.
    void UpdatePidMid();

private:
    // Held by the waiting thread, and by whoever wakes it until that is done.
    struct ReplyWait {
        ReplyWait(std::uint32_t awaited, std::shared_ptr<BasePacket> sent);
        ~ReplyWait();
        ReplyWait(const ReplyWait&) = delete;
        ReplyWait& operator=(const ReplyWait&) = delete;

        const HANDLE event; // manual-reset
        const std::uint32_t msgId;
        const std::uint32_t uniqMsgId;
        std::shared_ptr<BasePacket> reply; // guarded by the list's lock
        const std::shared_ptr<BasePacket> request;
    };
    // Waits that have ended and were taken off the list; wakes their threads when it is destroyed.
    struct Signals {
        ~Signals();
        std::list<std::shared_ptr<ReplyWait>> waits;
    };

    // What leaves in one piece, as far as the pipe takes it.
    struct Outgoing {
        SharedBytes frame;            // one frame, or
        std::string joined;           // short ones one after another
        std::uint32_t connection = 0; // the only one that it is for; 0: any
        std::string_view Bytes() const { return frame.storage ? frame.bytes : joined; }
    };

    static constexpr std::size_t kSpareJoined = 4; // fresh memory is cleared by the system first

    BaseMessageClient();
    ~BaseMessageClient() = default;

    std::array<HANDLE*, 6> Events();
    bool CreateEvents();
    void CloseEvents();

    // The I/O thread.
    static DWORD WorkerProc(void* engine);
    void RunConnection();
    void Reconnect();
    void EndConnection();
    void Pause(std::chrono::milliseconds time) const;
    bool Connect(DWORD timeoutMs);
    static bool Open(HANDLE& pipe);
    void Attach(HANDLE pipe, Outgoing registration);
    bool AwaitPipe(DWORD timeoutMs) const;
    void Disconnect();
    void ReleaseWaits();
    void AskForLeader();
    void HandOverConnection();
    void StandBy();
    bool LeaderIsHeldUp();
    void TakeConnectionBack();

    // A leader.
    static DWORD LeadProc(void* engine);
    void Lead();
    bool AwaitConnection();
    void StepDown();

    // The thread that serves the connection.
    bool MovePipe() noexcept;
    bool TakeTurn();
    bool AwaitWork();
    bool ReadWhatIsThere();
    bool StartRead(bool& completed);
    bool OnReadComplete();
    bool OnWriteComplete();
    void ExtractFrames(std::size_t length);
    void Deliver(const SharedBytes& frame);
    bool RunCallbacks();
    void BeWatched();
    bool PumpWrite(bool& drained);
    bool WriteChunk(bool& written) VEYRA_REQUIRES(m_sendQueue);
    DWORD HandOver(HANDLE pipe, std::string_view bytes, OVERLAPPED& overlapped) VEYRA_REQUIRES(m_sendQueue);
    void EndWritten() VEYRA_REQUIRES(m_sendQueue);
    bool MayWriteAtOnce(std::size_t length) const VEYRA_REQUIRES(m_sendQueue);
    void WriteQueued() VEYRA_REQUIRES(m_sendQueue);
    void WriteFrom(std::size_t bytes) VEYRA_REQUIRES(m_sendQueue);
    void CallWriter();
    void WriteHeldBack();

    BasePacket MakeRegistration() const;
    bool TryUpdatePidMid();
    std::shared_ptr<ReplyWait> OpenWait(std::uint32_t msgId, const std::shared_ptr<BasePacket>& request);
    void QueueBytes(SharedBytes frame);
    static void Put(SharedBytes frame, Outgoing& outgoing);
    void QueueFor(std::uint32_t connection, SharedBytes frame) VEYRA_REQUIRES(m_sendQueue);
    void Enqueue(std::uint32_t connection, SharedBytes frame) VEYRA_REQUIRES(m_sendQueue);
    void TakeNext() VEYRA_REQUIRES(m_sendQueue);
    bool NothingToWrite() const VEYRA_REQUIRES(m_sendQueue);
    bool InRush() VEYRA_REQUIRES(m_sendQueue);
    bool Dispatch(const std::shared_ptr<BasePacket>& packet, bool isQueuedToo);
    enum class Match { None, Answer, Offline };
    static Match MatchOf(const ReplyWait& wait, const BasePacket& packet);
    bool HasDirectReceiver(std::uint32_t moduleId, bool evenIfForwarded) const;
    std::span<ClientEntry* const> ClientsOf(std::uint32_t moduleId) const VEYRA_REQUIRES_SHARED(m_clientsLock);

    LockList<std::shared_ptr<ReplyWait>> m_replyWaits;
    std::atomic<int> m_waits{0};        // on the list, or about to be
    AdaptiveSpin<> m_answerSpin;        // of the threads that wait for an answer
    std::atomic<DWORD> m_stop{0};       // for good
    std::atomic<bool> m_started{false}; // there is an I/O thread, or has been
    CommonLock m_lifecycleLock;         // serialises Start and Stop
    HANDLE m_workerThread = nullptr;

    // Constant while the engine runs. Manual-reset: read, write, exit; auto-reset: the others.
    HANDLE m_readEvent = nullptr;
    HANDLE m_writeEvent = nullptr;
    HANDLE m_exitEvent = nullptr;
    HANDLE m_sendEvent = nullptr;
    HANDLE m_leadEvent = nullptr;    // the connection was given to the leader
    HANDLE m_standByEvent = nullptr; // the leader returned it, or begins callbacks while nobody watches

    Leadership m_leadership;
    std::atomic<bool> m_candidate{false}; // a leader waits to be given the connection
    std::atomic<bool> m_watched{false};   // the I/O thread looks at the leader each tick

    // Touched only by the I/O thread.
    bool m_connected = false; // the result of the last Connect
    std::chrono::steady_clock::time_point m_connectedAt;
    ReconnectPauses m_pauses{GetCurrentProcessId()};
    bool m_leaderAsked = false;
    std::uint32_t m_lastLeader = 0;
    std::uint64_t m_watchedPosition = 0;                               // of the leader's batch at the last tick
    int m_quietTicks = 0;                                              // since it moved
    std::optional<std::chrono::steady_clock::time_point> m_stuckSince; // seen in one callback, tick after tick
    // Set from giving the connection away until it is taken back. That fact is this thread's own: the leadership word
    // may have changed twice since the thread looked at it last. Shared with the leader, also one that was relieved.
    std::shared_ptr<CallbackBatch> m_leadersBatch;

    // Touched only by who serves the connection.
    CallbackBatch m_ownBatch;                 // the I/O thread's
    CallbackBatch* m_batch = &m_ownBatch;     // the one that collects: this or the leader's
    bool m_wantsLeader = false;               // callbacks were short
    bool m_broken = false;                    // the connection, as a leader found
    HANDLE m_readPipe = INVALID_HANDLE_VALUE; // m_pipe, known without a lock
    bool m_reading = false;                   // a read is outstanding
    bool m_readsOn = false;                   // it goes on with the frame in m_recvData, rather than into m_readBuffer
    OVERLAPPED m_readOverlapped{};
    char m_readBuffer[64 * 1024];
    FrameCutter m_recvData;

    // The writing side: the send queue's lock guards all of it.
    LockQueue<Outgoing> m_sendQueue;
    HANDLE m_pipe VEYRA_GUARDED_BY(m_sendQueue) = INVALID_HANDLE_VALUE;
    std::uint32_t m_connection VEYRA_GUARDED_BY(m_sendQueue) = 0; // the number of the last one
    // Both are changed with the lock held.
    std::atomic<bool> m_writing{false};                       // a write is outstanding
    std::atomic<bool> m_mustWrite{false};                     // who serves has to see to the queue
    bool m_handingOver VEYRA_GUARDED_BY(m_sendQueue) = false; // a thread is about to give the pipe a piece
    DWORD m_writeLength VEYRA_GUARDED_BY(m_sendQueue) = 0;
    OVERLAPPED m_writeOverlapped VEYRA_GUARDED_BY(m_sendQueue){};
    Outgoing m_sendRest VEYRA_GUARDED_BY(m_sendQueue);              // what is being written; the write reads from it
    std::size_t m_sendRestOffset VEYRA_GUARDED_BY(m_sendQueue) = 0; // how much of it was handed to the pipe
    Outgoing m_sendNext VEYRA_GUARDED_BY(m_sendQueue); // goes before the queue: the last connection did not begin it
    std::vector<std::string> m_spareJoined VEYRA_GUARDED_BY(m_sendQueue);             // room for frames to be joined in
    std::chrono::steady_clock::time_point m_lastQueued VEYRA_GUARDED_BY(m_sendQueue); // when a frame came last
    int m_inRush VEYRA_GUARDED_BY(m_sendQueue) = 0;        // frames that have come in close succession
    bool m_heldBack VEYRA_GUARDED_BY(m_sendQueue) = false; // frames wait for the leader's batch to end

    mutable SlimLock m_clientsLock;
    std::vector<std::unique_ptr<ClientEntry>> m_clients VEYRA_GUARDED_BY(m_clientsLock);
    // Found by module id, those that share one in the order of m_clients.
    std::unordered_map<std::uint32_t, std::vector<ClientEntry*>> m_clientsById VEYRA_GUARDED_BY(m_clientsLock);
    std::string m_registrationText VEYRA_GUARDED_BY(m_clientsLock); // the ids of m_clients, each followed by a space
    mutable SlimLock m_publishLock;
    std::vector<std::unique_ptr<PublishEntry>> m_publishHandlers VEYRA_GUARDED_BY(m_publishLock);
    std::atomic<int> m_publishReceivers{0};
    CommonLock m_registrationLock; // a registration is composed and queued in one step, so that the last one is right
    std::atomic<bool> m_registrationDue{false}; // it could not be made; the serving thread tries again
};

} // namespace Vantor::Sentrix
