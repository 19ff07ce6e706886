// One measurement: a broker started afresh in a folder of its own, and the roles that talk through it.
// Threads: one at a time.
// Fails: std::runtime_error, which says what the processes wrote.
#pragma once

#include "bench/compare/Bus.h"
#include "bench/compare/Machine.h"
#include "bench/compare/RoleProcess.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Compare {

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
