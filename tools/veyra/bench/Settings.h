// How the benchmark's processes are told what to do, and how they tell what came of it: NAME=NUMBER, separated by
// spaces on a line, one by one on a command line. Numbers are decimal.
// Threads: any, while nobody changes it.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Tool {

class Settings {
public:
    Settings() = default;
    explicit Settings(const std::vector<std::string>& words) {
        for (const std::string& word : words) {
            const std::size_t equals = word.find('=');
            if (equals == std::string::npos) {
                throw std::invalid_argument("'" + word + "' is no setting NAME=NUMBER");
            }
            m_numbers[word.substr(0, equals)] = std::stod(word.substr(equals + 1));
        }
    }

    double Number(const std::string& name) const {
        const auto found = m_numbers.find(name);
        if (found == m_numbers.end()) {
            throw std::invalid_argument("the setting " + name + " is missing");
        }
        return found->second;
    }
    template <class Integer> Integer Get(const std::string& name) const { return static_cast<Integer>(Number(name)); }

    Settings& Set(const std::string& name, double value) {
        m_numbers[name] = value;
        return *this;
    }

    std::vector<std::string> Words() const {
        std::vector<std::string> words;
        for (const auto& [name, number] : m_numbers) {
            words.push_back(name + '=' + std::to_string(number));
        }
        return words;
    }

private:
    std::map<std::string, double> m_numbers;
};

// What a process writes to its standard output when it can be used, and before its results.
inline constexpr std::string_view kReadyLine = "ready";
inline constexpr std::string_view kResultWord = "result";

inline std::string ResultLine(const Settings& results) {
    std::string line(kResultWord);
    for (const std::string& word : results.Words()) {
        line += ' ' + word;
    }
    return line;
}

} // namespace Vantor::Sentrix::Tool
