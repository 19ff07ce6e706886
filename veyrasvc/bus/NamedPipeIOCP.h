// The pipe server: instances of one named pipe on one completion port with one worker thread.
//
// It knows connections and bytes; what the bytes mean is the business of the class derived from it.
//
// The asynchronous rules:
//  - An IOCPBuffer is one operation. From the call that starts it until its completion has been dispatched the buffer
//    belongs to the system and may be neither freed nor used again.
//  - An operation whose start succeeded or is pending completes exactly once, through the port, also when it was done
//    before the starting call returned. One whose start failed never completes.
//  - A context is destroyed by the dispatch of its last outstanding operation, nowhere else. A listening instance has
//    one (its accept), a connected one has a read and any number of writes.
//  - Closing a context's pipe makes everything outstanding on it complete with an error. So Stop closes all pipes and
//    then dispatches what is left; when nothing is outstanding any more, nothing is left to dispose of.
#pragma once

#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/AdaptiveSpin.h"
#include "veyrasvc/util/LockedContainers.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace Vantor::Sentrix {

// The pipe of the bus, the same for the server and every client.
inline constexpr wchar_t kBusPipeName[] = L"\\\\.\\Pipe\\iVeyraService";

// Bytes that an operation's own buffer holds.
inline constexpr std::size_t kPipeIoBytes = 4096;

enum class PipeOperation : DWORD { None = 0, Accept = 1, Write = 2, Read = 3 };

// One overlapped operation, recycled through the server's pool.
struct IOCPBuffer {
    OVERLAPPED m_overlapped{};     // first: the port hands back its address, which is the buffer's
    HANDLE m_acceptPipe = nullptr; // the instance being accepted; only in an accept buffer
    char* m_data = m_bytes;        // where the operation's bytes are
    DWORD m_length = 0;            // bytes asked for; after completion the bytes transferred
    PipeOperation m_operation = PipeOperation::None;
    std::shared_ptr<char[]> m_storage; // keeps m_data where that is not m_bytes
    char m_bytes[kPipeIoBytes];        // written before anybody reads them
};
static_assert(offsetof(IOCPBuffer, m_overlapped) == 0);

// One pipe instance from creation to destruction. Its own lock guards every field.
class IOCPContext : public CommonLock {
public:
    explicit IOCPContext(HANDLE pipe) : m_pipe(pipe) {}

    std::queue<SharedBytes> m_sendQueue; // pieces that wait to be written, each with its storage
    HANDLE m_pipe;                       // INVALID_HANDLE_VALUE once closed
    DWORD m_closed = 0;                  // 1 once the instance has been disconnected and closed
    DWORD m_pendingReads = 0;            // issued and not yet completed
    DWORD m_pendingWrites = 0;
    bool m_closeNotified = false; // OnConnectionClose has been called
};

// Threads: Start and Stop by one thread at a time, never by the worker. SendText by any thread that knows the context
// to be alive, which the virtual operations guarantee from OnNewConnection to OnConnectionClose.
// Lifetime: stop it before it is destroyed; there is no virtual destructor, so destroy the derived class itself.
class IOCPServer {
public:
    // Opens the port, starts the worker and lets m_acceptCount instances listen. False when it runs already. What
    // cannot be had (port, worker, instances) is logged and does not make it fail.
    bool Start();

    // Closes every connection and ends the worker; OnConnectionClose is called for connections on the way, by the
    // worker or by the calling thread. Does nothing when stopped. Start may follow.
    // Fails: a worker that is held up in a virtual operation for more than 2000 ms is not killed. The server then goes
    // on to count as running and Stop may be called again.
    void Stop();

    // Queues bytes for one connection, in pieces, and starts writing. The bytes are copied.
    // False, and nothing is queued: null arguments, a length below 1, or a closed connection.
    bool SendText(IOCPContext* context, const char* data, int length);
    // The same without a copy: the storage is held until the last piece has been written.
    bool SendShared(IOCPContext* context, const SharedBytes& text);

    // Restores the number of listening instances.
    void CheckAccepting();

    // Creates one instance and starts accepting on it. Owns: takes the buffer over. 1 on success, else 0.
    int PostAccept(IOCPBuffer* buffer);

protected:
    IOCPServer();
    ~IOCPServer() = default;
    IOCPServer(const IOCPServer&) = delete;
    IOCPServer& operator=(const IOCPServer&) = delete;

