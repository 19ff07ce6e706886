// veyra serve: the bus, in the foreground.
#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Ids.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <CLI/CLI.hpp>

namespace Vantor::Sentrix::Tool {

namespace {

// Listening begins within Start; this is for a machine that is very busy.
constexpr unsigned int kReachableWithinMs = 2000;

// The worker answers over the pipe. The server's own module is in this process, so it is the answer that must take the
// way over the pipe. The module that asks is gone again when the bus is said to be served.
bool IsAnswered() {
    IPCMessageClient client(static_cast<int>(PassingModuleId()), false, true);
    return Support::StatusQuery(client).Flush();
}

int Serve() {
    Support::CatchStopSignals();
    if (IsIPCServerPresent(0)) {
        Say(R"(\\.\Pipe\iVeyraService is served already)");
        return kFailed;
    }
    IPCMessageServer server;
    const bool started = server.Start() && IsIPCServerPresent(kReachableWithinMs);
    const bool answers = started && IsAnswered();
    if (!answers && !Support::StopAsked()) {
        Say(started ? "the bus was started, but does not answer; the log says why"
                    : "the bus could not be started; the log says why");
        server.Stop();
        return kFailed;
    }
    if (answers) {
        Support::WriteOutput("veyra: serving \\\\.\\Pipe\\iVeyraService\n");
    }
    Support::AwaitStop();
    server.Stop();
    return kDone;
}

} // namespace

Verb AddServe(CLI::App& program) {
    return {program.add_subcommand("serve", "Serve the bus until Ctrl-C or SIGTERM"), Serve};
}

} // namespace Vantor::Sentrix::Tool
