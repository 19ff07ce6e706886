#include "campaigns/soak/Soak.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace Vantor::Sentrix::Soak {

namespace {

using Maker = std::unique_ptr<Scenario> (*)(Stage&);

const std::vector<std::pair<std::string, Maker>>& Makers() {
    static const std::vector<std::pair<std::string, Maker>> makers = {{"deaf", MakeDeaf},   {"edited", MakeEdited},
                                                                      {"kills", MakeKills}, {"bursts", MakeBursts},
                                                                      {"churn", MakeChurn}, {"rush", MakeRush}};
    return makers;
}

// What a process may hold more at the end than after its first lap: what allocators and pools keep.
constexpr Holdings kKept{32, 8, 8};

} // namespace

const std::vector<std::string>& ScenarioNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto& [name, make] : Makers()) {
            all.push_back(name);
        }
        return all;
    }();
    return names;
}

Soak::Soak(const Plan& plan, Ledger& ledger) : m_plan(plan), m_ledger(ledger) {
    for (const auto& [name, make] : Makers()) {
        if (plan.only.empty() || std::find(plan.only.begin(), plan.only.end(), name) != plan.only.end()) {
            m_scenarios.push_back(make(m_stage));
        }
    }
}

void Soak::Run() {
    do {
        for (std::unique_ptr<Scenario>& scenario : m_scenarios) {
            if (m_laps == 0 || !IsOver()) {
                Lap(scenario);
            }
        }
        std::erase(m_scenarios, nullptr);
        if (++m_laps == 1) {
            NoteHoldings();
        }
    } while (!m_scenarios.empty() && !IsOver());
    JudgeHoldings();
}

bool Soak::IsOver() const {
    return m_plan.hostKills != 0 ? m_ledger.Sum("host-kills") >= m_plan.hostKills
                                 : Now() - m_begin >= 60 * m_plan.minutes;
}

// The host of this bus lives, so every request of the calm traffic is answered.
void Soak::Lap(std::unique_ptr<Scenario>& scenario) {
    const std::string name = scenario->Name();
    try {
        m_asker = m_asker ? std::move(m_asker) : m_bus.Join("asker", Settings().Set("number", 0));
        m_asker->Order("begin");
        m_asker->Order("start", Settings().Set("away", 0).Set("edits", 0));
        scenario->Lap();
        Settings calm = m_asker->Order("stop");
        const double asked = calm.Number("asked");
        m_ledger.Add(name, calm.Set("unanswered", asked - calm.Number("answered")));
    } catch (const std::exception& error) {
        m_ledger.AddFault(name, error.what());
    }
    if (!m_bus.HostLives()) {
        throw std::runtime_error("the host has ended by itself");
    }
    if (m_ledger.HasFaults(name)) {
        scenario.reset();
        m_asker.reset();
    }
}

void Soak::NoteHoldings() {
    const auto note = [&](const std::string& name, pid_t process) {
        m_held.push_back({name, process, HoldingsOf(process), {}});
    };
    note("host", m_bus.Host());
    note("echo", m_echo->Process());
    for (const auto& scenario : m_scenarios) {
        for (const auto& member : scenario->Members()) {
            note(scenario->Name() + ' ' + member->Name(), member->Process());
        }
    }
}

void Soak::JudgeHoldings() {
    constexpr double kSettledSeconds = 15; // the pool lets idle threads end after ten
    std::erase_if(m_held,
                  [&](const Held& held) { return m_ledger.HasFaults(held.name.substr(0, held.name.find(' '))); });
    const auto isGood = [](const Held& held) { return held.last.IsWithin(held.first, kKept); };
    AwaitThat(kSettledSeconds, [&] {
        for (Held& held : m_held) {
            held.last = HoldingsOf(held.process);
        }
        return std::all_of(m_held.begin(), m_held.end(), isGood);
    });
    for (const Held& held : m_held) {
        if (!isGood(held)) {
            m_ledger.AddFault("growth", held.name + " holds more than after the first lap");
        }
    }
}

std::string Soak::Report() const {
    char head[160];
    std::snprintf(head, sizeof head, "Seed %u, %d laps, %.0f s, %.0f host kills\n\n", m_plan.seed, m_laps,
                  Now() - m_begin, m_ledger.Sum("host-kills"));
    std::string text = head + m_ledger.Table() + "\n| process | after the first lap | at the end |\n|---|---|---|\n";
    for (const Held& held : m_held) {
        text += "| " + held.name + " | " + held.first.Text() + " | " + held.last.Text() + " |\n";
    }
    return text + (m_ledger.Faults() == 0 ? "\nGOOD\n" : "\nBAD\n");
}

} // namespace Vantor::Sentrix::Soak
