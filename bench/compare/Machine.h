// What the kernel counts: the cost of processes, and what everybody else takes from the machine meanwhile.
// Threads: one at a time. Fails: what cannot be read counts as nothing.
#pragma once

#include <sys/types.h>

namespace Vantor::Sentrix::Compare {

struct Usage {
    double cpuSeconds = 0;
    double switches = 0; // of its threads from one to another, wanted or not
    double threads = 0;

    Usage& operator+=(const Usage& other);
    // What was added since; the threads are those of now.
    Usage Since(const Usage& before) const;
};

// Of a process that still runs.
Usage UsageOf(pid_t process);

struct Memory {
    double residentMiB = 0;
    double anonymousMiB = 0; // the part that is no file's
    double peakMiB = 0;      // the most that was ever resident
};

Memory MemoryOf(pid_t process);

// Processor seconds, since whenever, of all processes that are neither this one nor its children, with what their ended
// children used, and of whoever has taken the processors away from this virtual machine.
double ForeignCpuSeconds();

} // namespace Vantor::Sentrix::Compare
