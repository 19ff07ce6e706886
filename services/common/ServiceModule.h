// A service on the bus: the module that takes requests and answers them.
#pragma once

#include "tools/support/Stop.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Vantor::Sentrix::Services {

// Who asked, and what the answers to it repeat.
struct Asker {
    std::int32_t moduleId = 0;
    std::int32_t correlationId = 0;
};

// Threads: any. Handlers run on pool threads, several at a time.
// Lifetime: the destructor waits for handlers that run, so it goes before what they use.
class ServiceModule {
public:
    using Handler = std::function<void(const Asker& asker, const std::string& text)>;

    explicit ServiceModule(std::int32_t moduleId);

    void On(std::int32_t requestId, Handler handle);
    void Post(const Asker& asker, std::int32_t messageId, const std::string& text) const;

    // Returns once the module is on the bus, however long that takes. From then on `onGone` is told of modules that
    // could not be reached: whoever asked has gone and hears no more. False: the user wants to stop.
    bool AwaitBus(std::function<void(std::int32_t moduleId)> onGone);

private:
    const std::int32_t m_moduleId;
    IPCMessageClient m_client;
};

void SayWhetherBusIsServed(const char* program);
void SayServing(const char* program, std::int32_t moduleId);

// Serves with what `make()` returns until the user wants to stop; gives the exit code.
template <class Make> int ServeUntilStopped(const char* program, std::int32_t moduleId, Make&& make) {
    Support::CatchStopSignals();
    SayWhetherBusIsServed(program);
    auto service = make();
    if (service.AwaitBus()) {
        SayServing(program, moduleId);
        Support::AwaitStop();
    }
    return 0;
}

} // namespace Vantor::Sentrix::Services
