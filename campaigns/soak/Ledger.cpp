#include "campaigns/soak/Ledger.h"

#include "bench/compare/Bus.h"
#include "tools/support/Program.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr std::array kMustBeNothing = {"bounced", "damaged", "doubled",    "missing",
                                       "overdue", "stuck",   "unanswered", "wrong"};

const double kBegin = Compare::Now();

std::string Told(const std::string& name, double value) {
    char text[100];
    std::snprintf(text, sizeof text, "%.0f %s", value, name.c_str());
    return text;
}

std::string Join(const std::vector<std::string>& texts, const char* between) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : between) + text;
    }
    return joined;
}

} // namespace

void Ledger::Add(const std::string& scenario, const Settings& figures) {
    for (const std::string& word : figures.Words()) {
        const std::string name = word.substr(0, word.find('='));
        const double value = figures.Number(name);
        {
            const std::lock_guard guard(m_mutex);
            m_figures[scenario].Add(name, value);
        }
        if (value != 0 && std::find(kMustBeNothing.begin(), kMustBeNothing.end(), name) != kMustBeNothing.end()) {
            AddFault(scenario, Told(name, value));
        }
    }
}

void Ledger::AddFault(const std::string& scenario, const std::string& what) {
    Say("FAULT " + scenario + ": " + what);
    const std::lock_guard guard(m_mutex);
    m_figures[scenario]; // has a row then
    m_faults[scenario].push_back(what);
}

std::size_t Ledger::Faults() const {
    const std::lock_guard guard(m_mutex);
    std::size_t count = 0;
    for (const auto& [scenario, faults] : m_faults) {
        count += faults.size();
    }
    return count;
}

bool Ledger::HasFaults(const std::string& scenario) const {
    const std::lock_guard guard(m_mutex);
    return m_faults.count(scenario) != 0;
}

double Ledger::Sum(const std::string& name) const {
    const std::lock_guard guard(m_mutex);
    double sum = 0;
    for (const auto& [scenario, figures] : m_figures) {
        sum += figures.Figure(name);
    }
    return sum;
}

std::string Ledger::Table() const {
    const std::lock_guard guard(m_mutex);
    std::string table = "| scenario | verdict | counted |\n|---|---|---|\n";
    for (const auto& [scenario, figures] : m_figures) {
        std::vector<std::string> counted;
        for (const auto& [name, value] : figures.Figures()) {
            counted.push_back(Told(name, value));
        }
        const auto faults = m_faults.find(scenario);
        const std::string verdict = faults == m_faults.end() ? "good" : "BAD: " + Join(faults->second, "; ");
        table += "| " + scenario + " | " + verdict + " | " + Join(counted, ", ") + " |\n";
    }
    return table;
}

void Say(const std::string& text) {
    char time[32];
    std::snprintf(time, sizeof time, "%6.1f s  ", Compare::Now() - kBegin);
    Support::Say("veyra-soak", time + text);
}

} // namespace Vantor::Sentrix::Soak