    // They run one at a time. The first two run under the context's lock; OnRecvData runs without it, because it
    // sends to other contexts, and the locks of two contexts are never held at once.
    // A client has connected; false refuses it.
    virtual bool OnNewConnection(IOCPContext* context);
    // The connection has ended; `error` is 0 or the system's code. At most once per context.
    virtual void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error);
    // m_data and m_length of the buffer hold bytes that have come; valid during the call.
    virtual void OnRecvData(IOCPContext* context, IOCPBuffer* buffer);
    // Before each read after the first, as OnRecvData: may point m_data and m_length elsewhere than m_bytes, with an
    // m_storage that keeps the place.
    virtual void OnBeforeRead(IOCPContext* context, IOCPBuffer* buffer);

    // To be called by OnRecvData and OnBeforeRead: more is about to come, from this client or another. So the worker
    // looks for it a moment before it sleeps, where that pays.
    void ExpectMore() { m_expectsMore = true; }

    // Disconnects and closes the instance, once. The connection then ends through its outstanding operations.
    static void ClosePipe(IOCPContext* context);

private:
    static DWORD WorkerThreadProc(void* server);
    // Waits for one completion and handles it; false when the worker should end.
    bool ServeOne();
    BOOL AwaitCompletion(DWORD& bytes, ULONG_PTR& key, OVERLAPPED*& overlapped);
    void DispatchCompletion(IOCPContext* context, IOCPBuffer* buffer, DWORD bytes, int error);
    void EndConnection(IOCPContext* context, IOCPBuffer* buffer, int error);
    void OperationAcceptProcess(IOCPContext& context, DWORD& bytes, IOCPBuffer& buffer, int& error, bool& close);
    void OperationTransferProcess(IOCPContext& context, DWORD bytes, IOCPBuffer& buffer, int error, bool& close);

    bool ListenOn(IOCPBuffer* buffer, IOCPContext*& context);
    int PostRecv(IOCPContext* context, IOCPBuffer* buffer);
    int PostSend(IOCPContext* context, IOCPBuffer* buffer);
    bool Issue(IOCPContext& context, IOCPBuffer& buffer, PipeOperation operation);
    bool Send(IOCPContext* context, const SharedBytes& text);
    bool SendPiece(IOCPContext* context, const SharedBytes& piece);
    void EmptySendQueue(IOCPContext* context);

    IOCPBuffer* AllocateBuffer(std::size_t size);
    void ReleaseBuffer(IOCPBuffer* buffer);
    static void FreeBuffer(IOCPBuffer* buffer);
    void FreeBuffers(std::size_t keep) VEYRA_REQUIRES(m_freeBuffers);
    IOCPContext* AllocateContext(HANDLE pipe);
    void ReleaseContext(IOCPContext* context);
    static bool AssociateDeviceWithCompletionPort(HANDLE port, HANDLE device, ULONG_PTR key);

    void CloseAllPipes();
    bool EndWorker();
    void DrainCompletions();

    using ContextMap = LockMap<std::uint64_t, IOCPContext*>;
    static std::uint64_t KeyOf(const IOCPContext* context) { return reinterpret_cast<std::uint64_t>(context); }
    static void Remove(ContextMap& contexts, const IOCPContext* context);

    LockQueue<IOCPBuffer*> m_freeBuffers; // the pool
    ContextMap m_acceptingContexts;       // instances that wait for a client
    ContextMap m_connectedContexts;       // instances that have one
    std::int64_t m_acceptCount = 20;      // instances kept waiting
    DWORD m_maxPendingWrites = 2000;      // a context has at most one more in flight
    std::size_t m_maxFreeBuffers = 200;   // bound on the pool
    std::size_t m_maxConnections = 100;   // bound on m_connectedContexts
    HANDLE m_workerThread = nullptr;
    HANDLE m_completionPort = nullptr;
    std::atomic<DWORD> m_stopping{0}; // set by Stop: ended connections are not replaced
    std::atomic<DWORD> m_running{0};
    std::atomic<std::int64_t> m_outstanding{0}; // operations started and not yet dispatched, over all contexts
    CommonLock m_closeLock;                     // serialises OnConnectionClose

    const bool m_maySpin; // the worker may look for completions before it sleeps
    AdaptiveSpin<> m_completionSpin;
    bool m_expectsMore = false; // touched by the worker only
};

} // namespace Vantor::Sentrix
