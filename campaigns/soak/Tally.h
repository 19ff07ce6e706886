// Figures by name, and numbers that must come once.
// Threads: any.
#pragma once

#include "tools/veyra/bench/Settings.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Soak {

using Tool::Settings;

class Tally {
public:
    static constexpr std::uint32_t kMostNumbers = 1 << 22; // numbers that can be told apart

    // Adds to a figure. Of one whose name begins with "most-" the largest value counts.
    void Add(const std::string& name, double value = 1) {
        const std::lock_guard guard(m_mutex);
        double& figure = m_figures[name];
        figure = name.starts_with("most-") ? std::max(figure, value) : figure + value;
    }
    void Set(const std::string& name, double value) {
        const std::lock_guard guard(m_mutex);
        m_figures[name] = value;
    }
    // "arrived" when the number comes for the first time, else "doubled".
    void Arrive(std::int32_t number) {
        const std::lock_guard guard(m_mutex);
        std::vector<bool>::reference seen = m_seen.at(static_cast<std::uint32_t>(number) % kMostNumbers);
        ++m_figures[seen ? "doubled" : "arrived"];
        seen = true;
    }
    double Figure(const std::string& name) const {
        const std::lock_guard guard(m_mutex);
        const auto found = m_figures.find(name);
        return found != m_figures.end() ? found->second : 0;
    }
    std::map<std::string, double> Figures() const {
        const std::lock_guard guard(m_mutex);
        return m_figures;
    }
    void Clear() {
        const std::lock_guard guard(m_mutex);
        m_figures.clear();
        m_seen.assign(kMostNumbers, false);
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, double> m_figures; // these are guarded by m_mutex
    std::vector<bool> m_seen = std::vector<bool>(kMostNumbers);
};

} // namespace Vantor::Sentrix::Soak
