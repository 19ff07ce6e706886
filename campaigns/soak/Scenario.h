// A kind of hardship that the soak repeats lap by lap.
#pragma once

#include "campaigns/soak/Bus.h"
#include "campaigns/soak/Ledger.h"

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Vantor::Sentrix::Soak {

struct Stage {
    Bus& bus; // whose host nobody kills
    Ledger& ledger;
    std::mt19937& random;
};

// Its members live from its construction to its end.
// Fails: std::runtime_error from a lap is a fault.
class Scenario {
public:
    Scenario(std::string name, Stage& stage) : m_name(std::move(name)), m_stage(stage) {}
    virtual ~Scenario() = default;
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    virtual void Lap() = 0;
    const std::string& Name() const { return m_name; }
    const std::vector<std::unique_ptr<Member>>& Members() const { return m_members; }

protected:
    Member& Join(const Bus& bus, const std::string& role, const Settings& settings = {}) {
        return *m_members.emplace_back(bus.Join(role, settings));
    }
    void Add(const Settings& figures) const { m_stage.ledger.Add(m_name, figures); }
    void Add(const std::string& figure, double value) const { Add(Settings().Set(figure, value)); }
    // As printf would write it.
    template <class... Values> void AddFault(const char* format, Values... values) const {
        char text[200];
        std::snprintf(text, sizeof text, format, values...);
        m_stage.ledger.AddFault(m_name, text);
    }
    const Bus& MainBus() const { return m_stage.bus; }
    int Random(int from, int to) const { return std::uniform_int_distribution(from, to)(m_stage.random); }

private:
    const std::string m_name;
    Stage& m_stage;
    std::vector<std::unique_ptr<Member>> m_members;
};

std::unique_ptr<Scenario> MakeDeaf(Stage& stage);
std::unique_ptr<Scenario> MakeEdited(Stage& stage);
std::unique_ptr<Scenario> MakeKills(Stage& stage);
std::unique_ptr<Scenario> MakeBursts(Stage& stage);
std::unique_ptr<Scenario> MakeChurn(Stage& stage);
std::unique_ptr<Scenario> MakeRush(Stage& stage);

} // namespace Vantor::Sentrix::Soak
