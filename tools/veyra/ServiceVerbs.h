// The verbs that talk to a service, where those of one service are like those of another: options and reports.
#pragma once

#include "tools/veyra/Ids.h"
#include "tools/veyra/ServiceCall.h"
#include "tools/veyra/Verbs.h"

#include <cstdint>
#include <functional>

namespace Vantor::Sentrix::Tool {

struct ServiceOptions {
    std::uint32_t from = PassingModuleId(); // the module that asks
    bool json = false;
};

// Each takes the words of the user into `options`, which outlives the parser.

// A verb with --json.
Verb AddServiceVerb(CLI::App& group, ServiceOptions& options, const char* name, const char* help,
                    std::function<int()> run);
// Gives a verb that starts a run --from, the module that it acts as.
void AddActingModule(const Verb& verb, ServiceOptions& options);
// Gives a verb that cancels a run --from, the module that has started it.
void AddCancelledModule(const Verb& verb, ServiceOptions& options, const char* help);

// Before a run of `group`: how it is cancelled.
void SayHowToCancel(const char* group, const ServiceOptions& options);
// After a cancel: what came of it, and the exit code.
int ReportCancel(const ServiceOptions& options, ServiceWatch& watch, bool cancelled);

} // namespace Vantor::Sentrix::Tool
