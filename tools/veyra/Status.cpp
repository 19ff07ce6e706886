// veyra status: is a module on the bus?
#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/veyra/Ids.h"
#include "tools/veyra/Options.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"

#include <CLI/CLI.hpp>

namespace Vantor::Sentrix::Tool {

namespace {

struct StatusOptions {
    std::uint32_t moduleId = 0;
    bool json = false;
};

std::string Answer(const StatusOptions& options, bool online) {
    if (options.json) {
        return "{\"module\":" + std::to_string(options.moduleId) + ",\"online\":" + (online ? "true" : "false") + "}\n";
    }
    return online ? "online\n" : "offline\n";
}

int Status(const StatusOptions& options) {
    if (!IsIPCServerPresent(0)) {
        Say("nobody serves the bus; start `veyra serve`");
        return kFailed;
    }
    IPCMessageClient client(static_cast<int>(PassingModuleId()), false, false);
    const Support::ModuleStatus status = Support::StatusQuery(client).Ask(options.moduleId);
    if (status == Support::ModuleStatus::NoAnswer) {
        Say("the bus server does not answer");
        return kFailed;
    }
    const bool online = status == Support::ModuleStatus::Online;
    return Support::WriteOutput(Answer(options, online)) && online ? kDone : kFailed;
}

} // namespace

Verb AddStatus(CLI::App& program) {
    auto options = std::make_shared<StatusOptions>();
    CLI::App* command = program.add_subcommand("status", "Tell whether a module is online (exit code 0) or not (1)");
    AddModuleId(*command, "id", options->moduleId, "The module")->required();
    command->add_flag("--json", options->json, "Print a JSON object");
    return {command, [options] { return Status(*options); }};
}

} // namespace Vantor::Sentrix::Tool
