// The pipe server: instances of one named pipe on one completion port with one worker thread.
//
// It knows connections and bytes; what the bytes mean is the business of the class that its events go to.
//
// What one Start opens lives in a PipeRun (PipeRun.h), which the server and the worker share: a Stop that cannot wait
// for a worker leaves the run to it and the server is free for the next Start.
#pragma once

#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/util/LockedContainers.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace Vantor::Sentrix {

class PipeRun;

// The pipe of the bus, the same for the server and every client.
inline constexpr wchar_t kBusPipeName[] = L"\\\\.\\Pipe\\iVeyraService";

// Bytes that an operation's own buffer holds.
inline constexpr std::size_t kPipeIoBytes = 4096;

enum class PipeOperation : DWORD { None = 0, Accept = 1, Write = 2, Read = 3 };

// One overlapped operation, recycled through the run's pool.
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

// One pipe instance from creation to destruction. Its own lock guards every field that is not said to be otherwise.
class IOCPContext : public CommonLock {
public:
    IOCPContext(PipeRun& run, HANDLE pipe) : m_run(run), m_pipe(pipe) {}

    PipeRun& m_run;                      // constant
    std::queue<SharedBytes> m_sendQueue; // texts that wait to be written; of the first one the rest
    HANDLE m_pipe;                       // INVALID_HANDLE_VALUE once closed
    DWORD m_closed = 0;                  // 1 once the instance has been disconnected and closed
    DWORD m_pendingReads = 0;            // issued and not yet completed
    DWORD m_pendingWrites = 0;           // the same; never 0 while texts wait
    bool m_closeNotified = false;        // OnConnectionClose has been called; touched by the worker only
};

// What the connections of a run report to, and what it may do with them.
//
// Threads: the worker calls the virtual operations, one at a time and with no lock held. SendText and SendShared by any
// thread that knows the context to be alive, which the virtual operations guarantee from OnNewConnection to
// OnConnectionClose.
// Fails: std::bad_alloc out of a virtual operation costs the connection that it was called for, which then ends with
// ERROR_NOT_ENOUGH_MEMORY. OnConnectionClose must succeed without memory.
class PipeEvents {
public:
    // A client has connected; false refuses it.
    virtual bool OnNewConnection(IOCPContext* context);
    // The connection has ended; `error` is 0 or the system's code. At most once per context.
    virtual void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error);
    // m_data and m_length of the buffer hold bytes that have come; valid during the call.
    virtual void OnRecvData(IOCPContext* context, IOCPBuffer* buffer);
    // Before each read after the first, as OnRecvData: may point m_data and m_length elsewhere than m_bytes, with an
    // m_storage that keeps the place.
    virtual void OnBeforeRead(IOCPContext* context, IOCPBuffer* buffer);
    // Once after ExpectTick, and at most once a second.
    virtual void OnTick();

    // Queues bytes for one connection, in pieces, and starts writing. The bytes are copied.
    // False, and nothing is queued: null arguments, a length below 1, a closed connection, or no memory. When memory
    // ends in the middle of a text the connection is closed, because nobody could read on behind half a text.
    static bool SendText(IOCPContext* context, const char* data, int length);
    // The same without a copy: the storage is held until the last piece has been written.
    static bool SendShared(IOCPContext* context, const SharedBytes& text);

protected:
    PipeEvents() = default;
    ~PipeEvents() = default;

    // To be called by OnRecvData and OnBeforeRead: more is about to come, from this client or another. So the worker
    // looks for it a moment before it sleeps, where that pays.
    static void ExpectMore(const IOCPContext* context);
    // To be called by the virtual operations: OnTick has something to do.
    static void ExpectTick(const IOCPContext* context);

    // Disconnects and closes the instance, once. The connection then ends through its outstanding operations.
    static void ClosePipe(IOCPContext* context);
};

// Threads: Start and Stop by one thread at a time, never by the worker.
// Lifetime: stop it before it is destroyed; there is no virtual destructor, so destroy the derived class itself.
class IOCPServer : public PipeEvents {
public:
    // Opens the port, starts the worker and lets 20 instances listen. False when it runs already. What cannot be had is
    // logged and does not make it fail; without a port or a worker nothing listens, so clients are refused.
    bool Start();

    // Closes every connection and ends the worker, which calls OnConnectionClose on the way. Does nothing when stopped.
    // Start may follow.
    // Fails: a worker that is held up in a virtual operation for more than 2000 ms is not killed but left to end by
    // itself. It calls no other operation any more, so an object that gets its own events may be destroyed when that
    // one has returned.
    void Stop();

    // Restores the number of listening instances.
    void CheckAccepting();

protected:
    IOCPServer();
    ~IOCPServer();
    IOCPServer(const IOCPServer&) = delete;
    IOCPServer& operator=(const IOCPServer&) = delete;

private:
    // What the next run reports to; the run keeps it. Here: this object, which nobody keeps.
    // Fails: std::bad_alloc.
    virtual std::shared_ptr<PipeEvents> EventsOfRun();

    std::shared_ptr<PipeRun> m_run; // null when stopped, and in a server without a worker
    std::atomic<DWORD> m_running{0};
};

} // namespace Vantor::Sentrix
