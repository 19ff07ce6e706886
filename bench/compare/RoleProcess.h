// A role in a process of its own: it says when it is ready, begins when it is told to, and answers with its results.
// Threads: one at a time.
// Fails: std::runtime_error, which says what the processes wrote.
#pragma once

#include "bench/compare/Processes.h"
#include "tools/veyra/bench/Settings.h"

#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Compare {

using Tool::Settings;

// The last of what the processes of a session have written, for people.
std::string LogsIn(const std::string& folder);

// Started by the constructor, ended by the destructor. Its log goes into that folder.
class RoleProcess {
public:
    RoleProcess(std::vector<std::string> command, std::string folder, int cpu);
    ~RoleProcess();
    RoleProcess(const RoleProcess&) = delete;
    RoleProcess& operator=(const RoleProcess&) = delete;

    void AwaitReady();
    // The role begins with what it is there for: it reads "WHAT NAME=NUMBER..." from its standard input.
    void Begin(const std::string& what = "go", const Settings& order = {}) const;
    Settings AwaitResult();
    pid_t Process() const { return m_process; }

private:
    std::string AwaitLine(std::string_view firstWord);
    [[noreturn]] void Fail(const std::string& what) const;

    const std::string m_folder;
    pid_t m_process = 0;
    Descriptor m_toRole;
    Descriptor m_fromRole;
    std::string m_received;
};

} // namespace Vantor::Sentrix::Compare
