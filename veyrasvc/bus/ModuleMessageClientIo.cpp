// The engine's two threads: the connection to the router, and the dispatch of what is not routed at once.
#include "veyrasvc/bus/ModuleMessageClient.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <string_view>

namespace Vantor::Sentrix {

namespace {

constexpr DWORD kConnectTimeoutMs = 1000;
constexpr DWORD kReconnectIntervalMs = 1000;
// A wait for a busy pipe cannot be interrupted, so it is made of slices between which a stop is noticed.
constexpr DWORD kPipeWaitSliceMs = 50;
constexpr DWORD kDispatchIntervalMs = 30000;

// A frame up to this length may be written by its sender. A longer one would keep the sender busy with many writes,
// which the I/O thread can join.
constexpr std::size_t kDirectFrameBytes = 32 * 1024;
// A frame up to this length is decoded by the I/O thread itself: copying it is cheaper than waking another thread.
constexpr std::size_t kInlineFrameBytes = 64 * 1024;
// Reads and writes in a row before the other direction has its turn.
constexpr int kTransfersPerTurn = 64;

} // namespace

// ---- The connection ------------------------------------------------------------------------------------------------

DWORD BaseMessageClient::WorkerProc(void* engine) {
    LOG_DEBUG("ModuleMessageClient WorkerProc Thread Id:" << GetCurrentThreadId());
    static_cast<BaseMessageClient*>(engine)->RunConnection();
    return 0;
}

void BaseMessageClient::RunConnection() {
    while (m_stop == 0) {
        if (!m_connected) {
            m_connected = Connect(kConnectTimeoutMs);
            if (!m_connected && StopsWithin(kReconnectIntervalMs)) {
                break;
            }
        } else if (!MovePipe()) {
            Disconnect();
        }
    }
    Disconnect();
}

bool BaseMessageClient::StopsWithin(DWORD milliseconds) const {
    return WaitForSingleObject(m_exitEvent, milliseconds) == WAIT_OBJECT_0;
}

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

bool BaseMessageClient::Connect(DWORD timeoutMs) {
    if (!AwaitPipe(timeoutMs)) {
        return false;
    }
    const HANDLE pipe = CreateFileW(kBusPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_WRITE_THROUGH | FILE_FLAG_OVERLAPPED | FILE_ATTRIBUTE_NORMAL, nullptr);
    if (pipe == INVALID_HANDLE_VALUE) {
        LOG_ERROR("CBaseMessageClient connect CreateFile failed. error=" << GetLastError());
        return false;
    }
    DWORD mode = PIPE_READMODE_BYTE | PIPE_WAIT;
    SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
    m_reading = false;
    m_recvData.Clear();
    {
        const AutoLock lock(&m_sendQueue);
        m_pipe = pipe;
        m_writing = false;
    }
    UpdatePidMid();
    return true;
}

// No flush and no disconnect before the close: both would wait for a server that may read no more, and what was
// written stays readable for it.
void BaseMessageClient::Disconnect() {
    if (!m_connected) {
        return;
    }
    m_connected = false;
    bool writing = false;
    {
        const AutoLock lock(&m_sendQueue);
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
    // A frame that was begun is lost; one that was not goes first when there is a pipe again.
    if (m_sendRestOffset > 0) {
        m_sendRest.clear();
        m_sendRestOffset = 0;
    }
    m_recvData.Clear();
}

// One turn: read and write what goes, then wait for more. False when the connection is broken.
bool BaseMessageClient::MovePipe() {
    bool drained = false;
    if (!ReadWhatIsThere() || !PumpWrite(drained)) {
        return false;
    }
    const bool moreToMove = !m_reading || !drained;
    return moreToMove || AwaitWork();
}

bool BaseMessageClient::AwaitWork() {
    bool writing = false;
    {
        const AutoLock lock(&m_sendQueue);
        writing = m_writing;
    }
    // The write event is waited for only while a write is outstanding: a sender that writes by itself sets it as well.
    const HANDLE events[] = {m_readEvent, m_exitEvent, m_sendEvent, m_writeEvent};
    switch (WaitForMultipleObjects(writing ? 4 : 3, events, FALSE, INFINITE)) {
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
    HANDLE pipe = INVALID_HANDLE_VALUE;
    {
        const AutoLock lock(&m_sendQueue);
        pipe = m_pipe;
    }
    m_readOverlapped = {};
    m_readOverlapped.hEvent = m_readEvent;
    completed = ReadFile(pipe, m_readBuffer, sizeof m_readBuffer, nullptr, &m_readOverlapped) != FALSE;
    m_reading = completed || GetLastError() == ERROR_IO_PENDING;
    return m_reading;
}

bool BaseMessageClient::OnReadComplete() {
    ResetEvent(m_readEvent);
    m_reading = false;
    DWORD bytes = 0;
    if (GetOverlappedResult(INVALID_HANDLE_VALUE, &m_readOverlapped, &bytes, TRUE) == FALSE && bytes == 0) {
        return false;
    }
    return ExtractFrames(m_readBuffer, bytes);
}

// Bytes that are out of step are dropped and the connection stays. False: no memory for what is coming.
bool BaseMessageClient::ExtractFrames(const char* bytes, std::size_t length) {
    try {
        m_recvData.Feed({bytes, length}, [this](const FrameCutter::Frame& frame) { Deliver(frame); });
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void BaseMessageClient::Deliver(const FrameCutter::Frame& frame) {
    if (m_undispatched == 0 && frame.bytes.size() <= kInlineFrameBytes) {
        DecodeAndRoute(frame.bytes);
        return;
    }
    ++m_undispatched;
    {
        const AutoLock lock(&m_recvQueue);
        if (frame.storage != nullptr) {
            m_recvQueue.m_items.push(std::move(*frame.storage));
        } else {
            m_recvQueue.m_items.emplace(frame.bytes);
        }
    }
    SetEvent(m_recvEvent);
}

void BaseMessageClient::DecodeAndRoute(std::string_view frame) {
    const auto packet = std::make_shared<BasePacket>();
    packet->DeserializeFrom(frame.data() + FrameHeader::kSize, frame.size() - FrameHeader::kSize);
    DispatchRecvPackage(packet);
}

// ---- Writing -------------------------------------------------------------------------------------------------------

bool BaseMessageClient::MayWriteAtOnce(std::size_t length) const {
    return m_pipe != INVALID_HANDLE_VALUE && !m_writing && m_sendRest.empty() && m_sendQueue.m_items.empty() &&
           length <= kDirectFrameBytes;
}

// Many frames in close succession cost less when the I/O thread writes them together than when each is written by
// itself. The first few still go at once.
bool BaseMessageClient::InRush() {
    constexpr std::chrono::microseconds kClose{30};
    constexpr int kFew = 8;
    const auto now = std::chrono::steady_clock::now();
    m_inRush = now - m_lastQueued < kClose ? m_inRush + 1 : 0;
    m_lastQueued = now;
    return m_inRush > kFew;
}

void BaseMessageClient::QueueBytes(std::string frame) {
    const AutoLock lock(&m_sendQueue);
    if (IsStopped()) {
        return; // would be discarded with the rest of the queue
    }
    const bool atOnce = !InRush() && MayWriteAtOnce(frame.size());
    m_sendQueue.m_items.push(std::move(frame));
    bool written = atOnce;
    while (written && WriteChunk(written)) {
    }
    if (!atOnce || !m_sendRest.empty() || !m_sendQueue.m_items.empty()) {
        SetEvent(m_sendEvent);
    }
}

// Writes the next piece. `written`: it is done and another may follow. False when the pipe is broken.
bool BaseMessageClient::WriteChunk(bool& written) {
    written = false;
    if (m_writing) {
        return true;
    }
    if (m_sendRest.empty()) {
        if (m_sendQueue.m_items.empty()) {
            return true;
        }
        m_sendRest = std::move(m_sendQueue.m_items.front());
        m_sendQueue.m_items.pop();
    }
    const std::size_t length = std::min(m_sendRest.size() - m_sendRestOffset, kPipeIoBytes);
    m_writeOverlapped = {};
    m_writeOverlapped.hEvent = m_writeEvent;
    written = WriteFile(m_pipe, m_sendRest.data() + m_sendRestOffset, static_cast<DWORD>(length), nullptr,
                        &m_writeOverlapped) != FALSE;
    if (!written && GetLastError() != ERROR_IO_PENDING) {
        return false;
    }
    m_writing = !written;
    m_writeLength = static_cast<DWORD>(length);
    m_sendRestOffset += length;
    if (written && m_sendRestOffset == m_sendRest.size()) {
        m_sendRest.clear();
        m_sendRestOffset = 0;
    }
    return true;
}

bool BaseMessageClient::PumpWrite(bool& drained) {
    for (int i = 0; i < kTransfersPerTurn; ++i) {
        const AutoLock lock(&m_sendQueue); // per piece, so that senders are never kept waiting
        bool written = false;
        if (!WriteChunk(written)) {
            return false;
        }
        if (!written) {
            drained = true; // or the pipe takes no more for now
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
    if (m_sendRestOffset == m_sendRest.size()) {
        m_sendRest.clear();
        m_sendRestOffset = 0;
    }
    return true;
}

// ---- The dispatch thread -------------------------------------------------------------------------------------------

DWORD BaseMessageClient::NotifyProc(void* engine) {
    LOG_DEBUG("ModuleMessageClient NotifyProc Thread Id:" << GetCurrentThreadId());
    auto* self = static_cast<BaseMessageClient*>(engine);
    while (self->m_stop == 0) {
        WaitForSingleObject(self->m_recvEvent, kDispatchIntervalMs);
        self->DispatchReceived();
    }
    return 0;
}

void BaseMessageClient::DispatchReceived() {
    while (m_stop == 0) {
        std::string frame;
        {
            const AutoLock lock(&m_recvQueue);
            if (m_recvQueue.m_items.empty()) {
                return;
            }
            frame = std::move(m_recvQueue.m_items.front());
            m_recvQueue.m_items.pop();
        }
        try {
            DecodeAndRoute(frame);
        } catch (const std::bad_alloc&) {
            LOG_ERROR("no memory for a received message. bytes=" << frame.size());
        }
        --m_undispatched;
    }
}

} // namespace Vantor::Sentrix
