// The run's life, its worker, and accepting. Reading and writing are in PipeRunIo.cpp.
#include "veyrasvc/bus/PipeRun.h"

#include "veyrasvc/bus/SecurityAttribute.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/MemoryReport.h"

#include <new>
#include <utility>

namespace Vantor::Sentrix {

namespace {

constexpr std::int64_t kAcceptCount = 20;    // instances kept waiting
constexpr std::size_t kMaxConnections = 100; // instances with a client
constexpr std::size_t kMaxFreeBuffers = 200; // in the pool
constexpr std::chrono::seconds kTick{1};     // between ticks, and between attempts to have all places again
constexpr DWORD kPipeDefaultTimeoutMs = 60000;

// On one processor nobody can send while the worker looks for it.
bool HasSeveralProcessors() {
    ULONG_PTR allowed = 0;
    ULONG_PTR all = 0;
    return GetProcessAffinityMask(GetCurrentProcess(), &allowed, &all) != FALSE && (allowed & (allowed - 1)) != 0;
}

bool AssociateDeviceWithCompletionPort(HANDLE port, HANDLE device, std::uint64_t key) {
    return CreateIoCompletionPort(device, port, key, 1) == port;
}

} // namespace

// ---- Life ----------------------------------------------------------------------------------------------------------

PipeRun::PipeRun(std::shared_ptr<PipeEvents> events) : m_events(std::move(events)), m_maySpin(HasSeveralProcessors()) {
    const AutoLock lock(&m_freeBuffers);
    m_freeBuffers.m_items.reserve(kMaxFreeBuffers);
}

PipeRun::~PipeRun() {
    for (const HANDLE handle : {m_completionPort, m_workerThread}) {
        if (handle != nullptr) {
            CloseHandle(handle);
        }
    }
    const AutoLock lock(&m_freeBuffers);
    for (const IOCPBuffer* buffer : m_freeBuffers.m_items) {
        delete buffer;
    }
}

bool PipeRun::Begin() {
    m_completionPort = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    if (m_completionPort == nullptr) {
        LOG_ERROR("IPC-Server: no completion port; nobody is served. error=" << GetLastError());
        return false;
    }
    auto workersShare = std::make_unique<std::shared_ptr<PipeRun>>(shared_from_this());
    m_workerThread = CreateThread(nullptr, 0, &PipeRun::WorkerThreadProc, workersShare.get(), 0, nullptr);
    if (m_workerThread == nullptr) {
        LOG_ERROR("IPC-Server: no worker thread; nobody is served. error=" << GetLastError());
        return false;
    }
    static_cast<void>(workersShare.release()); // the worker's
    std::int64_t places = 0;
    for (; places < kAcceptCount; ++places) {
        IOCPBuffer* const buffer = AllocateBuffer(kPipeIoBytes);
        if (buffer == nullptr || !PostAccept(*buffer)) {
            break;
        }
    }
    // With none at all the name is not to be had. Else the worker, which may sleep without a limit, tries again.
    if (places > 0 && places < kAcceptCount) {
        m_lacksPlaces = true;
        PostQueuedCompletionStatus(m_completionPort, 0, 0, nullptr);
    }
    return true;
}

void PipeRun::End() {
    constexpr DWORD kWorkerPatienceMs = 2000;
    m_stopping = true;
    CloseAllPipes();
    // What was outstanding wakes the worker; this does where nothing was.
    if (PostQueuedCompletionStatus(m_completionPort, 0, 0, nullptr) == FALSE) {
        LOG_ERROR("PostQueuedCompletionStatus failed");
    }
    if (WaitForSingleObject(m_workerThread, kWorkerPatienceMs) != WAIT_OBJECT_0) {
        m_abandoned = true;
        LOG_ERROR("IPC-Server: the worker is held up and left to end by itself");
    }
}

// With m_stopping set. Instances that are about to be listed find that out by themselves.
void PipeRun::CloseAllPipes() {
    for (ContextMap* contexts : {&m_connectedContexts, &m_acceptingContexts}) {
        const AutoLock lock(contexts);
        for (const auto& [key, context] : contexts->m_items) {
            ClosePipe(*context);
        }
    }
}

void PipeRun::Remove(ContextMap& contexts, const IOCPContext& context) {
    const AutoLock lock(&contexts);
    contexts.m_items.erase(KeyOf(context));
}

// ---- The worker ----------------------------------------------------------------------------------------------------

DWORD PipeRun::WorkerThreadProc(void* run) {
    const std::unique_ptr<std::shared_ptr<PipeRun>> share(static_cast<std::shared_ptr<PipeRun>*>(run));
    LOG_ERROR_ROUTINE("IPC-Server: worker thread Proc");
    (*share)->Serve();
    return 0;
}

void PipeRun::Serve() {
    while ((!m_stopping || m_outstanding > 0) && ServeOne()) {
        Tick();
    }
}

// How long the worker may sleep.
DWORD PipeRun::LongestWait() const {
    constexpr auto kTickMs = static_cast<DWORD>(std::chrono::milliseconds(kTick).count());
    return m_expectsTick || m_lacksPlaces ? kTickMs : INFINITE;
}

void PipeRun::Tick() {
    if (LongestWait() == INFINITE || m_stopping) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastTick < kTick) {
        return;
    }
    m_lastTick = now;
    if (std::exchange(m_expectsTick, false)) {
        m_events->OnTick();
    }
    if (m_lacksPlaces) {
        CheckAccepting();
    }
}

