#include "veyrasvc/platform/posix/Pipe.h"

#include "veyrasvc/platform/posix/WorkPool.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

// What OVERLAPPED::Internal holds until the operation has completed.
constexpr ULONG_PTR kPending = 0x103;

// More kernel buffer than the default lets a large frame leave in fewer turns. The kernel doubles the value for its
// own bookkeeping.
constexpr int kSendBufferBytes = 208 * 1024;

ULONG_PTR StatusOf(OVERLAPPED* overlapped) {
    return std::atomic_ref(overlapped->Internal).load(std::memory_order_acquire);
}

void WidenSendBuffer(const UniqueFd& socket) {
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
}

} // namespace

Pipe::Pipe(UniqueFd socket) : m_admitsEveryone(false), m_state(State::Connected), m_socket(std::move(socket)) {
    WidenSendBuffer(m_socket);
}

Pipe::Pipe(std::shared_ptr<PipeListener> listener, bool admitsEveryone)
    : m_listener(std::move(listener)), m_admitsEveryone(admitsEveryone), m_state(State::Idle) {}

// ---- Starting and finishing operations -----------------------------------------------------------------------------

// For one more operation, and for one that is being sent and comes back if the socket does not take all of it.
bool Pipe::MakeRoom(Ring<Operation>& operations) {
    return operations.Reserve(operations.Size() + 2) || Fail(ERROR_NOT_ENOUGH_MEMORY) != FALSE;
}

bool Pipe::Begin(Operation& operation) {
    OVERLAPPED& overlapped = *operation.overlapped;
    m_lastFinished = {};
    if (m_port) {
        if (!m_port->Reserve()) {
            return Fail(ERROR_NOT_ENOUGH_MEMORY) != FALSE;
        }
    } else {
        operation.event = Find<Event>(overlapped.hEvent);
        if (!operation.event) {
            return false;
        }
        operation.event->Reset();
        operation.event->SetSource(shared_from_this());
    }
    overlapped.InternalHigh = 0;
    std::atomic_ref(overlapped.Internal).store(kPending, std::memory_order_release);
    return true;
}

void Pipe::Finish(const Operation& operation, DWORD error, std::size_t bytes) {
    OVERLAPPED& overlapped = *operation.overlapped;
    m_lastFinished = {&overlapped, error, static_cast<DWORD>(bytes)};
    overlapped.InternalHigh = bytes;
    std::atomic_ref(overlapped.Internal).store(error, std::memory_order_release);
    if (operation.event) {
        operation.event->Set();
    } else {
        m_port->Queue({static_cast<DWORD>(bytes), m_key, operation.overlapped, error});
    }
}

void Pipe::FinishAll(Ring<Operation>& operations, DWORD error) {
    while (!operations.Empty()) {
        Finish(operations.PopFront(), error, 0);
    }
}

// The result of the call that has begun the operation. The OVERLAPPED itself is not looked at: whoever was told of the
// completion may have freed it already.
BOOL Pipe::Outcome(const OVERLAPPED* overlapped, DWORD* transferred) {
    if (m_lastFinished.overlapped != overlapped) {
        CallForService();
        return Fail(ERROR_IO_PENDING);
    }
    if (transferred != nullptr) {
        *transferred = m_lastFinished.bytes;
    }
    return m_lastFinished.error == ERROR_SUCCESS ? TRUE : Fail(m_lastFinished.error);
}

// Threads that wait for this end went to sleep before they could know what the new operation needs polled.
void Pipe::CallForService() {
    if (m_port) {
        return; // MarkDirty or the epoll set has seen to it
    }
    for (auto* operations : {&m_reads, &m_writes}) {
        for (std::size_t i = 0; i < operations->Size(); ++i) {
            (*operations)[i].event->LookAgain();
        }
    }
}

BOOL Pipe::CannotTransfer() const {
    switch (m_state) {
    case State::Connected:
        return FALSE;
    case State::Broken:
        SetLastError(ERROR_BROKEN_PIPE);
        return TRUE;
    case State::Listening:
        SetLastError(ERROR_PIPE_LISTENING);
        return TRUE;
    default:
        SetLastError(ERROR_PIPE_NOT_CONNECTED);
        return TRUE;
    }
}

// ---- The calls -----------------------------------------------------------------------------------------------------

bool Pipe::Associate(const std::shared_ptr<CompletionPort>& port, ULONG_PTR key) {
    const std::lock_guard guard(m_mutex);
    if (m_port || m_state == State::Closed) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    m_port = port;
    m_key = key;
    if (m_socket.Valid() && !WatchSocket()) {
        m_port.reset();
        return Fail(ERROR_NOT_ENOUGH_MEMORY) != FALSE;
    }
    return true;
}

