// What one Start of the pipe server opens: the completion port, its worker, and every pipe instance.
//
// The asynchronous rules:
//  - An IOCPBuffer is one operation. From the call that starts it until its completion has been dispatched the buffer
//    belongs to the system and may be neither freed nor used again.
//  - An operation whose start succeeded or is pending completes exactly once, through the port, also when it was done
//    before the starting call returned. One whose start failed never completes.
//  - A context is destroyed by the dispatch of its last outstanding operation, nowhere else. A listening instance has
//    one (its accept), a connected one has a read and any number of writes.
//  - Closing a context's pipe makes everything outstanding on it complete with an error. So the run ends by closing all
//    pipes; the worker dispatches until nothing is outstanding, and then nothing is left to dispose of.
//
// Owns: the server and the worker share the run. Normally the worker ends first. One that is held up keeps the run, its
// contexts and the events that it reports to, and the last reference goes when it has ended.
#pragma once

#include "veyrasvc/bus/NamedPipeIOCP.h"
#include "veyrasvc/util/AdaptiveSpin.h"

#include <chrono>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix {

class PipeRun : public std::enable_shared_from_this<PipeRun> {
public:
    // Fails: std::bad_alloc.
    explicit PipeRun(std::shared_ptr<PipeEvents> events);
    ~PipeRun();
    PipeRun(const PipeRun&) = delete;
    PipeRun& operator=(const PipeRun&) = delete;

    // False: without a port or a worker, and nothing listens. Call End after success, and drop the run after failure.
    bool Begin();
    // Closes all pipes and waits up to 2000 ms for the worker, which is left to end by itself then.
    void End();

    void CheckAccepting();
    bool Send(IOCPContext& context, const SharedBytes& text);
    static void ClosePipe(IOCPContext& context);

    // For the events, on the worker: see there.
    void ExpectMore() { m_expectsMore = true; }
    void ExpectTick() { m_expectsTick = true; }

private:
    using ContextMap = LockMap<std::uint64_t, IOCPContext*>;
    static std::uint64_t KeyOf(const IOCPContext& context) { return reinterpret_cast<std::uint64_t>(&context); }
    static void Remove(ContextMap& contexts, const IOCPContext& context);

    // The worker.
    static DWORD WorkerThreadProc(void* run);
    void Serve();
    bool ServeOne();
    BOOL AwaitCompletion(DWORD& bytes, ULONG_PTR& key, OVERLAPPED*& overlapped);
    DWORD LongestWait() const;
    void Tick();
    void DispatchCompletion(IOCPContext& context, IOCPBuffer& buffer, DWORD bytes, DWORD error);
    bool OperationAcceptProcess(IOCPContext& context, DWORD bytes, IOCPBuffer& buffer, DWORD error);
    bool OperationTransferProcess(IOCPContext& context, DWORD bytes, IOCPBuffer& buffer, DWORD error);
    void EndConnection(IOCPContext& context, IOCPBuffer& buffer, DWORD error);

    // Accepting.
    bool PostAccept(IOCPBuffer& buffer);
    bool ListenOn(IOCPBuffer& buffer, IOCPContext*& context);
    void CloseAllPipes();
    void NoteShortage(DWORD acceptError);

    // Reading and writing. The caller holds the context's lock, except for PostRecv.
    bool PostRecv(IOCPContext& context, IOCPBuffer& buffer);
    bool Issue(IOCPContext& context, IOCPBuffer& buffer, PipeOperation operation);
    bool WritePiece(IOCPContext& context, const std::shared_ptr<char[]>& storage, std::string_view piece);
    std::string_view WritePieces(IOCPContext& context, const SharedBytes& text);
    void EmptySendQueue(IOCPContext& context);

    IOCPBuffer* AllocateBuffer(std::size_t size);
    void ReleaseBuffer(IOCPBuffer* buffer);

    const std::shared_ptr<PipeEvents> m_events;
    // Constant once the worker runs.
    HANDLE m_completionPort = nullptr;
    HANDLE m_workerThread = nullptr;

    LockedContainer<std::vector<IOCPBuffer*>> m_freeBuffers; // the pool; has room for all that it may hold
    ContextMap m_acceptingContexts;                          // instances that wait for a client
    ContextMap m_connectedContexts;                          // instances that have one
    std::atomic<bool> m_stopping{false};                     // nothing begins any more
    std::atomic<bool> m_abandoned{false};                    // nobody waits for the worker; events are over
    std::atomic<bool> m_lacksPlaces{false};                  // not all could be had
    std::atomic<std::int64_t> m_outstanding{0}; // operations started and not yet dispatched, over all contexts

    // Touched by the worker only.
    const bool m_maySpin; // the worker may look for completions before it sleeps
    AdaptiveSpin<> m_completionSpin;
    bool m_expectsMore = false;
    bool m_expectsTick = false;
    std::chrono::steady_clock::time_point m_lastTick;
    bool m_shortageNamed = false; // that clients are turned away for want of descriptors
};

} // namespace Vantor::Sentrix
