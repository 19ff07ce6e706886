// A bus of its own for a measurement: a host started afresh, and the members that have joined.
// Threads: one at a time.
// Fails: std::runtime_error, which says what the processes wrote.
#pragma once

#include "bench/compare/Machine.h"
#include "bench/compare/RoleProcess.h"
#include "bench/growth/Member.h" // the orders and messages

#include <memory>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Growth {

class Party {
public:
    Party(const std::string& role, const Settings& settings, const std::string& folder);

    void AwaitReady() { m_process.AwaitReady(); }
    void Begin(const std::string& order, const Settings& settings) const { m_process.Begin(order, settings); }
    Settings AwaitResult() { return m_process.AwaitResult(); }
    Settings Order(const std::string& order, const Settings& settings = {});

    int Module(int index = 0) const { return m_firstModule + index; }
    Compare::Usage Usage() const { return Compare::UsageOf(m_process.Process()); }
    Compare::Memory Memory() const { return Compare::MemoryOf(m_process.Process()); }
    // Of everything but these questions.
    double Allocations();

private:
    const int m_firstModule;
    Compare::RoleProcess m_process;
    double m_askedFor = 0; // allocations of questions
};

// The processor time of what happens while it lives.
class Stopwatch {
public:
    explicit Stopwatch(const Party& party) : m_party(party), m_before(party.Usage()) {}

    double Microseconds() const { return m_party.Usage().Since(m_before).cpuSeconds * 1e6; }
    double Switches() const { return m_party.Usage().Since(m_before).switches; }

private:
    const Party& m_party;
    const Compare::Usage m_before;
};

class Bus {
public:
    Bus();

    Party& Join(int modules = 1);
    // Until so many have joined.
    void Fill(std::size_t members);

    Party& Host() { return *m_host; }
    const std::vector<std::unique_ptr<Party>>& Members() const { return m_members; }

private:
    Party& Start(int modules);
    void MakePlaces();

    Compare::TemporaryFolder m_folder;
    std::unique_ptr<Party> m_host;
    std::vector<std::unique_ptr<Party>> m_members;
};

// Until what was caused before is over.
void Settle();

// An order to ask that member's module.
Settings Asking(int module, int message, double bytes, double seconds);

} // namespace Vantor::Sentrix::Growth
