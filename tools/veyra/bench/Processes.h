// The processes of one measurement.
// Threads: one at a time.
// Fails: by BenchFailure: a process that does not start, ends early or does not answer, and a user who wants to stop.
#pragma once

#include "tools/support/ChildProcess.h"
#include "tools/veyra/bench/Settings.h"
#include "tools/veyra/bench/Workers.h"

#include <string>
#include <vector>

namespace Vantor::Sentrix::Tool {

// Killed when it goes out of scope.
class Worker {
public:
    Worker(const std::string& program, const std::vector<std::string>& arguments);

    Worker& AwaitReady();
    Settings AwaitResult();
    std::size_t MemoryBytes() const { return m_process.MemoryBytes(); }

private:
    std::string AwaitLine();

    Support::ChildProcess m_process;
};

// A role of `veyra bench-worker`.
std::vector<std::string> BusRole(const std::string& role, const Settings& settings);
// A role of veyra-floor.
std::vector<std::string> FloorRole(const std::string& role, const Settings& settings);

// The program that measures the floor, where it was built: beside this one. Empty: there is none.
std::string FloorProgram();

// A host on a bus of its own, which the workers that are started meanwhile use.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const Worker& Host() const { return *m_host; }

private:
    std::unique_ptr<Worker> m_host;
};

} // namespace Vantor::Sentrix::Tool
