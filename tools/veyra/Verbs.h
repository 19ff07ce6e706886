// The verbs of the program. Each adds its subcommand and returns what runs when it was given.
#pragma once

#include "tools/support/Program.h"

#include <functional>
#include <vector>

namespace CLI {
class App;
}

namespace Vantor::Sentrix::Tool {

// Exit codes of every verb. The parser finds wrong usage before a verb runs.
using Support::kDone;
using Support::kFailed;
using Support::kWrongUsage;

struct Verb {
    CLI::App* command;
    std::function<int()> run;
};

// Runs the one that was given, and gives its exit code.
int RunChosen(const std::vector<Verb>& verbs);

Verb AddServe(CLI::App& program);
Verb AddSend(CLI::App& program);
Verb AddPost(CLI::App& program);
Verb AddPublish(CLI::App& program);
Verb AddListen(CLI::App& program);
Verb AddStatus(CLI::App& program);
Verb AddDiagnose(CLI::App& program);
Verb AddCrashDumps(CLI::App& program);
Verb AddHash(CLI::App& program);
Verb AddSysInfo(CLI::App& program);
Verb AddBench(CLI::App& program);
Verb AddBenchWorker(CLI::App& program); // hidden: what `bench` starts

} // namespace Vantor::Sentrix::Tool
