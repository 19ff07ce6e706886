// Runs one workload once, with processes of its own.
// Threads: one at a time.
// Fails: by BenchFailure.
#pragma once

#include "tools/veyra/bench/Processes.h"
#include "tools/veyra/bench/Workloads.h"

namespace Vantor::Sentrix::Tool {

// Over a bus that is there: everything but Memory.
Samples MeasureOnBus(const Workload& workload, double seconds);
// The same over the floor's forwarder. Requires: workload.hasFloor.
Samples MeasureOnFloor(const Workload& workload, double seconds, const std::string& floorProgram);
// A fresh host's memory as idle clients join.
Samples MeasureMemory();

} // namespace Vantor::Sentrix::Tool
