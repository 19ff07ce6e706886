// The run's buffers, reading and writing.
#include "veyrasvc/bus/PipeRun.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/Storage.h"

#include <algorithm>
#include <new>

namespace Vantor::Sentrix {

namespace {

constexpr DWORD kMaxPendingWrites = 2000;             // a context has at most one more in flight
constexpr std::size_t kLargePackage = 0x100000;       // worth a warning
constexpr std::size_t kSharedPieceBytes = 256 * 1024; // of one write that needs no copy

SharedBytes CopyOf(std::string_view bytes) {
    SharedBytes copy{AllocateStorage(bytes.size()), {}};
    bytes.copy(copy.storage.get(), bytes.size());
    copy.bytes = {copy.storage.get(), bytes.size()};
    return copy;
}

bool IsClosed(IOCPContext& context) {
    const AutoLock lock(&context);
    return context.m_closed == 1;
}

} // namespace

// ---- Buffers -------------------------------------------------------------------------------------------------------

IOCPBuffer* PipeRun::AllocateBuffer(std::size_t size) {
    IOCPBuffer* buffer = nullptr;
    {
        const AutoLock lock(&m_freeBuffers);
        if (!m_freeBuffers.m_items.empty()) {
            buffer = m_freeBuffers.m_items.back();
            m_freeBuffers.m_items.pop_back();
        }
    }
    if (buffer == nullptr) {
        buffer = new (std::nothrow) IOCPBuffer;
    }
    if (buffer != nullptr) {
        buffer->m_length = static_cast<DWORD>(size);
    }
    return buffer;
}

void PipeRun::ReleaseBuffer(IOCPBuffer* buffer) {
    buffer->m_overlapped = {};
    buffer->m_acceptPipe = nullptr;
    buffer->m_data = buffer->m_bytes;
    buffer->m_storage.reset();
    {
        const AutoLock lock(&m_freeBuffers);
        if (m_freeBuffers.m_items.size() < m_freeBuffers.m_items.capacity()) {
            m_freeBuffers.m_items.push_back(buffer);
            return;
        }
    }
    delete buffer;
}

void PipeRun::ClosePipe(IOCPContext& context) {
    const AutoLock lock(&context);
    if (context.m_pipe != INVALID_HANDLE_VALUE) {
        DisconnectNamedPipe(context.m_pipe);
        CloseHandle(context.m_pipe);
        context.m_pipe = INVALID_HANDLE_VALUE;
        context.m_closed = 1;
    }
}

// ---- Transfers -----------------------------------------------------------------------------------------------------

bool PipeRun::OperationTransferProcess(IOCPContext& context, DWORD bytes, IOCPBuffer& buffer, DWORD error) {
    const PipeOperation operation = buffer.m_operation;
    {
        const AutoLock lock(&context);
        context.m_pendingReads -= operation == PipeOperation::Read ? 1 : 0;
        context.m_pendingWrites -= operation == PipeOperation::Write ? 1 : 0;
        if (context.m_closed == 1 || error != ERROR_SUCCESS || bytes == 0) {
            return false;
        }
        if (operation == PipeOperation::Write) {
            ReleaseBuffer(&buffer);
            EmptySendQueue(context);
            return true;
        }
    }
    buffer.m_length = bytes;
    m_events->OnRecvData(&context, &buffer);
    if (m_stopping) {
        return false;
    }
    buffer.m_data = buffer.m_bytes;
    buffer.m_length = kPipeIoBytes;
    buffer.m_storage.reset();
    m_events->OnBeforeRead(&context, &buffer);
    return PostRecv(context, buffer);
}

bool PipeRun::PostRecv(IOCPContext& context, IOCPBuffer& buffer) {
    const AutoLock lock(&context);
    return Issue(context, buffer, PipeOperation::Read);
}

// Starts a read or a write of m_length bytes.
bool PipeRun::Issue(IOCPContext& context, IOCPBuffer& buffer, PipeOperation operation) {
    buffer.m_operation = operation;
    if (context.m_pipe == INVALID_HANDLE_VALUE) {
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

// ---- Writing -------------------------------------------------------------------------------------------------------

// Without a storage the piece is copied.
bool PipeRun::WritePiece(IOCPContext& context, const std::shared_ptr<char[]>& storage, std::string_view piece) {
    IOCPBuffer* buffer = AllocateBuffer(piece.size());
    if (buffer == nullptr) {
        LOG_ERROR("IPC AllocateBuffer Error");
        return false;
    }
    if (storage) {
        buffer->m_storage = storage;
        buffer->m_data = const_cast<char*>(piece.data()); // only read from
    } else {
        piece.copy(buffer->m_bytes, sizeof buffer->m_bytes);
    }
    if (!Issue(context, *buffer, PipeOperation::Write)) {
        LOG_ERROR("IPC PostSend Error");
        ReleaseBuffer(buffer);
        return false;
    }
    return true;
}

// Writes until all is on its way, enough is, or a piece cannot be written; returns what is left.
std::string_view PipeRun::WritePieces(IOCPContext& context, const SharedBytes& text) {
    const std::size_t longest = text.storage ? kSharedPieceBytes : kPipeIoBytes;
    std::string_view rest = text.bytes;
    while (!rest.empty() && context.m_pendingWrites <= kMaxPendingWrites &&
           WritePiece(context, text.storage, rest.substr(0, longest))) {
        rest.remove_prefix(std::min(longest, rest.size()));
    }
    return rest;
}

bool PipeRun::Send(IOCPContext& context, const SharedBytes& text) {
    if (text.bytes.size() > kLargePackage && !IsClosed(context)) {
        LOG_WARN("IPC SendText Package over 1M");
    }
    const AutoLock lock(&context);
    if (context.m_closed == 1) {
        return false;
    }
    std::string_view rest = text.bytes;
    if (context.m_sendQueue.empty()) {
        rest = WritePieces(context, text);
        if (rest.size() == text.bytes.size() && context.m_pendingWrites <= kMaxPendingWrites) {
            return false; // not even its first piece could be written
        }
    }
    if (rest.empty()) {
        return true;
    }
    try {
        context.m_sendQueue.push(text.storage ? SharedBytes{text.storage, rest} : CopyOf(rest));
    } catch (const std::bad_alloc&) {
        LOG_ERROR("IPC no memory for what waits to be sent");
        if (rest.size() < text.bytes.size()) {
            ClosePipe(context); // half a text is on its way
        }
        return false;
    }
    return true;
}

// Goes on with what waits, as writes complete.
void PipeRun::EmptySendQueue(IOCPContext& context) {
    while (!context.m_sendQueue.empty()) {
        SharedBytes& text = context.m_sendQueue.front();
        text.bytes = WritePieces(context, text);
        if (!text.bytes.empty()) {
            break;
        }
        context.m_sendQueue.pop();
    }
    if (!context.m_sendQueue.empty() && context.m_pendingWrites == 0) {
        ClosePipe(context); // no completion comes that could go on
    }
}

} // namespace Vantor::Sentrix
