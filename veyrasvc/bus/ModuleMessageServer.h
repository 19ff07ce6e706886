// The bus server proper: the pipe server whose connections are routed.
#pragma once

#include "veyrasvc/bus/NamedPipeIOCP.h"
#include "veyrasvc/bus/PacketLog.h"

namespace Vantor::Sentrix {

// Each run has a Router (Router.h) of its own, which lives as long as the run's worker.
class ModuleMessageServer : public IOCPServer {
public:
    // Fails: std::bad_alloc.
    ModuleMessageServer();
    // A server that still runs is a caller's error; it is stopped.
    virtual ~ModuleMessageServer();

private:
    std::shared_ptr<PipeEvents> EventsOfRun() override;
};

} // namespace Vantor::Sentrix
