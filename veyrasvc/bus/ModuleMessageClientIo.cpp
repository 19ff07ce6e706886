// The connection to the router, and the dispatch of what comes over it. Which thread does it:
// ModuleMessageClientLead.cpp.
#include "veyrasvc/bus/ModuleMessageClient.h"

#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/Succeeds.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

namespace Vantor::Sentrix {

namespace {

// A wait for a busy pipe cannot be interrupted, so it is made of slices between which a stop is noticed.
constexpr DWORD kPipeWaitSliceMs = 50;

// Bytes of one write, and of one read into a long frame, at most.
constexpr std::size_t kTransferBytes = 256 * 1024;
// A frame up to this length may be written by its sender. A longer one would keep the sender busy with many writes,
// which can be joined.
constexpr std::size_t kDirectFrameBytes = 32 * 1024;
// A frame up to this length is joined with others that wait to be written: copying it is cheaper than a write of its
// own.
constexpr std::size_t kJoinedFrameBytes = 8 * 1024;
// Joined frames of that many bytes are worth a write; more of them would not make it cheaper.
constexpr std::size_t kFullBytes = 32 * 1024;
// Room for joined frames.
constexpr std::size_t kJoinedBytes = 64 * 1024;
// Of what callbacks send, no more than that waits for others to end.
constexpr std::size_t kHeldBackBytes = 2 * 1024;
// Reads and writes in a row before the other direction has its turn.
constexpr int kTransfersPerTurn = 8;

} // namespace

// ---- The connection ------------------------------------------------------------------------------------------------

bool BaseMessageClient::AwaitPipe(DWORD timeoutMs) const {
    for (DWORD waited = 0; waited < timeoutMs && m_stop == 0; waited += kPipeWaitSliceMs) {
        if (WaitNamedPipeW(kBusPipeName, kPipeWaitSliceMs) != FALSE) {
            return true;
        }
        if (GetLastError() != ERROR_SEM_TIMEOUT) {
            return false; // no such pipe: nobody serves
        }
    }
    return false;
}

bool BaseMessageClient::Open(HANDLE& pipe) {
    pipe = CreateFileW(kBusPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_FLAG_WRITE_THROUGH | FILE_FLAG_OVERLAPPED | FILE_ATTRIBUTE_NORMAL, nullptr);
    if (pipe == INVALID_HANDLE_VALUE) {
        LOG_ERROR("CBaseMessageClient connect CreateFile failed. error=" << GetLastError());
        return false;
    }
    DWORD mode = PIPE_READMODE_BYTE | PIPE_WAIT;
    SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
    return true;
}

// Modules that are registered meanwhile wait for the lock, and are then registered on this connection.
bool BaseMessageClient::Connect(DWORD timeoutMs) {
    return Succeeds([&] {
        if (!AwaitPipe(timeoutMs)) {
            return false;
        }
        const AutoLock registering(&m_registrationLock);
        const BasePacket registration = MakeRegistration();
        Outgoing first;
        Put(registration.ToFrame(), first);
        HANDLE pipe = INVALID_HANDLE_VALUE;
        if (!Open(pipe)) {
            return false;
        }
        Attach(pipe, std::move(first));
        return true;
    });
}

void BaseMessageClient::Attach(HANDLE pipe, Outgoing registration) {
    m_readPipe = pipe;
    m_reading = false;
    m_registrationDue = false;
    m_recvData.Clear();
    const AutoLock lock(&m_sendQueue);
    m_pipe = pipe;
    m_writing = false;
    m_mustWrite = true;
    registration.connection = ++m_connection;
    m_sendNext = std::exchange(m_sendRest, std::move(registration));
}

// No flush and no disconnect before the close: both would wait for a server that may read no more, and what was
// written stays readable for it.
void BaseMessageClient::Disconnect() {
    if (!m_connected) {
        return;
    }
    m_connected = false;
    m_broken = false;
    bool writing = false;
    {
        const AutoLock lock(&m_sendQueue);
        while (m_handingOver) {
            const AutoUnlock others(m_sendQueue); // a sender is in the middle of a write, which does not wait
            Sleep(0);
        }
        CloseHandle(m_pipe);
        m_pipe = INVALID_HANDLE_VALUE;
        writing = m_writing;
        m_writing = false;
        m_writeLength = 0;
    }
    ReleaseWaits(); // after the close: whatever the old connection was given belongs to a wait that is on the list
    // Closing ends what is outstanding; until then the buffers are the system's.
    DWORD bytes = 0;
    if (m_reading) {
        GetOverlappedResult(INVALID_HANDLE_VALUE, &m_readOverlapped, &bytes, TRUE);
        m_reading = false;
    }
    const AutoLock lock(&m_sendQueue);
    if (writing) {
        GetOverlappedResult(INVALID_HANDLE_VALUE, &m_writeOverlapped, &bytes, TRUE);
    }
    // What was begun is lost: a long frame, or short ones that left in one write. What was not begun goes first when
    // there is a pipe again, behind that pipe's registration.
    if (std::exchange(m_sendRestOffset, 0) > 0 || m_sendRest.connection != 0) {
        m_sendRest = {};
    }
    if (m_sendRest.Bytes().empty()) {
        m_sendRest = std::exchange(m_sendNext, {});
    }
    m_recvData.Clear();
}

// One turn: read and write what goes, then wait for more. False when the connection is broken, or has to be ended
// because there is no memory for what is coming.
bool BaseMessageClient::MovePipe() noexcept {
    return Succeeds([this] { return TakeTurn(); });
}

bool BaseMessageClient::TakeTurn() {
    if (m_registrationDue.exchange(false)) {
        UpdatePidMid();
    }
    bool drained = false;
    if (!ReadWhatIsThere() || !PumpWrite(drained)) {
        return false;
    }
    const bool moreToMove = !m_reading || !drained;
    return moreToMove || AwaitWork();
}

bool BaseMessageClient::AwaitWork() {
    // The write event is waited for only while a write is outstanding: a sender that writes by itself sets it as well.
    const HANDLE events[] = {m_readEvent, m_exitEvent, m_sendEvent, m_writeEvent};
    switch (WaitForMultipleObjects(m_writing ? 4 : 3, events, FALSE, INFINITE)) {
    case WAIT_OBJECT_0:
        return OnReadComplete();
    case WAIT_OBJECT_0 + 3:
        return OnWriteComplete();
    case WAIT_FAILED:
        return false;
    default: // stop, or a frame to send: the next turn sees to it
        return true;
    }
}

// ---- Reading -------------------------------------------------------------------------------------------------------

bool BaseMessageClient::ReadWhatIsThere() {
    for (int i = 0; i < kTransfersPerTurn && m_stop == 0; ++i) {
        bool completed = false;
        if (!StartRead(completed)) {
            return false;
        }
        if (!completed) {
            return true;
        }
        if (!OnReadComplete()) {
            return false;
        }
    }
    return true;
}

bool BaseMessageClient::StartRead(bool& completed) {
    if (m_reading) {
        return true;
    }
    std::span<char> room = m_recvData.Room(sizeof m_readBuffer);
    m_readsOn = !room.empty();
    if (!m_readsOn) {
        room = m_readBuffer;
    }
    m_readOverlapped = {};
    m_readOverlapped.hEvent = m_readEvent;
    const auto length = static_cast<DWORD>(std::min(room.size(), kTransferBytes));
    completed = ReadFile(m_readPipe, room.data(), length, nullptr, &m_readOverlapped) != FALSE;
    m_reading = completed || GetLastError() == ERROR_IO_PENDING;
    return m_reading;
}

bool BaseMessageClient::OnReadComplete() {
    ResetEvent(m_readEvent);
    m_reading = false;
    DWORD bytes = 0;
    if (GetOverlappedResult(INVALID_HANDLE_VALUE, &m_readOverlapped, &bytes, TRUE) == FALSE && bytes == 0) {
        return GetLastError() == ERROR_OPERATION_ABORTED; // a thread that served before has ended, and it with it
    }
    ExtractFrames(bytes);
    return RunCallbacks();
}

// Bytes that are out of step are dropped and the connection stays.
void BaseMessageClient::ExtractFrames(std::size_t length) {
    const auto deliver = [this](const SharedBytes& frame) { Deliver(frame); };
    const CallbackBatch::Collecting collecting(*m_batch);
    if (m_readsOn) {
        m_recvData.Filled(length, deliver);
    } else {
        m_recvData.Feed({nullptr, {m_readBuffer, length}}, deliver);
    }
}

void BaseMessageClient::Deliver(const SharedBytes& frame) {
    // Every publication goes to every process, but not all of them care.
    if (m_publishReceivers == 0 && m_waits == 0 && ReadHeader(frame.bytes).msgType == MessageType::kPublished) {
        return;
    }
    const auto packet = std::make_shared_for_overwrite<BasePacket>();
    packet->DeserializeFrame(frame);
    DispatchRecvPackage(packet);
}

// ---- Writing -------------------------------------------------------------------------------------------------------

bool BaseMessageClient::NothingToWrite() const {
    return m_sendRest.Bytes().empty() && m_sendQueue.m_items.empty() && m_sendNext.Bytes().empty();
}

bool BaseMessageClient::MayWriteAtOnce(std::size_t length) const {
    // What is being written stands in m_sendRest.
    return m_pipe != INVALID_HANDLE_VALUE && NothingToWrite() && length <= kDirectFrameBytes;
}

// Many frames in close succession cost less when who serves the connection writes them together than when each is
// written by itself. The first few still go at once, and one pause does not end a long rush.
bool BaseMessageClient::InRush() {
    constexpr std::chrono::microseconds kClose{30};
    constexpr int kFew = 8;
    constexpr int kLong = 64;
    const auto now = std::chrono::steady_clock::now();
    m_inRush = now - m_lastQueued < kClose ? std::min(m_inRush + 1, kLong) : m_inRush / 2;
    m_lastQueued = now;
    return m_inRush > kFew;
}

void BaseMessageClient::QueueBytes(SharedBytes frame) {
    const AutoLock lock(&m_sendQueue);
    if (!IsStopped()) { // else it would be discarded with the rest of the queue
        QueueFor(0, std::move(frame));
    }
}

// `connection`: see Outgoing.
void BaseMessageClient::QueueFor(std::uint32_t connection, SharedBytes frame) {
    if (const CallbackBatch* const batch = CallbackBatch::RunHere(); batch != nullptr && batch->MoreFollow()) {
        Enqueue(connection, std::move(frame));
        m_heldBack = m_mustWrite = true;
        WriteFrom(kHeldBackBytes);
        if (!batch->MoreFollow()) {
            CallWriter(); // who has taken over meanwhile may have looked already
        }
        return;
    }
    if (m_heldBack) {
        Enqueue(connection, std::move(frame));
        WriteQueued();
        return;
    }
    if (MayWriteAtOnce(frame.bytes.size()) && !InRush()) {
        Put(std::move(frame), m_sendRest);
        m_sendRest.connection = connection;
        WriteQueued();
        return;
    }
    const bool wasIdle = NothingToWrite();
    Enqueue(connection, std::move(frame));
    if (wasIdle) {
        CallWriter();
    } else {
        WriteFrom(kFullBytes); // who serves the connection has not come to it yet
    }
}

// Writes if that many bytes have been joined, and nobody is writing.
void BaseMessageClient::WriteFrom(std::size_t bytes) {
    const bool canWrite = m_pipe != INVALID_HANDLE_VALUE && !m_writing && !m_handingOver;
    if (canWrite && m_sendQueue.m_items.front().joined.size() >= bytes) {
        WriteQueued();
    }
}

// On the sender's thread, as far as the pipe takes it; but not all that others queue meanwhile.
void BaseMessageClient::WriteQueued() {
    constexpr int kAtMost = 4;
    m_heldBack = false;
    bool written = m_pipe != INVALID_HANDLE_VALUE;
    for (int i = 0; i < kAtMost && written && WriteChunk(written); ++i) {
    }
    if (!NothingToWrite()) {
        CallWriter();
    }
}

// Who serves the connection does not know yet that there is something to write.
void BaseMessageClient::CallWriter() {
    m_mustWrite = true;
    SetEvent(m_sendEvent);
}

// What callbacks have sent while others were to follow.
void BaseMessageClient::WriteHeldBack() {
    const AutoLock lock(&m_sendQueue);
    if (m_heldBack) {
        WriteQueued();
    }
}

void BaseMessageClient::Put(SharedBytes frame, Outgoing& outgoing) {
    if (frame.storage) {
        outgoing.frame = std::move(frame);
    } else {
        outgoing.joined = frame.bytes;
    }
}

void BaseMessageClient::Enqueue(std::uint32_t connection, SharedBytes frame) {
    auto& waiting = m_sendQueue.m_items;
    const std::size_t length = frame.bytes.size();
    if (length > kJoinedFrameBytes || connection != 0) {
        Outgoing alone;
        alone.connection = connection;
        Put(std::move(frame), alone);
        waiting.push(std::move(alone));
        return;
    }
    // Never more than one write takes: see Disconnect.
    const auto takesMore = [length](const Outgoing& last) {
        return !last.frame.storage && last.connection == 0 && last.joined.size() + length <= kJoinedBytes;
    };
    if (waiting.empty() || !takesMore(waiting.back())) {
        Outgoing next;
        if (!m_spareJoined.empty()) {
            next.joined = std::move(m_spareJoined.back());
            m_spareJoined.pop_back();
        }
        next.joined.reserve(kJoinedBytes);
        next.joined += frame.bytes;
        waiting.push(std::move(next));
    } else {
        waiting.back().joined += frame.bytes;
    }
}

// The next piece of work for the pipe, if there is one. What was for an earlier connection is dropped.
void BaseMessageClient::TakeNext() {
    if (m_sendRest.Bytes().empty() && !m_sendNext.Bytes().empty()) {
        m_sendRest = std::exchange(m_sendNext, {});
    }
    while (m_sendRest.Bytes().empty() && !m_sendQueue.m_items.empty()) {
        Outgoing& first = m_sendQueue.m_items.front();
        if (first.connection == 0 || first.connection == m_connection) {
            m_sendRest = std::move(first);
        }
        m_sendQueue.m_items.pop();
    }
}

// The queue is free meanwhile, so that no other sender waits for the pipe.
DWORD BaseMessageClient::HandOver(HANDLE pipe, std::string_view bytes, OVERLAPPED& overlapped) {
    const AutoUnlock others(m_sendQueue);
    overlapped = {};
    overlapped.hEvent = m_writeEvent;
    const auto length = static_cast<DWORD>(bytes.size());
    return WriteFile(pipe, bytes.data(), length, nullptr, &overlapped) != FALSE ? ERROR_SUCCESS : GetLastError();
}

// Writes the next piece. `written`: it is done and another may follow. False when the pipe is broken.
bool BaseMessageClient::WriteChunk(bool& written) {
    written = false;
    if (m_writing || m_handingOver) {
        return true;
    }
    TakeNext();
    if (m_sendRest.Bytes().empty()) {
        return true;
    }
    const std::string_view rest = m_sendRest.Bytes().substr(m_sendRestOffset, kTransferBytes);
    m_handingOver = true;
    const DWORD result = HandOver(m_pipe, rest, m_writeOverlapped);
    m_handingOver = false;
    written = result == ERROR_SUCCESS;
    if (!written && result != ERROR_IO_PENDING) {
        return false;
    }
    m_writing = !written;
    m_writeLength = static_cast<DWORD>(rest.size());
    m_sendRestOffset += rest.size();
    if (written) {
        EndWritten();
    }
    return true;
}

void BaseMessageClient::EndWritten() {
    if (m_sendRestOffset == m_sendRest.Bytes().size()) {
        m_sendRest.frame = {};
        m_sendRest.joined.clear();
        m_sendRest.connection = 0;
        if (m_sendRest.joined.capacity() >= kJoinedBytes && m_spareJoined.size() < kSpareJoined) {
            m_spareJoined.push_back(std::move(m_sendRest.joined)); // for the next rush
        }
        m_sendRestOffset = 0;
    }
}

// A sender that writes by itself at the moment is not waited for: it calls if anything is left.
bool BaseMessageClient::PumpWrite(bool& drained) {
    drained = !m_mustWrite;
    if (drained) {
        return true;
    }
    std::this_thread::yield(); // a sender that is ready to run adds to what is written together
    for (int i = 0; i < kTransfersPerTurn; ++i) {
        const AutoLock lock(&m_sendQueue); // per piece, so that senders are never kept waiting
        bool written = false;
        if (!WriteChunk(written)) {
            return false;
        }
        if (!written) {
            drained = true; // or the pipe takes no more for now
            m_mustWrite = m_writing.load();
            return true;
        }
    }
    return true;
}

bool BaseMessageClient::OnWriteComplete() {
    const AutoLock lock(&m_sendQueue);
    ResetEvent(m_writeEvent);
    m_writing = false;
    DWORD bytes = 0;
    if (GetOverlappedResult(INVALID_HANDLE_VALUE, &m_writeOverlapped, &bytes, TRUE) == FALSE &&
        bytes != m_writeLength) {
        if (bytes != 0 || GetLastError() != ERROR_OPERATION_ABORTED) {
            return false;
        }
        // The system takes back what a thread has outstanding when it ends, as a sender may: the piece goes again.
        m_sendRestOffset -= m_writeLength;
    }
    m_writeLength = 0;
    EndWritten();
    return true;
}

} // namespace Vantor::Sentrix
