#include "veyrasvc/bus/ModuleMessageServer.h"

#include "veyrasvc/bus/Router.h"
#include "veyrasvc/util/MemoryReport.h"

namespace Vantor::Sentrix {

ModuleMessageServer::ModuleMessageServer() {
    NameReservedModules();
}

ModuleMessageServer::~ModuleMessageServer() {
    Stop();
    ShowMemory(L"~CModuleMessageServer");
}

std::shared_ptr<PipeEvents> ModuleMessageServer::EventsOfRun() {
    return std::make_shared<Router>();
}

} // namespace Vantor::Sentrix
