#include "tools/veyra/ServiceVerbs.h"

#include "tools/support/StandardIo.h"
#include "tools/veyra/Options.h"
#include "tools/veyra/Say.h"

#include <CLI/CLI.hpp>

#include <string>
#include <utility>

namespace Vantor::Sentrix::Tool {

Verb AddServiceVerb(CLI::App& group, ServiceOptions& options, const char* name, const char* help,
                    std::function<int()> run) {
    CLI::App* command = group.add_subcommand(name, help);
    command->add_flag("--json", options.json, "Print JSON, an object a line");
    return {command, std::move(run)};
}

void AddActingModule(const Verb& verb, ServiceOptions& options) {
    AddModuleId(*verb.command, "--from", options.from, "Act as this module; by default an id made from the process id");
}

void AddCancelledModule(const Verb& verb, ServiceOptions& options, const char* help) {
    AddModuleId(*verb.command, "--from", options.from, help)->required();
}

void SayHowToCancel(const char* group, const ServiceOptions& options) {
    Say("`veyra " + std::string(group) + " cancel --from " + HexId(options.from) + "` or Ctrl-C cancels this run");
}

int ReportCancel(const ServiceOptions& options, ServiceWatch& watch, bool cancelled) {
    if (!cancelled) {
        if (watch.IsThere()) {
            Say("no run of module " + HexId(options.from) + " was cancelled");
        }
        return kFailed;
    }
    return Support::WriteOutput(options.json ? "{\"Cancelled\":true}\n" : "cancelled\n") ? kDone : kFailed;
}

} // namespace Vantor::Sentrix::Tool