BOOL Pipe::Connect(OVERLAPPED* overlapped) {
    if (overlapped == nullptr || !m_listener) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    {
        const std::lock_guard guard(m_mutex);
        if (m_state != State::Idle || !m_port) {
            return Fail(m_state == State::Listening ? ERROR_PIPE_LISTENING : ERROR_INVALID_PARAMETER);
        }
        m_connect = {};
        m_connect.overlapped = overlapped;
        if (!Begin(m_connect)) {
            return FALSE;
        }
        m_state = State::Listening;
    }
    if (const DWORD error = m_listener->AddWaiting(shared_from_this()); error != ERROR_SUCCESS) {
        const std::lock_guard guard(m_mutex);
        m_state = State::Idle;
        m_port->Unreserve();
        return Fail(error);
    }
    return Fail(ERROR_IO_PENDING);
}

bool Pipe::Accept(UniqueFd& socket) {
    const std::lock_guard guard(m_mutex);
    if (m_state != State::Listening) {
        return false;
    }
    m_socket = std::move(socket);
    WidenSendBuffer(m_socket);
    m_state = State::Connected;
    m_readable = m_hungUp = m_watchesSpace = false;
    m_writable = true;
    if (WatchSocket()) {
        Finish(m_connect, ERROR_SUCCESS, 0);
    } else { // it would never be served
        m_socket.Reset();
        m_state = State::Idle;
        Finish(m_connect, ERROR_NOT_ENOUGH_MEMORY, 0);
    }
    return true;
}

void Pipe::RefuseAccept(DWORD error) {
    const std::lock_guard guard(m_mutex);
    if (m_state == State::Listening) {
        m_state = State::Idle;
        Finish(m_connect, error, 0);
    }
}

