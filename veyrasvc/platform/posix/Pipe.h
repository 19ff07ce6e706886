// One end of a named pipe: a server instance or a client's connection, over a Unix stream socket.
//
// Every operation is overlapped and completes exactly once: at its call, or later with bytes or with an error. Until
// then its OVERLAPPED and its buffer belong to the pipe.
//
// An end that is associated with a completion port is served by the threads that ask that port (Service, OnEvents).
// Any other end reports to the event of each operation and is served by the threads that wait for such an event
// (Progress). The two differ in when they are called and in nothing else.
//
// What an operation needs until its completion is had when it begins, so that nothing that has begun, and no close,
// fails for want of memory.
//
// Reads are satisfied from what an earlier read of the socket brought along (the read-ahead); writes leave together as
// far as they are known. On a port they leave when it is asked, on an event-driven end at once.
#pragma once

#include "veyrasvc/platform/posix/CompletionPort.h"
#include "veyrasvc/platform/posix/Event.h"
#include "veyrasvc/platform/posix/IoObject.h"
#include "veyrasvc/platform/posix/PipeListener.h"
#include "veyrasvc/platform/posix/ReadAhead.h"
#include "veyrasvc/platform/posix/Ring.h"
#include "veyrasvc/platform/posix/UniqueFd.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace Vantor::Sentrix::Platform {

class Pipe final : public IoObject,
                   public ProgressSource,
                   public PortSource,
                   public std::enable_shared_from_this<Pipe> {
public:
    // The client's end, connected.
    explicit Pipe(UniqueFd socket);
    // A server instance that no client has yet. `admitsEveryone`: see PipeListener.
    Pipe(std::shared_ptr<PipeListener> listener, bool admitsEveryone);

    bool Associate(const std::shared_ptr<CompletionPort>& port, ULONG_PTR key);
    BOOL Connect(OVERLAPPED* overlapped);
    BOOL Disconnect();
    BOOL Read(void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) override;
    BOOL Write(const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) override;
    void OnClose() override;

    // From the listener: a client for an instance that waits in Connect. False when it waits no more.
    bool Accept(UniqueFd& socket);
    // The same: the wait of this instance fails.
    void RefuseAccept(DWORD error);
    bool AdmitsEveryone() const { return m_admitsEveryone; }
    std::shared_ptr<CompletionPort> Port();

    void Progress(short revents) override;
    int PollDescriptor(short& events) override;
    void OnEvents(std::uint32_t events) override;
    void Service() override;

private:
    enum class State { Idle, Listening, Connected, Broken, Closed };
    struct Operation {
        OVERLAPPED* overlapped = nullptr;
        char* buffer = nullptr;
        std::size_t count = 0;
        std::size_t done = 0;         // bytes of a write that the socket has taken
        std::shared_ptr<Event> event; // null on a port
    };

    // All of these are called with m_mutex held.
    bool MakeRoom(Ring<Operation>& operations);
    bool Begin(Operation& operation);
    void Finish(const Operation& operation, DWORD error, std::size_t bytes);
    void FinishAll(Ring<Operation>& operations, DWORD error);
    BOOL Outcome(const OVERLAPPED* overlapped, DWORD* transferred);
    void CallForService();
    BOOL CannotTransfer() const;
    bool WatchSocket();
    void UnwatchSocket();
    void Break(DWORD error);
    void FillReads();
    bool ReceiveInto(Operation& operation);
    void FlushWrites();
    bool SendSome();
    void TakeSent(std::size_t bytes);
    bool SendAtOnce(Operation& operation, std::unique_lock<std::mutex>& guard);
    void AwaitSent(std::unique_lock<std::mutex>& guard);
    void WatchForSpace(bool wanted);

    const std::shared_ptr<PipeListener> m_listener; // null at the client's end
    const bool m_admitsEveryone;

    std::mutex m_mutex;
    std::condition_variable m_sent; // m_sending has become false
    // All guarded by m_mutex.
    State m_state;
    UniqueFd m_socket;
    Ring<Operation> m_reads;
    Ring<Operation> m_writes;
    Operation m_connect; // pending while Listening
    ReadAhead m_ahead;
    bool m_sending = false;  // a thread writes to the socket without the mutex
    bool m_readable = false; // the socket may have bytes, or news of its end
    bool m_writable = true;  // the socket may take bytes
    bool m_hungUp = false;   // the other end is gone; bytes may be left to read
    bool m_dirty = false;    // the port knows that there is something to move
    bool m_watchesSpace = false;
    std::shared_ptr<CompletionPort> m_port;
    ULONG_PTR m_key = 0;
    std::uint64_t m_watchId = 0;
    struct {
        const OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        DWORD bytes = 0;
    } m_lastFinished; // since an operation was begun last
};

} // namespace Vantor::Sentrix::Platform
