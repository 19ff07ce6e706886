#include "veyrasvc/bus/NamedPipeIOCP.h"

#include "veyrasvc/bus/PipeRun.h"
#include "veyrasvc/util/LogStatement.h"

#include <new>

namespace Vantor::Sentrix {

bool PipeEvents::OnNewConnection(IOCPContext* /*context*/) {
    return false;
}

void PipeEvents::OnConnectionClose(IOCPContext* /*context*/, IOCPBuffer* /*buffer*/, DWORD /*error*/) {}

void PipeEvents::OnRecvData(IOCPContext* /*context*/, IOCPBuffer* /*buffer*/) {}

void PipeEvents::OnBeforeRead(IOCPContext* /*context*/, IOCPBuffer* /*buffer*/) {}

void PipeEvents::OnTick() {}

bool PipeEvents::SendText(IOCPContext* context, const char* data, int length) {
    return context != nullptr && data != nullptr && length >= 1 &&
           context->m_run.Send(*context, {nullptr, {data, static_cast<std::size_t>(length)}});
}

bool PipeEvents::SendShared(IOCPContext* context, const SharedBytes& text) {
    return context != nullptr && text.storage && !text.bytes.empty() && context->m_run.Send(*context, text);
}

void PipeEvents::ExpectMore(const IOCPContext* context) {
    context->m_run.ExpectMore();
}

void PipeEvents::ExpectTick(const IOCPContext* context) {
    context->m_run.ExpectTick();
}

void PipeEvents::ClosePipe(IOCPContext* context) {
    PipeRun::ClosePipe(*context);
}

IOCPServer::IOCPServer() = default;

IOCPServer::~IOCPServer() = default;

std::shared_ptr<PipeEvents> IOCPServer::EventsOfRun() {
    return {std::shared_ptr<void>(), this};
}

bool IOCPServer::Start() {
    LOG_ERROR_ROUTINE("IPC-Server: IOCP server start");
    if (m_running.exchange(1) == 1) {
        return false;
    }
    try {
        m_run = std::make_shared<PipeRun>(EventsOfRun());
        if (!m_run->Begin()) {
            m_run.reset();
        }
    } catch (const std::bad_alloc&) {
        LOG_ERROR("IPC-Server: no memory to serve");
        m_run.reset();
    }
    LOG_ERROR_ROUTINE("IPC-Server: IOCP server start finish");
    return true;
}

void IOCPServer::Stop() {
    if (m_run) {
        m_run->End();
        m_run.reset();
    }
    m_running = 0;
}

void IOCPServer::CheckAccepting() {
    if (m_run) {
        m_run->CheckAccepting();
    }
}

} // namespace Vantor::Sentrix
