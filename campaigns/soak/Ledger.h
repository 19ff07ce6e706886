// What the soak has counted, and what was bad.
// Threads: any.
#pragma once

#include "campaigns/soak/Tally.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Soak {

class Ledger {
public:
    // Adds the figures to those of the scenario. Figures that must be 0 are faults when they are not.
    void Add(const std::string& scenario, const Settings& figures);
    void AddFault(const std::string& scenario, const std::string& what);

    std::size_t Faults() const;
    bool HasFaults(const std::string& scenario) const;
    double Sum(const std::string& name) const; // over all scenarios
    // A table with a row for every scenario.
    std::string Table() const;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, Tally> m_figures; // these are by scenario, and guarded by m_mutex
    std::map<std::string, std::vector<std::string>> m_faults;
};

// To standard error, with the seconds since the start.
void Say(const std::string& text);

} // namespace Vantor::Sentrix::Soak
