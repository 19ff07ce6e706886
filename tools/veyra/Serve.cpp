// veyra serve: the bus, in the foreground.
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <CLI/CLI.hpp>

namespace Vantor::Sentrix::Tool {

namespace {

// Listening begins within Start; this is for a machine that is very busy.
constexpr unsigned int kReachableWithinMs = 2000;

int Serve() {
    Support::CatchStopSignals();
    if (IsIPCServerPresent(0)) {
        Say(R"(\\.\Pipe\iVeyraService is served already)");
        return kFailed;
    }
    IPCMessageServer server;
    if (!server.Start() || !IsIPCServerPresent(kReachableWithinMs)) {
        Say("the bus could not be started; the log says why");
        server.Stop();
        return kFailed;
    }
    Support::WriteOutput("veyra: serving \\\\.\\Pipe\\iVeyraService\n");
    Support::AwaitStop();
    server.Stop();
    return kDone;
}

} // namespace

Verb AddServe(CLI::App& program) {
    return {program.add_subcommand("serve", "Serve the bus until Ctrl-C or SIGTERM"), Serve};
}

} // namespace Vantor::Sentrix::Tool
