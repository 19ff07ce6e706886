#include "veyrasvc/bus/NamedPipeIOCP.h"

#include "veyrasvc/bus/SecurityAttribute.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/MemoryReport.h"
#include "veyrasvc/util/Storage.h"

#include <new>
#include <string_view>

namespace Vantor::Sentrix {

namespace {

constexpr DWORD kPipeDefaultTimeoutMs = 60000;
constexpr std::size_t kLargePackage = 0x100000; // worth a warning
// Bytes of one write that needs no copy.
constexpr std::size_t kSharedPieceBytes = 256 * 1024;

SharedBytes CopyOf(std::string_view bytes) {
    SharedBytes copy{AllocateStorage(bytes.size()), {}};
    bytes.copy(copy.storage.get(), bytes.size());
    copy.bytes = {copy.storage.get(), bytes.size()};
    return copy;
}

// On one processor nobody can send while the worker looks for it.
bool HasSeveralProcessors() {
    ULONG_PTR allowed = 0;
    ULONG_PTR all = 0;
    return GetProcessAffinityMask(GetCurrentProcess(), &allowed, &all) != FALSE && (allowed & (allowed - 1)) != 0;
}

} // namespace

IOCPServer::IOCPServer() : m_maySpin(HasSeveralProcessors()) {}

bool IOCPServer::OnNewConnection(IOCPContext* /*context*/) {
    return false;
}

void IOCPServer::OnConnectionClose(IOCPContext* /*context*/, IOCPBuffer* /*buffer*/, DWORD /*error*/) {}

void IOCPServer::OnRecvData(IOCPContext* /*context*/, IOCPBuffer* /*buffer*/) {}

void IOCPServer::OnBeforeRead(IOCPContext* /*context*/, IOCPBuffer* /*buffer*/) {}

// ---- Buffers and contexts ------------------------------------------------------------------------------------------

IOCPBuffer* IOCPServer::AllocateBuffer(std::size_t size) {
    if (size > kPipeIoBytes) {
        return nullptr;
    }
    IOCPBuffer* buffer = nullptr;
    {
        const AutoLock lock(&m_freeBuffers);
        if (!m_freeBuffers.m_items.empty()) {
            buffer = m_freeBuffers.m_items.front();
            m_freeBuffers.m_items.pop();
        }
    }
    if (buffer == nullptr) {
        const HANDLE heap = GetProcessHeap();
        void* const memory = heap == nullptr ? nullptr : HeapAlloc(heap, 0, sizeof(IOCPBuffer));
        buffer = memory == nullptr ? nullptr : new (memory) IOCPBuffer;
    }
    if (buffer != nullptr) {
        buffer->m_length = static_cast<DWORD>(size);
    }
    return buffer;
}

void IOCPServer::ReleaseBuffer(IOCPBuffer* buffer) {
    if (buffer == nullptr) {
        return;
    }
    buffer->m_overlapped = {};
    buffer->m_acceptPipe = nullptr;
    buffer->m_data = buffer->m_bytes;
    buffer->m_storage.reset();
    const AutoLock lock(&m_freeBuffers);
    if (m_freeBuffers.m_items.size() >= m_maxFreeBuffers) {
        FreeBuffer(buffer);
        FreeBuffers(m_maxFreeBuffers);
    } else {
        m_freeBuffers.m_items.push(buffer);
    }
}

void IOCPServer::FreeBuffer(IOCPBuffer* buffer) {
    buffer->~IOCPBuffer();
    HeapFree(GetProcessHeap(), 0, buffer);
}

void IOCPServer::FreeBuffers(std::size_t keep) {
    while (m_freeBuffers.m_items.size() > keep) {
        FreeBuffer(m_freeBuffers.m_items.front());
        m_freeBuffers.m_items.pop();
    }
}

IOCPContext* IOCPServer::AllocateContext(HANDLE pipe) {
    return new (std::nothrow) IOCPContext(pipe);
}

void IOCPServer::ClosePipe(IOCPContext* context) {
    const AutoLock lock(context);
    if (context->m_pipe != INVALID_HANDLE_VALUE) {
        DisconnectNamedPipe(context->m_pipe);
        CloseHandle(context->m_pipe);
        context->m_pipe = INVALID_HANDLE_VALUE;
        context->m_closed = 1;
    }
}

void IOCPServer::ReleaseContext(IOCPContext* context) {
    ClosePipe(context);
    delete context;
}

void IOCPServer::Remove(ContextMap& contexts, const IOCPContext* context) {
    const AutoLock lock(&contexts);
    contexts.m_items.erase(KeyOf(context));
}

bool IOCPServer::AssociateDeviceWithCompletionPort(HANDLE port, HANDLE device, ULONG_PTR key) {
    return CreateIoCompletionPort(device, port, key, 1) == port;
}

// ---- Accepting -----------------------------------------------------------------------------------------------------

bool IOCPServer::ListenOn(IOCPBuffer* buffer, IOCPContext*& context) {
    SecurityAttribute security;
    buffer->m_acceptPipe =
        CreateNamedPipeW(kBusPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_WRITE_THROUGH,
                         PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES, 0, 0,
                         kPipeDefaultTimeoutMs, security.EveryoneSecAttr());
    if (buffer->m_acceptPipe == INVALID_HANDLE_VALUE) {
        LOG_ERROR("IPC PostAccept CreateNamedPipe error");
        return false;
    }
    context = AllocateContext(buffer->m_acceptPipe);
    if (context == nullptr) {
        LOG_ERROR("IPC PostAccept AllocateContext error");
        return false;
    }
    if (!AssociateDeviceWithCompletionPort(m_completionPort, buffer->m_acceptPipe, KeyOf(context))) {
        LOG_ERROR("IPC PostAccept AssociateDeviceWithCompletionPort error");
        return false;
    }
    {
        // Listed before the connect starts: the worker may see it complete, and take it off, before the call returns.
        const AutoLock lock(&m_acceptingContexts);
        m_acceptingContexts.m_items[KeyOf(context)] = context;
    }
    m_outstanding.fetch_add(1);
    if (ConnectNamedPipe(buffer->m_acceptPipe, &buffer->m_overlapped) != FALSE || GetLastError() == ERROR_IO_PENDING) {
        return true;
    }
    m_outstanding.fetch_sub(1);
    Remove(m_acceptingContexts, context);
    LOG_ERROR("IPC PostAccept ConnectNamedPipe error");
    return false;
}

int IOCPServer::PostAccept(IOCPBuffer* buffer) {
    if (buffer == nullptr) {
        return 0;
    }
    buffer->m_operation = PipeOperation::Accept;
    IOCPContext* context = nullptr;
    if (ListenOn(buffer, context)) {
        return 1;
    }
    if (context != nullptr) {
        LOG_ERROR("IPC pipe INVALID_HANDLE_VALUE");
        ReleaseContext(context); // closes the instance with it
    } else if (buffer->m_acceptPipe != INVALID_HANDLE_VALUE) {
        DisconnectNamedPipe(buffer->m_acceptPipe);
        CloseHandle(buffer->m_acceptPipe);
        LOG_ERROR("IPC pipe INVALID_HANDLE_VALUE");
    }
    buffer->m_acceptPipe = INVALID_HANDLE_VALUE;
    ReleaseBuffer(buffer);
    return 0;
}

void IOCPServer::CheckAccepting() {
    std::int64_t missing = 0;
    {
        const AutoLock lock(&m_acceptingContexts);
        missing = m_acceptCount - static_cast<std::int64_t>(m_acceptingContexts.m_items.size());
    }
    LOG_DEBUG("CheckAccepting:" << missing);
    ShowMemory(L"CheckAccepting");
    if (missing > m_acceptCount) {
        LOG_ERROR("too big count. count=" << missing);
        return;
    }
    for (std::int64_t i = 0; i < missing; ++i) {
        IOCPBuffer* buffer = AllocateBuffer(kPipeIoBytes);
        if (buffer == nullptr) {
            LOG_ERROR("IPC checkaccepting allocatebuffer error");
        } else if (PostAccept(buffer) == 0) {
            LOG_ERROR("IPC checkaccepting PostAccept error");
            return;
        }
    }
}

void IOCPServer::OperationAcceptProcess(IOCPContext& context, DWORD& bytes, IOCPBuffer& buffer, int& error,
                                        bool& close) {
    Remove(m_acceptingContexts, &context);
    {
        const AutoLock lock(&m_connectedContexts);
        if (error != 0 || m_connectedContexts.m_items.size() >= m_maxConnections) {
            return;
        }
        m_connectedContexts.m_items[KeyOf(&context)] = &context;
    }
    if (!AssociateDeviceWithCompletionPort(m_completionPort, context.m_pipe, KeyOf(&context))) {
        LOG_ERROR_ROUTINE("Reconnect NamedPipe failed");
    }
    buffer.m_length = bytes;
    {
        const AutoLock lock(&context);
        if (!OnNewConnection(&context)) {
            return;
        }
    }
    IOCPBuffer* reading = AllocateBuffer(kPipeIoBytes);
    if (reading == nullptr) {
        return;
    }
    if (PostRecv(&context, reading) == 0) {
        ReleaseBuffer(reading);
        return;
    }
    ReleaseBuffer(&buffer);
    close = false;
}

// ---- Completions ---------------------------------------------------------------------------------------------------

void IOCPServer::DispatchCompletion(IOCPContext* context, IOCPBuffer* buffer, DWORD bytes, int error) {
    if (buffer == nullptr || context == nullptr) {
        return;
    }
    m_outstanding.fetch_sub(1);
    bool close = true;
    if (buffer->m_operation == PipeOperation::Accept) {
        OperationAcceptProcess(*context, bytes, *buffer, error, close);
    } else {
        OperationTransferProcess(*context, bytes, *buffer, error, close);
    }
    if (close) {
        EndConnection(context, buffer, error);
    }
}

void IOCPServer::EndConnection(IOCPContext* context, IOCPBuffer* buffer, int error) {
    bool idle = false;
    {
        const AutoLock lock(context);
        const AutoLock notifying(&m_closeLock);
        if (!context->m_closeNotified) {
            context->m_closeNotified = true;
            OnConnectionClose(context, buffer, static_cast<DWORD>(error));
        }
    }
    Remove(m_connectedContexts, context);
    ClosePipe(context);
    {
        const AutoLock lock(context);
        idle = context->m_pendingReads == 0 && context->m_pendingWrites == 0;
    }
    if (idle) {
        ReleaseContext(context);
    }
    ReleaseBuffer(buffer);
    if (m_stopping == 0) {
        CheckAccepting();
    }
}

void IOCPServer::OperationTransferProcess(IOCPContext& context, DWORD bytes, IOCPBuffer& buffer, int error,
                                          bool& close) {
    const PipeOperation operation = buffer.m_operation;
    {
        const AutoLock lock(&context);
        context.m_pendingReads -= operation == PipeOperation::Read ? 1 : 0;
        context.m_pendingWrites -= operation == PipeOperation::Write ? 1 : 0;
        if (context.m_closed == 1 || error != 0 || bytes == 0) {
            return;
        }
    }
    buffer.m_length = bytes;
    if (operation == PipeOperation::Read) {
        OnRecvData(&context, &buffer);
        buffer.m_data = buffer.m_bytes;
        buffer.m_length = kPipeIoBytes;
        buffer.m_storage.reset();
        OnBeforeRead(&context, &buffer);
        close = PostRecv(&context, &buffer) == 0;
        return;
    }
    if (operation == PipeOperation::Write) {
        ReleaseBuffer(&buffer);
        const AutoLock lock(&context);
        EmptySendQueue(&context);
    }
    close = false;
}

// ---- Reading and writing -------------------------------------------------------------------------------------------

int IOCPServer::PostRecv(IOCPContext* context, IOCPBuffer* buffer) {
    const AutoLock lock(context);
    return Issue(*context, *buffer, PipeOperation::Read) ? 1 : 0;
}

int IOCPServer::PostSend(IOCPContext* context, IOCPBuffer* buffer) {
    const AutoLock lock(context);
    return context->m_pendingWrites <= m_maxPendingWrites && Issue(*context, *buffer, PipeOperation::Write) ? 1 : 0;
}

// Starts a read or a write of m_length bytes.
bool IOCPServer::Issue(IOCPContext& context, IOCPBuffer& buffer, PipeOperation operation) {
    buffer.m_operation = operation;
    if (context.m_pipe == INVALID_HANDLE_VALUE || buffer.m_data == nullptr) {
        return false;
    }
    m_outstanding.fetch_add(1); // before the call: the worker may see the completion first
    const bool reads = operation == PipeOperation::Read;
    const BOOL completed =
        reads ? ReadFile(context.m_pipe, buffer.m_data, buffer.m_length, nullptr, &buffer.m_overlapped)
              : WriteFile(context.m_pipe, buffer.m_data, buffer.m_length, nullptr, &buffer.m_overlapped);
    if (completed == FALSE && GetLastError() != ERROR_IO_PENDING) {
        m_outstanding.fetch_sub(1);
        return false;
    }
    ++(reads ? context.m_pendingReads : context.m_pendingWrites);
    return true;
}

// Writes one piece; one that cannot be written is lost.
bool IOCPServer::SendPiece(IOCPContext* context, const SharedBytes& piece) {
    const bool copies = !piece.storage;
    IOCPBuffer* buffer = AllocateBuffer(copies ? piece.bytes.size() : 0);
    if (buffer == nullptr) {
        LOG_ERROR("IPC AllocateBuffer Error");
        return false;
    }
    if (copies) {
        piece.bytes.copy(buffer->m_bytes, sizeof buffer->m_bytes);
    } else {
        buffer->m_storage = piece.storage;
        buffer->m_data = const_cast<char*>(piece.bytes.data()); // only read from
        buffer->m_length = static_cast<DWORD>(piece.bytes.size());
    }
    if (PostSend(context, buffer) == 0) {
        LOG_ERROR("IPC PostSend Error");
        ReleaseBuffer(buffer);
        return false;
    }
    return true;
}

void IOCPServer::EmptySendQueue(IOCPContext* context) {
    if (context == nullptr || context->m_closed != 0) {
        return;
    }
    while (!context->m_sendQueue.empty() && context->m_pendingWrites <= m_maxPendingWrites) {
        const SharedBytes piece = std::move(context->m_sendQueue.front());
        context->m_sendQueue.pop();
        if (!SendPiece(context, piece)) {
            return;
        }
    }
}

bool IOCPServer::SendText(IOCPContext* context, const char* data, int length) {
    return data != nullptr && length >= 1 && Send(context, {nullptr, {data, static_cast<std::size_t>(length)}});
}

bool IOCPServer::SendShared(IOCPContext* context, const SharedBytes& text) {
    return text.storage && !text.bytes.empty() && Send(context, text);
}

bool IOCPServer::Send(IOCPContext* context, const SharedBytes& text) {
    if (context == nullptr) {
        return false;
    }
    if (text.bytes.size() > kLargePackage) {
        LOG_WARN("IPC SendText Package over 1M");
    }
    const AutoLock lock(context);
    if (context->m_closed == 1) {
        return false;
    }
    const std::size_t longest = text.storage ? kSharedPieceBytes : kPipeIoBytes;
    // With nothing queued before them, pieces go out without the detour over the queue.
    bool direct = context->m_sendQueue.empty();
    for (std::size_t at = 0; at < text.bytes.size(); at += longest) {
        const SharedBytes piece{text.storage, text.bytes.substr(at, longest)};
        if (direct && context->m_pendingWrites <= m_maxPendingWrites) {
            direct = SendPiece(context, piece);
        } else {
            context->m_sendQueue.push(piece.storage ? piece : CopyOf(piece.bytes));
        }
    }
    return true;
}

// ---- The worker ----------------------------------------------------------------------------------------------------

BOOL IOCPServer::AwaitCompletion(DWORD& bytes, ULONG_PTR& key, OVERLAPPED*& overlapped) {
    BOOL succeeded = FALSE;
    const auto comesWithin = [&](DWORD milliseconds) {
        succeeded = GetQueuedCompletionStatus(m_completionPort, &bytes, &key, &overlapped, milliseconds);
        return succeeded != FALSE || overlapped != nullptr || GetLastError() != WAIT_TIMEOUT;
    };
    if (!m_maySpin || !m_expectsMore) {
        comesWithin(INFINITE);
    } else if (!comesWithin(0)) {
        m_expectsMore = false;
        m_completionSpin.Wait([&] { return comesWithin(0); }, [&] { return comesWithin(INFINITE); });
    }
    return succeeded;
}

bool IOCPServer::ServeOne() {
    constexpr DWORD kStopWakeUp = 0xFFFFFFFF; // the byte count of Stop's completion
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    const BOOL succeeded = AwaitCompletion(bytes, key, overlapped);
    if (bytes == kStopWakeUp) {
        return false;
    }
    if (succeeded == FALSE && overlapped == nullptr) {
        LOG_ERROR_ROUTINE("IPC-Server: worker thread Proc finish");
        return false;
    }
    auto* context = reinterpret_cast<IOCPContext*>(key);
    int error = 0;
    if (succeeded == FALSE && context != nullptr) {
        HANDLE pipe = INVALID_HANDLE_VALUE;
        {
            const AutoLock lock(context);
            pipe = context->m_pipe;
        }
        error = GetOverlappedResult(pipe, overlapped, &bytes, FALSE) != FALSE ? 0 : static_cast<int>(GetLastError());
    }
    DispatchCompletion(context, reinterpret_cast<IOCPBuffer*>(overlapped), bytes, error);
    return true;
}

DWORD IOCPServer::WorkerThreadProc(void* server) {
    LOG_ERROR_ROUTINE("IPC-Server: worker thread Proc");
    while (static_cast<IOCPServer*>(server)->ServeOne()) {
    }
    return 0;
}

bool IOCPServer::Start() {
    LOG_ERROR_ROUTINE("IPC-Server: IOCP server start");
    if (m_running.exchange(1) == 1) {
        return false;
    }
    m_stopping = 0;
    {
        const AutoLock lock(&m_acceptingContexts);
        m_acceptingContexts.m_items.clear();
    }
    {
        const AutoLock lock(&m_connectedContexts);
        m_connectedContexts.m_items.clear();
    }
    m_completionPort = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    m_workerThread = CreateThread(nullptr, 0, &IOCPServer::WorkerThreadProc, this, 0, nullptr);
    for (std::int64_t i = 0; i < m_acceptCount; ++i) {
        IOCPBuffer* buffer = AllocateBuffer(kPipeIoBytes);
        if (buffer != nullptr && PostAccept(buffer) == 0) {
            break;
        }
    }
    LOG_ERROR_ROUTINE("IPC-Server: IOCP server start finish");
    return true;
}

// ---- Stopping ------------------------------------------------------------------------------------------------------

void IOCPServer::CloseAllPipes() {
    for (ContextMap* contexts : {&m_connectedContexts, &m_acceptingContexts}) {
        const AutoLock lock(contexts);
        for (const auto& [key, context] : contexts->m_items) {
            ClosePipe(context);
        }
    }
}

// False when the worker is held up.
bool IOCPServer::EndWorker() {
    constexpr DWORD kWorkerPatienceMs = 2000;
    constexpr DWORD kStopWakeUp = 0xFFFFFFFF;
    if (m_workerThread == nullptr) {
        return true;
    }
    if (PostQueuedCompletionStatus(m_completionPort, kStopWakeUp, 0, nullptr) == FALSE) {
        LOG_ERROR("PostQueuedCompletionStatus failed");
    }
    if (WaitForSingleObject(m_workerThread, kWorkerPatienceMs) != WAIT_OBJECT_0) {
        return false;
    }
    CloseHandle(m_workerThread);
    m_workerThread = nullptr;
    return true;
}

// The pipes are closed, so everything that is outstanding has completed or is about to.
void IOCPServer::DrainCompletions() {
    constexpr DWORD kPatienceMs = 2000;
    while (m_outstanding > 0) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        const BOOL succeeded = GetQueuedCompletionStatus(m_completionPort, &bytes, &key, &overlapped, kPatienceMs);
        const DWORD error = succeeded != FALSE ? ERROR_SUCCESS : GetLastError();
        if (overlapped == nullptr) {
            return; // the system still holds a buffer: better lost than freed under its feet
        }
        DispatchCompletion(reinterpret_cast<IOCPContext*>(key), reinterpret_cast<IOCPBuffer*>(overlapped), bytes,
                           static_cast<int>(error));
    }
}

void IOCPServer::Stop() {
    if (m_running == 0) {
        return;
    }
    m_stopping = 1;
    CloseAllPipes();
    if (!EndWorker()) {
        return;
    }
    CloseAllPipes(); // a connection that the worker was just about to list
    DrainCompletions();
    CloseHandle(m_completionPort);
    m_completionPort = nullptr;
    {
        const AutoLock lock(&m_freeBuffers);
        FreeBuffers(0);
    }
    m_running = 0;
}

} // namespace Vantor::Sentrix