BOOL PipeRun::AwaitCompletion(DWORD& bytes, ULONG_PTR& key, OVERLAPPED*& overlapped) {
    BOOL succeeded = FALSE;
    const auto comesWithin = [&](DWORD milliseconds) {
        succeeded = GetQueuedCompletionStatus(m_completionPort, &bytes, &key, &overlapped, milliseconds);
        return succeeded != FALSE || overlapped != nullptr || GetLastError() != WAIT_TIMEOUT;
    };
    if (!m_maySpin || !m_expectsMore) {
        comesWithin(LongestWait());
    } else if (!comesWithin(0)) {
        m_expectsMore = false;
        m_completionSpin.Wait([&] { return comesWithin(0); }, [&] { return comesWithin(LongestWait()); });
    }
    return succeeded;
}

// Waits for one completion and handles it; false when the port is closed.
bool PipeRun::ServeOne() {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    const BOOL succeeded = AwaitCompletion(bytes, key, overlapped);
    if (overlapped == nullptr) { // End's wake-up, or the time of a tick
        if (succeeded != FALSE || GetLastError() == WAIT_TIMEOUT) {
            return true;
        }
        LOG_ERROR_ROUTINE("IPC-Server: worker thread Proc finish");
        return false;
    }
    IOCPContext& context = *reinterpret_cast<IOCPContext*>(key);
    DWORD error = ERROR_SUCCESS;
    if (succeeded == FALSE) {
        HANDLE pipe = INVALID_HANDLE_VALUE;
        {
            const AutoLock lock(&context);
            pipe = context.m_pipe;
        }
        error = GetOverlappedResult(pipe, overlapped, &bytes, FALSE) != FALSE ? ERROR_SUCCESS : GetLastError();
    }
    DispatchCompletion(context, *reinterpret_cast<IOCPBuffer*>(overlapped), bytes, error);
    return true;
}

// The one place where the worker meets the end of memory: it costs the connection at hand.
void PipeRun::DispatchCompletion(IOCPContext& context, IOCPBuffer& buffer, DWORD bytes, DWORD error) {
    m_outstanding.fetch_sub(1);
    bool livesOn = false;
    try {
        livesOn = buffer.m_operation == PipeOperation::Accept ? OperationAcceptProcess(context, bytes, buffer, error)
                                                              : OperationTransferProcess(context, bytes, buffer, error);
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        LOG_ERROR("IPC no memory for a connection; it is closed");
    }
    if (!livesOn) {
        EndConnection(context, buffer, error);
    }
}

void PipeRun::EndConnection(IOCPContext& context, IOCPBuffer& buffer, DWORD error) {
    if (!std::exchange(context.m_closeNotified, true) && !m_abandoned) {
        m_events->OnConnectionClose(&context, &buffer, error);
    }
    Remove(m_connectedContexts, context);
    ClosePipe(context);
    bool idle = false;
    {
        const AutoLock lock(&context);
        idle = context.m_pendingReads == 0 && context.m_pendingWrites == 0;
    }
    if (idle) {
        delete &context;
    }
    ReleaseBuffer(&buffer);
    if (!m_stopping) {
        CheckAccepting();
    }
}

// ---- Accepting -----------------------------------------------------------------------------------------------------