BOOL Pipe::Read(void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) {
    if (overlapped == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const std::lock_guard guard(m_mutex);
    Operation operation;
    operation.overlapped = overlapped;
    operation.buffer = static_cast<char*>(buffer);
    operation.count = count;
    if (CannotTransfer() != FALSE || !MakeRoom(m_reads) || !Begin(operation)) {
        return FALSE;
    }
    m_reads.PushBack(std::move(operation));
    if (m_port && m_ahead.Empty()) {
        if (m_readable && !m_dirty) {
            m_dirty = true;
            m_port->MarkDirty(shared_from_this(), 0);
        }
    } else {
        FillReads();
    }
    return Outcome(overlapped, transferred);
}

BOOL Pipe::Write(const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) {
    if (overlapped == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    std::unique_lock guard(m_mutex);
    Operation operation;
    operation.overlapped = overlapped;
    operation.buffer = const_cast<char*>(static_cast<const char*>(buffer)); // only read from
    operation.count = count;
    if (CannotTransfer() != FALSE) {
        return FALSE;
    }
    if (m_hungUp && !m_port) {
        // At once: who hears that a write is pending takes it for sent in part. On a port its completion tells.
        return Fail(ERROR_BROKEN_PIPE);
    }
    if (!MakeRoom(m_writes) || !Begin(operation)) {
        return FALSE;
    }
    if (m_port) {
        m_writes.PushBack(std::move(operation));
        if (!m_dirty) {
            m_dirty = true;
            m_port->MarkDirty(shared_from_this(), count);
        } else {
            m_port->AddDirtyBytes(count);
        }
    } else if (!SendAtOnce(operation, guard)) {
        m_writes.PushBack(std::move(operation));
        FlushWrites();
    }
    return Outcome(overlapped, transferred);
}

BOOL Pipe::Disconnect() {
    if (!m_listener) {
        return Fail(ERROR_INVALID_PARAMETER); // only the server's end disconnects
    }
    std::unique_lock guard(m_mutex);
    AwaitSent(guard);
    if (m_state == State::Listening) {
        return Fail(ERROR_PIPE_LISTENING);
    }
    if (m_state != State::Connected && m_state != State::Broken) {
        return Fail(ERROR_PIPE_NOT_CONNECTED);
    }
    FinishAll(m_reads, ERROR_PIPE_NOT_CONNECTED);
    FinishAll(m_writes, ERROR_PIPE_NOT_CONNECTED);
    UnwatchSocket();
    m_socket.Reset();
    while (!m_ahead.Empty()) {
        std::array<char, 512> dropped;
        m_ahead.Take(dropped.data(), dropped.size());
    }
    m_state = State::Idle;
    return TRUE;
}

void Pipe::OnClose() {
    if (m_listener) {
        m_listener->RemoveWaiting(this);
    }
    std::unique_lock guard(m_mutex);
    AwaitSent(guard);
    if (m_state == State::Listening) {
        Finish(m_connect, ERROR_HANDLES_CLOSED, 0);
    }
    FinishAll(m_reads, ERROR_PIPE_NOT_CONNECTED);
    FinishAll(m_writes, ERROR_PIPE_NOT_CONNECTED);
    UnwatchSocket();
    m_state = State::Closed;
    m_socket.Reset();
    m_port.reset();
}

std::shared_ptr<CompletionPort> Pipe::Port() {
    const std::lock_guard guard(m_mutex);
    return m_port;
}

// ---- Being served --------------------------------------------------------------------------------------------------

bool Pipe::WatchSocket() {
    m_watchId = m_port->Watch(m_socket.Get(), EPOLLIN | EPOLLRDHUP | EPOLLET, shared_from_this());
    return m_watchId != 0;
}

void Pipe::UnwatchSocket() {
    if (m_port && m_watchId != 0) {
        m_port->Unwatch(m_socket.Get(), m_watchId);
        m_watchId = 0;
    }
}

void Pipe::OnEvents(std::uint32_t events) {
    const std::lock_guard guard(m_mutex);
    m_readable = true;
    m_hungUp = m_hungUp || (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0;
    m_writable = m_writable || (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0;
    FlushWrites();
    FillReads();
}

void Pipe::Service() {
    const std::lock_guard guard(m_mutex);
    m_dirty = false;
    FlushWrites();
    FillReads();
}

void Pipe::Progress(short revents) {
    const std::lock_guard guard(m_mutex);
    if (BlocksOnlyInWaits()) {
        DeferWorkWakeUps();
    }
    m_readable = m_readable || (revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    m_writable = m_writable || (revents & (POLLOUT | POLLHUP | POLLERR)) != 0;
    FlushWrites();
    FillReads();
}

int Pipe::PollDescriptor(short& events) {
    const std::lock_guard guard(m_mutex);
    events = 0;
    if (m_state == State::Connected) {
        events = static_cast<short>((m_reads.Empty() ? 0 : POLLIN) | (m_writes.Empty() ? 0 : POLLOUT));
    }
    return events == 0 ? -1 : m_socket.Get();
}

void Pipe::Break(DWORD error) {
    m_state = State::Broken;
    FinishAll(m_reads, error);
    FinishAll(m_writes, error);
}

// ---- Reading -------------------------------------------------------------------------------------------------------

void Pipe::FillReads() {
    while (m_state == State::Connected && !m_reads.Empty()) {
        if (!m_ahead.Empty()) {
            const Operation operation = m_reads.PopFront();
            Finish(operation, ERROR_SUCCESS, m_ahead.Take(operation.buffer, operation.count));
        } else if (!m_readable || !ReceiveInto(m_reads.Front())) {
            return;
        }
    }
}

// One read of the socket, into the operation's own buffer and, where that is small, the read-ahead behind it. False
// when nothing came.
bool Pipe::ReceiveInto(Operation& operation) {
    WakeForDeferredWork();
    char* const ahead = operation.count < ReadAhead::kBytes ? m_ahead.Borrow() : nullptr;
    std::array<iovec, 2> room{{{operation.buffer, operation.count}, {ahead, ReadAhead::kBytes}}};
    const std::size_t wanted = operation.count + (ahead == nullptr ? 0 : ReadAhead::kBytes);
    const ssize_t got = readv(m_socket.Get(), room.data(), ahead == nullptr ? 1 : 2);
    const auto bytes = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    m_ahead.Filled(bytes > operation.count ? bytes - operation.count : 0);
    if (got > 0) {
        // Less than there was room for: the socket is empty, until it says otherwise.
        m_readable = bytes == wanted || m_hungUp;
        const Operation finished = m_reads.PopFront();
        Finish(finished, ERROR_SUCCESS, std::min(bytes, finished.count));
        return true;
    }
    if (got < 0 && errno == EINTR) {
        return true;
    }
    if (got < 0 && errno == EAGAIN) {
        m_readable = false;
        return false;
    }
    Break(ERROR_BROKEN_PIPE);
    return false;
}

// ---- Writing -------------------------------------------------------------------------------------------------------

// Without the mutex: the write may wake a process that runs in this one's place for a while, and a thread that comes to
// read meanwhile should not have to wait for that. False when others are before it.
bool Pipe::SendAtOnce(Operation& operation, std::unique_lock<std::mutex>& guard) {
    if (m_sending || !m_writable || !m_writes.Empty()) {
        return false;
    }
    m_sending = true;
    const int socket = m_socket.Get();
    guard.unlock();
    const ssize_t sent = send(socket, operation.buffer, operation.count, MSG_NOSIGNAL | MSG_DONTWAIT);
    guard.lock();
    m_sending = false;
    m_sent.notify_all();
    if (m_state != State::Connected) {
        Finish(operation, ERROR_BROKEN_PIPE, 0);
        return true;
    }
    operation.done = static_cast<std::size_t>(std::max<ssize_t>(sent, 0)); // an error comes again with the next attempt
    if (operation.done == operation.count) {
        FlushWrites(); // those that have come meanwhile
        Finish(operation, ERROR_SUCCESS, operation.count);
        return true;
    }
    m_writes.PushFront(std::move(operation));
    FlushWrites();
    return true;
}

// The socket stays open while somebody writes to it.
void Pipe::AwaitSent(std::unique_lock<std::mutex>& guard) {
    m_sent.wait(guard, [this] { return !m_sending; });
}

void Pipe::FlushWrites() {
    while (m_state == State::Connected && m_writable && !m_sending && !m_writes.Empty()) {
        if (!SendSome()) {
            break;
        }
    }
    if (m_port && m_state == State::Connected) {
        WatchForSpace(!m_writes.Empty());
    }
}

// One write of the socket with as much as goes into it. False when the socket takes no more for now, or ever.
bool Pipe::SendSome() {
    constexpr std::size_t kPieces = 256;
    std::array<iovec, kPieces> pieces;
    std::size_t count = 0;
    std::size_t wanted = 0;
    for (; count < std::min(kPieces, m_writes.Size()); ++count) {
        const Operation& write = m_writes[count];
        pieces[count] = {write.buffer + write.done, write.count - write.done};
        wanted += write.count - write.done;
    }
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = count;
    const ssize_t sent = sendmsg(m_socket.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
        TakeSent(static_cast<std::size_t>(sent));
        m_writable = static_cast<std::size_t>(sent) == wanted;
        return m_writable;
    }
    if (errno == EINTR) {
        return true;
    }
    m_writable = false;
    if (errno != EAGAIN && errno != ENOBUFS) {
        // Bytes that came before the other end went can still be read; the writes have failed for good.
        FinishAll(m_writes, ERROR_BROKEN_PIPE);
        m_hungUp = m_readable = true;
    }
    return false;
}

void Pipe::TakeSent(std::size_t bytes) {
    while (!m_writes.Empty()) {
        Operation& write = m_writes.Front();
        const std::size_t part = std::min(bytes, write.count - write.done);
        write.done += part;
        bytes -= part;
        if (write.done < write.count) {
            return;
        }
        const Operation finished = m_writes.PopFront();
        Finish(finished, ERROR_SUCCESS, finished.count);
    }
}

// Space is watched for only while something waits for it: every read of the other end makes space, and would
// otherwise wake the port each time.
void Pipe::WatchForSpace(bool wanted) {
    if (wanted == m_watchesSpace || m_watchId == 0) {
        return;
    }
    m_watchesSpace = wanted;
    if (!m_port->Rewatch(m_socket.Get(), EPOLLIN | EPOLLRDHUP | EPOLLET | (wanted ? EPOLLOUT : 0u), m_watchId)) {
        Break(ERROR_BROKEN_PIPE); // the writes would wait for ever
    }
}

// ---- Calls by handle -----------------------------------------------------------------------------------------------

BOOL ConnectNamedPipe(HANDLE handle, OVERLAPPED* overlapped) {
    const auto pipe = Find<Pipe>(handle);
    return pipe ? pipe->Connect(overlapped) : FALSE;
}

BOOL DisconnectNamedPipe(HANDLE handle) {
    const auto pipe = Find<Pipe>(handle);
    return pipe ? pipe->Disconnect() : FALSE;
}

BOOL GetOverlappedResult(HANDLE /*file*/, OVERLAPPED* overlapped, DWORD* transferred, BOOL wait) {
    if (StatusOf(overlapped) == kPending) {
        if (wait == FALSE) {
            return Fail(ERROR_IO_INCOMPLETE);
        }
        if (WaitForSingleObject(overlapped->hEvent, INFINITE) != WAIT_OBJECT_0) {
            return FALSE;
        }
    }
    const ULONG_PTR status = StatusOf(overlapped);
    *transferred = static_cast<DWORD>(overlapped->InternalHigh);
    return status == ERROR_SUCCESS ? TRUE : Fail(static_cast<DWORD>(status));
}

BOOL SetNamedPipeHandleState(HANDLE handle, DWORD* mode, DWORD* maxCollectionCount, DWORD* collectDataTimeout) {
    constexpr DWORD kByteModeBlocking = PIPE_READMODE_BYTE | PIPE_WAIT;
    if (!Find<Pipe>(handle)) {
        return FALSE;
    }
    if (maxCollectionCount != nullptr || collectDataTimeout != nullptr ||
        (mode != nullptr && *mode != kByteModeBlocking)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    return TRUE; // byte mode is the only one there is
}

} // namespace Vantor::Sentrix::Platform
