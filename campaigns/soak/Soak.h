// The run: scenarios lap after lap on one long-lived bus, beside calm traffic that must always be answered.
// Threads: one at a time.
#pragma once

#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"

#include <string>
#include <vector>

namespace Vantor::Sentrix::Soak {

struct Plan {
    double minutes = 2;
    double hostKills = 0; // 0: as many as the time allows; else it ends with that many, however long they take
    unsigned int seed = 1;
    std::vector<std::string> only; // scenarios; none: all
};

const std::vector<std::string>& ScenarioNames();

class Soak {
public:
    Soak(const Plan& plan, Ledger& ledger);

    // At least one lap of every scenario. A scenario that was bad is not repeated.
    void Run();
    std::string Report() const;

private:
    struct Held {
        std::string name;
        pid_t process;
        Holdings first; // after the first lap
        Holdings last;
    };

    bool IsOver() const;
    void Lap(std::unique_ptr<Scenario>& scenario);
    void NoteHoldings();
    void JudgeHoldings();

    const Plan m_plan;
    const double m_begin = Now();
    std::mt19937 m_random{m_plan.seed};
    Ledger& m_ledger;
    Bus m_bus{"soak"};
    Stage m_stage{m_bus, m_ledger, m_random};
    std::unique_ptr<Member> m_echo = m_bus.Join("echo");
    std::unique_ptr<Member> m_asker;
    std::vector<std::unique_ptr<Scenario>> m_scenarios;
    std::vector<Held> m_held;
    int m_laps = 0;
};

} // namespace Vantor::Sentrix::Soak
