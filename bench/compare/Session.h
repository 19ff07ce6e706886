// One measurement: a broker started afresh in a folder of its own, and the roles that talk through it.
// Threads: one at a time.
// Fails: std::runtime_error, which says what the processes wrote.
#pragma once

#include "bench/compare/Bus.h"
#include "bench/compare/Machine.h"
#include "bench/compare/Processes.h"
#include "tools/veyra/bench/Settings.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Compare {

using Tool::Settings;

// The last of what the processes of a session have written, for people.
std::string LogsIn(const std::string& folder);

// A role in a process of its own, whose log goes into that folder. Ended by the destructor.
class RoleProcess {
public:
    RoleProcess(std::vector<std::string> command, std::string folder, int cpu);
    ~RoleProcess();
    RoleProcess(const RoleProcess&) = delete;
    RoleProcess& operator=(const RoleProcess&) = delete;

    void AwaitReady();
    // The role begins with what it is there for.
    void Begin() const;
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

class Session {
public:
    explicit Session(const Backend& backend, int brokerCpu = kAnyCpu);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Starts it and waits until it is ready.
    RoleProcess& Add(const std::string& role, const Settings& settings, int cpu = kAnyCpu);
    // The same, of a role that is not wanted any longer when it is ready.
    void Visit(const std::string& role, const Settings& settings);

    // What is measured lies between the two.
    void BeginCounting() { Count(m_before); }
    void EndCounting() { Count(m_after); }
    Usage Of(const RoleProcess& role) const { return UsageBetween(role.Process()); }
    Usage OfBroker() const;
    Memory MemoryOfBroker() const;

private:
    void Count(std::map<pid_t, Usage>& usages) const;
    Usage UsageBetween(pid_t process) const;
    std::unique_ptr<RoleProcess> Start(const std::string& role, const Settings& settings, int cpu) const;

    const Backend& m_backend;
    TemporaryFolder m_folder;
    std::unique_ptr<Broker> m_broker;
    std::vector<std::unique_ptr<RoleProcess>> m_roles;
    std::map<pid_t, Usage> m_before;
    std::map<pid_t, Usage> m_after;
};

} // namespace Vantor::Sentrix::Compare