bool PipeRun::ListenOn(IOCPBuffer& buffer, IOCPContext*& context) {
    SecurityAttribute security;
    buffer.m_acceptPipe =
        CreateNamedPipeW(kBusPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_WRITE_THROUGH,
                         PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES, 0, 0,
                         kPipeDefaultTimeoutMs, security.EveryoneSecAttr());
    if (buffer.m_acceptPipe == INVALID_HANDLE_VALUE) {
        LOG_ERROR("IPC PostAccept CreateNamedPipe error");
        return false;
    }
    context = new (std::nothrow) IOCPContext(*this, buffer.m_acceptPipe);
    if (context == nullptr) {
        LOG_ERROR("IPC PostAccept AllocateContext error");
        return false;
    }
    if (!AssociateDeviceWithCompletionPort(m_completionPort, buffer.m_acceptPipe, KeyOf(*context))) {
        LOG_ERROR("IPC PostAccept AssociateDeviceWithCompletionPort error");
        return false;
    }
    {
        // Listed before the connect starts: the worker may see it complete, and take it off, before the call returns.
        const AutoLock lock(&m_acceptingContexts);
        m_acceptingContexts.m_items[KeyOf(*context)] = context;
    }
    m_outstanding.fetch_add(1);
    // Asked behind the listing: either End has found the instance there, or it is seen here.
    if (!m_stopping &&
        (ConnectNamedPipe(buffer.m_acceptPipe, &buffer.m_overlapped) != FALSE || GetLastError() == ERROR_IO_PENDING)) {
        return true;
    }
    m_outstanding.fetch_sub(1);
    Remove(m_acceptingContexts, *context);
    LOG_ERROR("IPC PostAccept ConnectNamedPipe error");
    return false;
}

// Creates one instance and starts accepting on it. Owns: takes the buffer over.
bool PipeRun::PostAccept(IOCPBuffer& buffer) {
    buffer.m_operation = PipeOperation::Accept;
    buffer.m_acceptPipe = INVALID_HANDLE_VALUE;
    IOCPContext* context = nullptr;
    try {
        if (ListenOn(buffer, context)) {
            return true;
        }
    } catch (const std::bad_alloc&) {
        LOG_ERROR("IPC PostAccept no memory");
    }
    if (context != nullptr) {
        ClosePipe(*context);
        delete context;
    } else if (buffer.m_acceptPipe != INVALID_HANDLE_VALUE) {
        DisconnectNamedPipe(buffer.m_acceptPipe);
        CloseHandle(buffer.m_acceptPipe);
    }
    if (std::exchange(buffer.m_acceptPipe, INVALID_HANDLE_VALUE) != INVALID_HANDLE_VALUE) {
        LOG_ERROR("IPC pipe INVALID_HANDLE_VALUE");
    }
    ReleaseBuffer(&buffer);
    return false;
}

void PipeRun::CheckAccepting() {
    std::int64_t missing = 0;
    {
        const AutoLock lock(&m_acceptingContexts);
        missing = kAcceptCount - static_cast<std::int64_t>(m_acceptingContexts.m_items.size());
    }
    LOG_DEBUG("CheckAccepting:" << missing);
    ShowMemory(L"CheckAccepting");
    if (missing > kAcceptCount) {
        LOG_ERROR("too big count. count=" << missing);
        return;
    }
    bool lacksPlaces = false;
    for (std::int64_t i = 0; i < missing && !lacksPlaces; ++i) {
        IOCPBuffer* buffer = AllocateBuffer(kPipeIoBytes);
        if (buffer == nullptr) {
            LOG_ERROR("IPC checkaccepting allocatebuffer error");
            lacksPlaces = true;
        } else if (!PostAccept(*buffer)) {
            LOG_ERROR("IPC checkaccepting PostAccept error");
            lacksPlaces = true;
        }
    }
    m_lacksPlaces = lacksPlaces; // the worker tries again then
}

bool PipeRun::OperationAcceptProcess(IOCPContext& context, DWORD bytes, IOCPBuffer& buffer, DWORD error) {
    Remove(m_acceptingContexts, context);
    NoteShortage(error);
    {
        const AutoLock lock(&m_connectedContexts);
        if (error != ERROR_SUCCESS || m_stopping || m_connectedContexts.m_items.size() >= kMaxConnections) {
            return false;
        }
        m_connectedContexts.m_items[KeyOf(context)] = &context;
    }
    if (!AssociateDeviceWithCompletionPort(m_completionPort, buffer.m_acceptPipe, KeyOf(context))) {
        LOG_ERROR_ROUTINE("Reconnect NamedPipe failed");
    }
    buffer.m_length = bytes;
    if (!m_events->OnNewConnection(&context)) {
        return false;
    }
    IOCPBuffer* reading = AllocateBuffer(kPipeIoBytes);
    if (reading == nullptr) {
        return false;
    }
    if (!PostRecv(context, *reading)) {
        ReleaseBuffer(reading);
        return false;
    }
    ReleaseBuffer(&buffer);
    return true;
}

// Clients come faster than descriptors become free: once is enough to say so, until one is served again.
void PipeRun::NoteShortage(DWORD acceptError) {
    const bool isShort = acceptError == ERROR_TOO_MANY_OPEN_FILES;
    if (isShort && !m_shortageNamed) {
        LOG_ERROR("IPC no descriptor for a client; clients are turned away");
    }
    m_shortageNamed = isShort || (m_shortageNamed && acceptError != ERROR_SUCCESS);
}

} // namespace Vantor::Sentrix
