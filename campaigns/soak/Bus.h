// A bus of the soak: its host, which can be killed, and the members that the driver has started.
// Threads: one at a time, the one that outlives them all: members die with the thread that started them.
// Fails: std::runtime_error, which says what the processes wrote.
#pragma once

#include "bench/compare/RoleProcess.h"

#include <memory>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Soak {

using Tool::Settings;

// What a process holds at a moment.
struct Holdings {
    double memoryMiB = 0; // anonymous memory that is not the system's to take
    double threads = 0;
    double descriptors = 0;

    // No more than before, and what it may have kept.
    bool IsWithin(const Holdings& before, const Holdings& kept) const;
    std::string Text() const;
};

Holdings HoldingsOf(pid_t process);

class Member {
public:
    Member(std::string name, std::vector<std::string> command, const std::string& folder);

    // Begin() and then the result.
    Settings Order(const std::string& what, const Settings& order = {});
    // One of those that the member has counted so far.
    double Figure(const std::string& name);
    void Begin(const std::string& what, const Settings& order = {}) const { m_process.Begin(what, order); }
    Settings AwaitResult() { return m_process.AwaitResult(); }
    const std::string& Name() const { return m_name; }
    pid_t Process() const { return m_process.Process(); }

private:
    const std::string m_name;
    Compare::RoleProcess m_process;
};

class Bus {
public:
    explicit Bus(const std::string& name);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // Returns when clients can connect.
    void StartHost();
    void KillHost();
    bool HostLives() const;
    pid_t Host() const { return m_host; }

    // This program in a role, ready.
    std::unique_ptr<Member> Join(const std::string& role, const Settings& settings = {}) const;
    // The same of a client of the comparison.
    std::unique_ptr<Member> JoinBench(const std::string& role, const Settings& settings) const;
    // A role whose end is the caller's business.
    pid_t Start(const std::string& role, const Settings& settings) const;

private:
    void BecomeCurrent() const;

    const std::string m_name;
    const Compare::TemporaryFolder m_folder;
    pid_t m_host = 0;
};

} // namespace Vantor::Sentrix::Soak
